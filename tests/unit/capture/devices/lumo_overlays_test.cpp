// The overlays of the sensor camera: what is asked, what the driver sees, in which order.
#include "tests/unit/capture/devices/lumo_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class LumoOverlays : public LumoFixture {
 protected:
  LumoOverlays() {
    TCamera::defMode = 1;
    fake.setTimeZone("UTC");
    fake.setWallClock("2024-06-03 12:00:00");
    fake.overlays.image = overlay(0, "");
    fake.overlays.motion = overlay(0, "");
    fake.overlays.text = overlay(0, "");
    camera = std::make_unique<Lumo>();
    drivers.take();
    fake.clearCalls();
  }

  static tag_Overlay overlay(int enable, const std::string& text) {
    tag_Overlay result{};
    result.enable = enable;
    text.copy(result.text, sizeof result.text);
    return result;
  }

  Trace set(int how) {
    return trace([&] { camera->setOverlay(how); });
  }
  Trace stamp() {
    return trace([&] { camera->setTimestamp(); });
  }
  // The requests after the three that switch all off.
  Trace shown(int how = 1) {
    Trace all = set(how);
    EXPECT_EQ(Trace(all.begin(), all.begin() + 3), kOff);
    return {all.begin() + 3, all.end()};
  }

  void showImage(int transparency = 0) {
    fake.overlays.image = overlay(1, "");
    fake.overlays.image->x = 10;
    fake.overlays.image->y = 20;
    fake.overlays.image->transparency = transparency;
  }

  void showText(const std::string& text, int showTime) {
    fake.overlays.text = overlay(1, text);
    fake.overlays.text->x = 50;
    fake.overlays.text->y = 60;
    fake.overlays.text->colour = 4;
    fake.overlays.text->transparency = 2;
    fake.overlays.text->showTime = showTime;
  }

  const Trace kOff = {"sensor 400456F0 0", "sensor 400456E4 0", "sensor 400456D8 0"};
  const Trace kImage = {"sensor 400456F2 10", "sensor 400456F3 20", "sensor 400456F1 1",
                        "sensor 400456F0 1"};
  std::unique_ptr<Lumo> camera;
};

TEST_F(LumoOverlays, WhenAllAreOffTheyAreOnlySwitchedOff) {
  EXPECT_EQ(set(1), kOff);
  EXPECT_EQ(set(2), kOff);
  EXPECT_EQ(fake.count("read_overlay_image"), 0);
  EXPECT_EQ(fake.count("log"), 0);
}

TEST_F(LumoOverlays, TheGettersAreAskedInTheOrderOfTheOverlays) {
  set(1);
  EXPECT_THAT(fake.calls(),
              ElementsAre("get_overlay_image()", "get_overlay_motion()", "get_overlay_text()"));
}

// --- The image

TEST_F(LumoOverlays, TheImageIsProgrammedAndThenSwitchedOn) {
  for (const int transparency : {0, 1, 7}) {
    showImage(transparency);
    EXPECT_EQ(shown(), kImage) << "its transparency is always 1, not " << transparency;
  }
}

TEST_F(LumoOverlays, TheImageIsLoadedFromFlashOnlyWhenAskedFor) {
  showImage();
  fake.files.put("/dev/mtdblock2", "OSD1 and pixels");
  for (const int how : {0, 1, 3, -2}) {
    EXPECT_EQ(shown(how), kImage) << how;
    EXPECT_EQ(fake.count("read_overlay_image"), 0) << how;
  }
  Trace expected = kImage;
  expected.insert(expected.begin(), "sensor 4004572B OSD1 and");
  EXPECT_EQ(shown(2), expected);
  EXPECT_TRUE(fake.called("read_overlay_image(/dev/mtdblock2,32768)"));
  EXPECT_EQ(fake.count("log"), 0);
}

TEST_F(LumoOverlays, AnImageThatIsOffIsNotLoaded) {
  fake.files.put("/dev/mtdblock2", "OSD1 and pixels");
  EXPECT_THAT(shown(2), IsEmpty());
  EXPECT_EQ(fake.count("read_overlay_image"), 0);
}

TEST_F(LumoOverlays, TheLargestImageIsTaken) {
  showImage();
  fake.files.put("/dev/mtdblock2", "OSD1" + std::string(32764, '.'));
  EXPECT_EQ(shown(2).size(), 5u);
  EXPECT_EQ(fake.count("log"), 0);
}

