// The MPEG-4 encoder.
#pragma once

#include <cstdint>

#include "capture/camera.h"

// Reads the encoder's stream chunk by chunk into frames, tags each chunk (capture/chunk_trailer.h),
// hands it to the AVI writer in mode 0, and fetches the stream's header whenever it may have
// changed. Thread: as TCamera. The flags and tables are the class's: there is one camera in a
// process.
class TMpg430 : public TCamera {
 public:
  static constexpr int kResolutions = 11;
  static const int tabWidth[kResolutions];   // pixels; index 9 is empty on purpose
  static const int tabHeight[kResolutions];  // pixels

  static Relaxed<bool> fHeadr;  // the stream header is to be fetched before it is used; any thread
  static Relaxed<bool> fImage;  // a colour value has changed and is to be sent before the next read
  static constexpr int kHeaderText = 41;
  static char header[kHeaderText];  // the last stream header in hexadecimal digits, terminated

  // Opens "/dev/mpg430" and asks for SIGIO when the TV standard changes. `start`: also starts it.
  explicit TMpg430(bool start);
  ~TMpg430() override;

  // Reads chunks into one frame until there are setPackage() of them, 61 ms have passed or the
  // frame is full. `size`: the largest payload of a frame of "video". Returns the chunks' total
  // length, 0 when nothing was read because the process ends. Intended: a failing read is repeated
  // at once and without end. Logs 2 "read(MPG430) return %ld", 3 "TMpg430::getImage() IPE".
  int getImage(char* frame, long size) override;
  // The following hand their value to the driver and, when it has taken it, keep and publish what
  // the driver made of it; otherwise return its negative result and change nothing.
  int setSource(int input) override;  // pauses a second
  int setIpratio(int ratio) override;
  int setFramerate(int rate) override;
  void setResolution(int index) override;
  int setCompression(int quantiser) override;
  // The following reach the encoder with the next getImage().
  void setContrast(int contrast) override;
  void setBrightness(int brightness) override;
  void setHue(int hue) override;
  void setSaturation(int saturation) override;
  // 0: the stream header in hexadecimal digits; otherwise an empty text.
  void getUserdata(int which, char* text) override;
  // Sends the four colour values to the driver. Returns its result.
  virtual int setImage();

  // Returns the frame type of a chunk (capture/chunk_trailer.h) of `length` bytes, `previous` being
  // that of the chunk before it. A chunk too short to tell continues the picture.
  static char getFrameType(const char* chunk, long length, char previous);

 protected:
  // Starts (1) or stops (0) the encoder; the stream header is fetched anew in either case.
  void enableStream(int on);
  // Fetches the stream header if it may have changed, for getUserdata() and for the AVI writer.
  // Logs 3 "TMpg430::getStreamHeader() IPE", 3 "unexpected mp4 header size".
  void getStreamHeader();

  static char lastType;  // frame type of the last chunk read

 private:
  static void onTVModeChanged(int signal);
  int request(unsigned request, void* argument, const char* name);
  // Starts the encoder once more, a second after it refused: it gives nothing until it is started.
  void startAgain();
  int readChunk(char* chunk, long length);
  void passOn(const char* chunk, long length, bool raised);
  void fetchHeader(bool ofGathered);

  static bool startIsDue;          // it was to start, and refused
  static std::uint32_t refusedMs;  // monotonic, when
};
