// Options from the command line and from the configuration database.
#include "capture/video_args.h"

#include <gtest/gtest.h>

#include "tests/fakes/fake_platform.h"

namespace {

class VideoArgs : public testing::Test {
 protected:
  TVideoArgs parse(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "video_svr");
    return TVideoArgs(static_cast<int>(arguments.size()), const_cast<char**>(arguments.data()));
  }

  // A value of its own for every key of the database.
  void fillDatabase() {
    int value = 100;
    for (const char* key :
         {"resolution", "compress_rate", "compression_type", "ip_ratio", "video_source",
          "brightness", "contrast", "saturation", "hue", "flip", "mirror", "exposure",
          "max_exposure", "flickness", "white_balance", "noise_reduction", "backlight_comp"})
      fake.config(key, value++);
    fake.config("frame_rate", "25");
  }

  FakePlatform fake;
};

void expectInitial(const TVideoArgs& args) {
  for (const std::int32_t field : {args.resolution,
                                   args.compressRate,
                                   args.frameRate,
                                   args.ipRatio,
                                   args.videoSource,
                                   args.flicker,
                                   args.exposure,
                                   args.brightness,
                                   args.contrast,
                                   args.saturation,
                                   args.hue,
                                   args.compressionType,
                                   args.flip,
                                   args.mirror,
                                   args.maxExposure,
                                   args.overlay,
                                   args.motionDetection,
                                   args.whiteBalance,
                                   args.noiseReduction,
                                   args.backlight})
    EXPECT_EQ(field, -1);
  EXPECT_TRUE(args.videoEnabled);
  EXPECT_FALSE(args.audioEnabled);
  EXPECT_STREQ(args.source, "test.jpg");
}

TEST_F(VideoArgs, WithoutArgumentsEverythingIsUnset) {
  expectInitial(TVideoArgs(0, nullptr));
  expectInitial(parse({}));
}

TEST_F(VideoArgs, UsageTellsEveryOption) {
  testing::internal::CaptureStdout();
  TVideoArgs(0, nullptr).usage();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "USAGE:\n\tvideo_svr [video options]\n"
            "\nVideo options:\n"
            "\t-B520\tload from BRM-520 configuration database\n"
            "\t-K310\tload from KTX-310 configuration database\n"
            "\t-rx\tresolution\n"
            "\t-qx\tcompression\n"
            "\t-fx\tframerate\n"
            "\t-bx\tbrightness\n"
            "\t-cx\tcontrast\n"
            "\t-sx\tsaturation\n"
            "\t-hx\thue\n"
            "\t-nfile\tUse 'file' as video source\n"
            "\t-mx\tstreaming mode, 'x' is 'b','v' or 'a' (both/video/audio)\n\n");
}

TEST_F(VideoArgs, EachNumberGoesToItsField) {
  const auto args = parse({"-r3", "-q4", "-f5", "-b6", "-c7", "-s8", "-h9"});
  EXPECT_EQ(args.resolution, 3);
  EXPECT_EQ(args.compressRate, 4);
  EXPECT_EQ(args.frameRate, 5);
  EXPECT_EQ(args.brightness, 6);
  EXPECT_EQ(args.contrast, 7);
  EXPECT_EQ(args.saturation, 8);
  EXPECT_EQ(args.hue, 9);
}

TEST_F(VideoArgs, TheSourceIsTheTextBehindItsOption) {
  EXPECT_STREQ(parse({"-nclip.jpg"}).source, "clip.jpg");
  EXPECT_STREQ(parse({"-n"}).source, "");
  EXPECT_STREQ(parse({"-na.jpg", "-nb.jpg"}).source, "b.jpg");
}

TEST_F(VideoArgs, TheModeSaysWhatRuns) {
  const auto both = parse({"-mb"});
  EXPECT_TRUE(both.videoEnabled && both.audioEnabled);
  const auto video = parse({"-mb", "-mv"});
  EXPECT_TRUE(video.videoEnabled && !video.audioEnabled);
  const auto audio = parse({"-ma"});
  EXPECT_TRUE(!audio.videoEnabled && audio.audioEnabled);
  const auto same = parse({"-ma", "-mx", "-m"});
  EXPECT_TRUE(!same.videoEnabled && same.audioEnabled);
}

TEST_F(VideoArgs, UnknownOptionsPassInSilence) {
  expectInitial(parse({"-x5", "-Z", "-", "", "r3", "-B521", "-K310x", "-Adefault"}));
  EXPECT_EQ(fake.count("log"), 0);
}

TEST_F(VideoArgs, WhatIsNoNumberIsZeroAndWhatIsTooLargeIsTheLimit) {
  EXPECT_EQ(parse({"-rabc"}).resolution, 0);
  EXPECT_EQ(parse({"-r"}).resolution, 0);
  EXPECT_EQ(parse({"-r99999999999999999999"}).resolution, 2147483647);
  EXPECT_EQ(parse({"-r-99999999999999999999"}).resolution, -2147483647 - 1);
}