TEST_F(LumoOverlays, AnImageThatCantBeHadStaysOff) {
  showImage();
  showText("door", 0);
  const auto fails = [&](const char* why) {
    fake.clearCalls();
    const Trace expected = {"sensor 400456DD door", "sensor 400456DB 50", "sensor 400456DC 60",
                            "sensor 400456D9 2",    "sensor 400456DA 4",  "sensor 400456D8 1"};
    EXPECT_EQ(shown(2), expected) << why;
    EXPECT_TRUE(fake.called("log 1 read_overlay_image() fail or image length < 1")) << why;
    EXPECT_EQ(fake.count("log"), 1) << why;
  };
  fails("no flash");
  fake.files.put("/dev/mtdblock2", "");
  fails("empty");
  fake.files.put("/dev/mtdblock2", std::string(32769, '.'));
  fails("too large");
  fake.files.put("/dev/mtdblock2", "OSD1");
  fake.fails("read_overlay_image");
  fails("unreadable");
}

TEST_F(LumoOverlays, AnImageThatTheDriverRefusesStaysOff) {
  showImage();
  fake.files.put("/dev/mtdblock2", "OSD1 and pixels");
  drivers.failing = {0x4004572B};
  EXPECT_THAT(shown(2), ElementsAre("sensor 4004572B OSD1 and"));
  EXPECT_TRUE(fake.called("log 3 ioctl(VICAM_IOC_SET_GPOSD_IMG) fail"));
  EXPECT_TRUE(fake.called("log 1 read_overlay_image() fail or image length < 1"));
}

// --- The text for motion

TEST_F(LumoOverlays, TheMotionTextIsProgrammedAndThenSwitchedOn) {
  fake.overlays.motion = overlay(1, "motion!");
  fake.overlays.motion->x = 30;
  fake.overlays.motion->y = 40;
  fake.overlays.motion->colour = 5;
  fake.overlays.motion->transparency = 3;
  EXPECT_THAT(shown(),
              ElementsAre("sensor 400456E7 30", "sensor 400456E8 40", "sensor 400456E9 motion!",
                          "sensor 400456E5 3", "sensor 400456E6 5", "sensor 400456E4 1"));
}

// --- Date and time

TEST_F(LumoOverlays, ATextWithoutTimeIsProgrammedAndThenSwitchedOn) {
  showText("door", 0);
  EXPECT_THAT(shown(),
              ElementsAre("sensor 400456DD door", "sensor 400456DB 50", "sensor 400456DC 60",
                          "sensor 400456D9 2", "sensor 400456DA 4", "sensor 400456D8 1"));
  EXPECT_THAT(stamp(), IsEmpty()) << "no time, so nothing to refresh";
}

TEST_F(LumoOverlays, TheTimeFollowsTheTextWithNothingBetween) {
  showText("door", 1);
  EXPECT_THAT(shown(), ElementsAre("sensor 400456DD door2024/06/03 12:00:00", "sensor 400456DB 50",
                                   "sensor 400456DC 60", "sensor 400456D9 2", "sensor 400456DA 4",
                                   "sensor 400456D8 1"));
  fake.advance(61);
  EXPECT_THAT(stamp(), ElementsAre("sensor 400456DD door2024/06/03 12:01:01"));
}

TEST_F(LumoOverlays, TheTimeMayStandAlone) {
  showText("", -1);
  shown();
  EXPECT_THAT(stamp(), ElementsAre("sensor 400456DD 2024/06/03 12:00:00"));
}

TEST_F(LumoOverlays, WithDateAndTimeOffNothingIsRefreshed) {
  EXPECT_THAT(stamp(), IsEmpty()) << "never set";
  showText("door", 1);
  fake.overlays.text->enable = 0;
  set(1);
  EXPECT_THAT(stamp(), IsEmpty());
}

TEST_F(LumoOverlays, TheRefreshTakesTheLastSettings) {
  showText("door", 1);
  set(1);
  showText("gate", 1);
  EXPECT_THAT(stamp(), ElementsAre("sensor 400456DD door2024/06/03 12:00:00"));
  set(1);
  EXPECT_THAT(stamp(), ElementsAre("sensor 400456DD gate2024/06/03 12:00:00"));
}

TEST_F(LumoOverlays, ATextOf127BytesIsSentWhole) {
  const std::string longest(127, 'x');
  showText(longest, 1);
  set(1);
  EXPECT_THAT(stamp(), ElementsAre("sensor 400456DD " + longest + "2024/06/03 12:00:00"));
}

