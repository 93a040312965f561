// Hands JPEG pictures to recorders.
#pragma once

#include "record/writer.h"

// Publishes each JPEG picture as it comes.
// Thread: the capture thread, but for the client list.
class TJpgWriter : public TWriter {
 public:
  TJpgWriter();

  // As TWriter::write(). Returns 0 and writes nothing while no client is registered.
  long write(const char* data, long length, const TDateTime& time, char type) override;
};

// Returns the one JPEG writer of the process. Any thread.
TJpgWriter* jpgWriter();
