// The video settings with which the capture thread starts.
#pragma once

#include <cstdint>

// Filled from the command line and, for a camera model, from the configuration database. Never
// changes after parsing. Unset integers are -1. Owns no memory: `source` is a constant or points
// into the command line.
class TVideoArgs {
 public:
  // Parses the arguments after the program's name, strictly from left to right: a later option
  // overrides an earlier one, and a model option all before it (so -mv belongs behind -K310).
  // Unknown options and values that are no numbers pass without a message. Below 2 arguments
  // everything stays unset. `argv` must outlive the object.
  TVideoArgs(int argc, char** argv);

  // Takes back every field: integers -1, video on, audio off, source "test.jpg".
  void initial();

  // Prints the options to standard output.
  void usage() const;

  // Load the configuration database: what all models have, the video server KTX-310, the network
  // camera BRM-520. A getter that fails leaves its field alone and
  // logs 2 "get_NAME() fail"; loadKTX310() also logs 2 "set_channel(%d) fail".
  void loadCommon();
  void loadKTX310();
  void loadBRM520();

  std::int32_t resolution;
  std::int32_t compressRate;
  std::int32_t frameRate;
  std::int32_t ipRatio;
  std::int32_t videoSource;  // input channel
  std::int32_t flicker;
  std::int32_t exposure;
  std::int32_t brightness;
  std::int32_t contrast;
  std::int32_t saturation;
  std::int32_t hue;
  std::int32_t compressionType;  // applied as the camera's streaming mode
  std::int32_t flip;
  std::int32_t mirror;
  std::int32_t maxExposure;  // applied as the camera's shutter limit
  bool videoEnabled;
  bool audioEnabled;
  std::int32_t overlay;
  std::int32_t motionDetection;
  std::int32_t whiteBalance;
  std::int32_t noiseReduction;
  std::int32_t backlight;
  const char* source;  // model name, or path of a picture file

 private:
  void parse(const char* argument);
  void parseMode(char which);
};

// The names that `source` has for the camera models.
constexpr char kModelKTX310[] = "KTX-310";
constexpr char kModelBRM520[] = "BRM-520";