TEST_F(LumoOverlays, ATextWithoutAnEndIsEnded) {
  const std::string longest(127, 'x');
  showText(std::string(128, 'x'), 0);
  fake.overlays.motion = overlay(1, std::string(128, 'x'));
  const Trace all = shown();
  EXPECT_EQ(all[2], "sensor 400456E9 " + longest);
  EXPECT_EQ(all[6], "sensor 400456DD " + longest);
  fake.overlays.text->showTime = 1;
  set(1);
  EXPECT_THAT(stamp(), ElementsAre("sensor 400456DD " + longest + "2024/06/03 12:00:00"));
}

TEST_F(LumoOverlays, ATextIsNoFormat) {
  showText("%s%n 100%", 1);
  set(1);
  EXPECT_THAT(stamp(), ElementsAre("sensor 400456DD %s%n 100%2024/06/03 12:00:00"));
}

// --- Failures

TEST_F(LumoOverlays, AnOverlayWithoutSettingsStaysOffAndTheOthersGoOn) {
  showImage();
  fake.overlays.motion = overlay(1, "motion!");
  showText("door", 0);
  const Trace all = shown();
  ASSERT_EQ(all.size(), 4u + 6u + 6u);
  fake.fails("get_overlay_image");
  EXPECT_EQ(shown(), Trace(all.begin() + 4, all.end()));
  EXPECT_TRUE(fake.called("log 2 get_overlay_image() fail"));
  fake.works("get_overlay_image");
  fake.fails("get_overlay_motion");
  fake.clearCalls();
  Trace expected(all.begin(), all.begin() + 4);
  expected.insert(expected.end(), all.begin() + 10, all.end());
  EXPECT_EQ(shown(), expected);
  EXPECT_THAT(fake.callsWith("log"), ElementsAre("log 2 get_overlay_motion() fail"));
}

TEST_F(LumoOverlays, AFailedGetterForTheImageIsLoggedOnce) {
  fake.fails("get_overlay_image");
  EXPECT_EQ(set(2), kOff);
  EXPECT_THAT(fake.callsWith("log"), ElementsAre("log 2 get_overlay_image() fail"));
}

TEST_F(LumoOverlays, WithoutSettingsForDateAndTimeTheMotionTextIsNotTakenForIt) {
  showText("door", 1);
  set(1);
  fake.overlays.motion = overlay(1, "motion!");
  fake.overlays.motion->showTime = 1;
  fake.fails("get_overlay_text");
  fake.clearCalls();
  EXPECT_EQ(shown().size(), 6u);
  EXPECT_THAT(fake.callsWith("log"), ElementsAre("log 2 get_overlay_text() fail"));
  EXPECT_THAT(stamp(), IsEmpty());
}

TEST_F(LumoOverlays, ARefusedRequestIsLoggedByNameAndTheOthersFollow) {
  showImage();
  fake.overlays.motion = overlay(1, "motion!");
  showText("door", 0);
  const struct {
    unsigned long request;
    const char* name;
    long times;
  } kRequests[] = {{0x400456F0, "SET_GPOSD_ENABLE", 2}, {0x400456F1, "SET_GPOSD_TRANSP", 1},
                   {0x400456F2, "SET_GPOSD_XPOS", 1},   {0x400456F3, "SET_GPOSD_YPOS", 1},
                   {0x400456E4, "SET_MDOSD_ENABLE", 2}, {0x400456E5, "SET_MDOSD_TRANSP", 1},
                   {0x400456E6, "SET_MDOSD_COLOR", 1},  {0x400456E7, "SET_MDOSD_XPOS", 1},
                   {0x400456E8, "SET_MDOSD_YPOS", 1},   {0x400456E9, "SET_MDOSD_STRING", 1},
                   {0x400456D8, "SET_DTOSD_ENABLE", 2}, {0x400456D9, "SET_DTOSD_TRANSP", 1},
                   {0x400456DA, "SET_DTOSD_COLOR", 1},  {0x400456DB, "SET_DTOSD_XPOS", 1},
                   {0x400456DC, "SET_DTOSD_YPOS", 1},   {0x400456DD, "SET_DTOSD_STRING", 1}};
  const Trace all = set(1);
  for (const auto& request : kRequests) {
    drivers.failing = {request.request};
    fake.clearCalls();
    EXPECT_EQ(set(1), all) << request.name;
    EXPECT_EQ(fake.logged("ioctl(VICAM_IOC_" + std::string(request.name) + ") fail"),
              request.times);
    EXPECT_EQ(fake.count("log"), request.times) << request.name;
  }
}

}  // namespace