TEST_F(VideoArgs, TheVideoServerLoadsItsPartOfTheDatabase) {
  fillDatabase();
  const auto args = parse({"-K310"});
  EXPECT_STREQ(args.source, "KTX-310");
  EXPECT_EQ(args.resolution, 100);
  EXPECT_EQ(args.compressRate, 101);
  EXPECT_EQ(args.compressionType, 102);
  EXPECT_EQ(args.ipRatio, 103);
  EXPECT_EQ(args.videoSource, 104);
  EXPECT_EQ(args.brightness, 105);
  EXPECT_EQ(args.contrast, 106);
  EXPECT_EQ(args.saturation, 107);
  EXPECT_EQ(args.hue, 108);
  EXPECT_EQ(args.frameRate, 25);
  for (const std::int32_t field :
       {args.flip, args.mirror, args.exposure, args.maxExposure, args.flicker, args.whiteBalance,
        args.noiseReduction, args.backlight, args.overlay, args.motionDetection})
    EXPECT_EQ(field, -1);
  EXPECT_TRUE(args.videoEnabled && args.audioEnabled);
  EXPECT_EQ(fake.calls(), std::vector<std::string>{"set_channel(104)"});
}

TEST_F(VideoArgs, TheNetworkCameraLoadsItsPartOfTheDatabase) {
  fillDatabase();
  const auto args = parse({"-B520"});
  EXPECT_STREQ(args.source, "BRM-520");
  EXPECT_EQ(args.ipRatio, 103);
  EXPECT_EQ(args.flip, 109);
  EXPECT_EQ(args.mirror, 110);
  EXPECT_EQ(args.exposure, 111);
  EXPECT_EQ(args.maxExposure, 112);
  EXPECT_EQ(args.flicker, 113);
  EXPECT_EQ(args.whiteBalance, 114);
  EXPECT_EQ(args.noiseReduction, 115);
  EXPECT_EQ(args.backlight, 116);
  EXPECT_EQ(args.motionDetection, 3);
  EXPECT_EQ(args.overlay, 2);
  EXPECT_EQ(args.videoSource, -1);
  EXPECT_EQ(args.frameRate, 25);
  EXPECT_TRUE(fake.calls().empty());
}

TEST_F(VideoArgs, EveryGetterThatFailsSaysSoAndLeavesItsField) {
  const auto args = parse({"-r1", "-q2", "-f3", "-b4", "-c5", "-s6", "-h7", "-B520"});
  EXPECT_EQ(
      fake.takeCalls(),
      (std::vector<std::string>{
          "log 2 get_flip() fail", "log 2 get_exposure() fail", "log 2 get_flickness() fail",
          "log 2 get_ip_ratio() fail", "log 2 get_mirror() fail", "log 2 get_white_balance() fail",
          "log 2 get_noise_reduction() fail", "log 2 get_backlight_comp() fail",
          "log 2 get_max_exposure() fail", "log 2 get_frame_rate() fail",
          "log 2 get_resolution() fail", "log 2 get_compress_rate() fail",
          "log 2 get_brightness() fail", "log 2 get_contrast() fail", "log 2 get_hue() fail",
          "log 2 get_saturation() fail", "log 2 get_compression_type() fail"}));
  EXPECT_EQ(args.resolution, 1);
  EXPECT_EQ(args.compressRate, 2);
  EXPECT_EQ(args.frameRate, 3);
  EXPECT_EQ(args.brightness, 4);
  EXPECT_EQ(args.contrast, 5);
  EXPECT_EQ(args.saturation, 6);
  EXPECT_EQ(args.hue, 7);
  EXPECT_EQ(args.motionDetection, 3);
  EXPECT_EQ(args.overlay, 2);
}

TEST_F(VideoArgs, AnInputChannelThatCantBeSelectedIsLogged) {
  fillDatabase();
  fake.fails("set_channel");
  EXPECT_EQ(parse({"-K310"}).videoSource, 104);
  EXPECT_TRUE(fake.called("log 2 set_channel(104) fail"));
}

TEST_F(VideoArgs, WithoutAnInputChannelNoneIsSelected) {
  fillDatabase();
  fake.fails("get_video_source");
  EXPECT_EQ(parse({"-K310"}).videoSource, -1);
  EXPECT_EQ(fake.calls(), std::vector<std::string>{"log 2 get_video_source() fail"});
}

TEST_F(VideoArgs, AModelOptionOverridesWhatComesBeforeIt) {
  fillDatabase();
  EXPECT_TRUE(parse({"-mv", "-K310"}).audioEnabled);
  EXPECT_FALSE(parse({"-K310", "-mv"}).audioEnabled);
  EXPECT_TRUE(parse({"-ma", "-B520"}).videoEnabled);
  EXPECT_EQ(parse({"-r3", "-K310"}).resolution, 100);
  EXPECT_EQ(parse({"-K310", "-r3"}).resolution, 3);
  EXPECT_STREQ(parse({"-nclip.jpg", "-K310"}).source, "KTX-310");
  EXPECT_STREQ(parse({"-K310", "-nclip.jpg"}).source, "clip.jpg");
}

}  // namespace
