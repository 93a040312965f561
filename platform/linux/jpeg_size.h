// The picture size in a JPEG picture.
#pragma once

#include "platform/linux/vol_header.h"

// Reads the size of a JPEG picture from its frame header (ISO/IEC 10918-1), the segments ahead of
// which are skipped. `length`: of the data, any.
// Returns false, leaving `*size` alone, when there is none ahead of the picture's data, or a side
// is 0. Any thread.
bool readJpegSize(const char* data, long length, PictureSize* size);
