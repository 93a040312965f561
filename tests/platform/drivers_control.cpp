// The physical side of the virtual board, as boardctl turns it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "board/drivers/protocol.h"
#include "board/hardware/control.h"
#include "board/hardware/world.h"
#include "tests/platform/drivers_fixture.h"

namespace {

using testing::HasSubstr;

// Notes what it is to draw.
class NotingScene : public Scene {
 public:
  void draw(std::int64_t timeMs, const Rectangle* moving, AVFrame* picture) override {
    ++drawn;
    lastTimeMs = timeMs;
    wasMoving = moving != nullptr;
    if (moving != nullptr) lastMoving = *moving;
    picture->data[0][0] = static_cast<std::uint8_t>(drawn);
  }
  int drawn = 0;
  std::int64_t lastTimeMs = -1;
  bool wasMoving = false;
  Rectangle lastMoving{};
};

class BoardControl : public Drivers {
 protected:
  BoardControl() : scene_(new NotingScene), world_(std::unique_ptr<Scene>(scene_)) {
    world_.onStandardChange([this] { ++standardChanges_; });
    std::string error;
    if (!control_.start(board_.path(kControlSocket), &error)) std::abort();
  }

  // Runs boardctl. Returns its exit status; `text_` is what it wrote.
  int boardctl(const std::string& words) {
    const std::string file = board_.path("/text");
    const std::string command = std::string(VS_BOARDCTL) + " --board " + board_.path("") + " " +
                                words + " >" + file + " 2>&1";
    const int status = std::system(command.c_str());
    text_ = readFile(file);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  NotingScene* scene_;
  World world_;
  std::atomic<int> standardChanges_{0};
  Control control_{{"B520", "test", &world_, &faults_, &trace_, server_.get()}};
  std::string text_;
};

TEST_F(BoardControl, SomethingMovesWhereItIsTold) {
  EXPECT_EQ(boardctl("motion on 10 20 300 40"), 0) << text_;
  const auto moving = world_.moving();
  ASSERT_TRUE(moving);
  EXPECT_EQ(moving->x, 10);
  EXPECT_EQ(moving->y, 20);
  EXPECT_EQ(moving->width, 300);
  EXPECT_EQ(moving->height, 40);
  EXPECT_EQ(boardctl("motion off"), 0);
  EXPECT_FALSE(world_.moving());
}

TEST_F(BoardControl, NothingMovesOutsideOfTheScene) {
  for (const char* const where :
       {"-1 0 10 10", "0 -1 10 10", "0 0 0 10", "0 0 10 -5", "600 0 41 10", "0 470 10 11",
        "640 0 1 1", "2147483647 0 2147483647 1"}) {
    EXPECT_EQ(boardctl(std::string("motion on ") + where), 1) << where;
    EXPECT_EQ(text_, "boardctl: the scene is of 640x480 pixels\n");
  }
  EXPECT_EQ(boardctl("motion on 0 0 640 480"), 0);
}

TEST_F(BoardControl, AChangeOfTheStandardIsNoticedOnce) {
  EXPECT_EQ(world_.standard(), TvStandard::kPal);
  EXPECT_EQ(boardctl("tv ntsc"), 0);
  EXPECT_EQ(world_.standard(), TvStandard::kNtsc);
  EXPECT_EQ(boardctl("tv ntsc"), 0);
  EXPECT_EQ(standardChanges_, 1);
  EXPECT_EQ(boardctl("tv pal"), 0);
  EXPECT_EQ(standardChanges_, 2);
}

TEST_F(BoardControl, FaultsAreSwitchedOnAndOff) {
  EXPECT_EQ(boardctl("fail SET_MIRROR EIO 3"), 0) << text_;
  EXPECT_EQ(boardctl("fail '*' 22"), 0) << text_;
  EXPECT_EQ(boardctl("fail read-sensor EBUSY"), 0) << text_;
  EXPECT_EQ(boardctl("fail read-encoder ETIMEDOUT 1"), 0) << text_;
  EXPECT_EQ(boardctl("reads encoder short 100"), 0) << text_;
  EXPECT_EQ(boardctl("reads sensor late 20 5"), 0) << text_;
  EXPECT_EQ(boardctl("reads encoder torn 2"), 0) << text_;
  EXPECT_EQ(boardctl("reads sensor empty"), 0) << text_;
  EXPECT_EQ(boardctl("reads encoder headless"), 0) << text_;
  EXPECT_EQ(boardctl("lie -3"), 0) << text_;
  EXPECT_EQ(boardctl("hang sensor"), 0) << text_;
  EXPECT_EQ(faults_.describe(),
            "empty sensor\nfail * EINVAL\nfail SET_MIRROR EIO, 3 times\n"
            "fail read-encoder ETIMEDOUT, 1 times\nfail read-sensor EBUSY\nhang sensor\n"
            "headless encoder\nlate sensor 20, 5 times\nlie -3\nshort encoder 100\n"
            "torn encoder, 2 times\n");
  EXPECT_EQ(boardctl("go-on"), 0) << text_;
  EXPECT_THAT(faults_.describe(), testing::Not(HasSubstr("hang")));
  EXPECT_EQ(boardctl("heal"), 0) << text_;
  EXPECT_EQ(faults_.describe(), "");
}

TEST_F(BoardControl, AWrongCommandLineChangesNothing) {
  for (const char* const words : {"",
                                  "nonsense",
                                  "motion",
                                  "motion on",
                                  "motion on 1 2 3",
                                  "motion on 1 2 3 x",
                                  "motion on 1 2 3 4 5",
                                  "motion off now",
                                  "tv",
                                  "tv secam",
                                  "fail",
                                  "fail SET_MIRROR",
                                  "fail SET_MIRROR EIO 0",
                                  "fail SET_MIRROR EIO 3 4",
                                  "fail SET_MIRROR EIO x",
                                  "reads",
                                  "reads encoder",
                                  "reads nobody torn",
                                  "reads encoder short",
                                  "reads encoder short -1",
                                  "reads encoder short 1 0",
                                  "reads encoder torn 1 2",
                                  "reads encoder wet",
                                  "lie",
                                  "lie x",
                                  "hang",
                                  "hang nobody",
                                  "go-on now",
                                  "heal now",
                                  "trace",
                                  "status now",
                                  "usb",
                                  "usb eject",
                                  "usb fill 0",
                                  "usb fill much",
                                  "usb plug in",
                                  "input",
                                  "input 2",
                                  "input 0 1"}) {
    EXPECT_EQ(boardctl(words), 2) << words;
    EXPECT_EQ(text_, "boardctl: wrong command line, see boardctl --help\n") << words;
  }
  EXPECT_EQ(boardctl("fail SET_NOTHING EIO"), 1);
  EXPECT_EQ(text_, "boardctl: SET_NOTHING is no request\n");
  EXPECT_EQ(boardctl("fail SET_MIRROR EWHAT"), 1);
  EXPECT_EQ(text_, "boardctl: EWHAT is no error, such as EIO\n");
  EXPECT_EQ(faults_.describe(), "");
}

TEST_F(BoardControl, TheStatusTellsEverything) {
  boardctl("motion on 1 2 3 4");
  boardctl("tv ntsc");
  boardctl("lie 5");
  EXPECT_EQ(boardctl("status"), 0);
  EXPECT_EQ(text_, "model B520\nscene test\nmotion 1 2 3 4\ntv ntsc\nlie 5\n");
}

TEST_F(BoardControl, ATraceGoesWhereItIsTold) {
  const std::string here = std::filesystem::current_path().string();
  std::filesystem::current_path(board_.path("/run"));
  EXPECT_EQ(boardctl("trace 'my trace'"), 0) << text_;
  std::filesystem::current_path(here);
  trace_.add("a line");
  EXPECT_EQ(readFile(board_.path("/run/my trace")), "a line\n");
  EXPECT_EQ(boardctl("trace off"), 0);
  EXPECT_FALSE(trace_.isOpen());
  EXPECT_EQ(boardctl("trace /nowhere/trace"), 1);
  EXPECT_EQ(text_, "boardctl: /nowhere/trace: No such file or directory\n");
}

TEST_F(BoardControl, TheDigitalInputIsTheFileOfTheConfiguration) {
  std::filesystem::create_directories(board_.path("/etc"));
  writeFile(board_.path("/etc/camera.conf"), "[IO]\nInput = /run/value\n");
  EXPECT_EQ(boardctl("input 1"), 0) << text_;
  EXPECT_EQ(readFile(board_.path("/run/value")), "1\n");
  EXPECT_EQ(boardctl("input 0"), 0) << text_;
  EXPECT_EQ(readFile(board_.path("/run/value")), "0\n");
}

TEST_F(BoardControl, WithoutHardwareThereIsNothingToTurn) {
  control_.stop();
  std::filesystem::remove(board_.path(kControlSocket));
  EXPECT_EQ(boardctl("heal"), 3);
  EXPECT_EQ(text_, "boardctl: no hardware runs in " + board_.path("") + "\n");
}

TEST_F(BoardControl, HelpNamesEveryCommand) {
  EXPECT_EQ(boardctl("--help"), 0);
  for (const char* const command : {"motion", "tv", "input", "usb", "fail", "reads", "lie", "hang",
                                    "go-on", "heal", "status", "trace"})
    EXPECT_THAT(text_, HasSubstr(command));
}

TEST_F(BoardControl, TwoHardwaresOfOneBoardAreOneTooMany) {
  NodeServer second({}, &trace_);
  std::string error;
  EXPECT_FALSE(second.start(socketPath(), &error));
  EXPECT_EQ(error, socketPath() + ": the hardware of this board runs already");
}

TEST(BoardPaths, AFolderOfAnyLengthIsABoard) {
  const TempRoot root(std::string(200, 'x'));
  std::filesystem::create_directories(root.path("/run/camera"));
  Listener listener;
  std::string error;
  ASSERT_TRUE(listener.open(root.path(kControlSocket), &error)) << error;
  std::thread answering([&] {
    const int fd = listener.accept();
    EXPECT_GE(fd, 0);
    char line[8] = "";
    EXPECT_EQ(::read(fd, line, sizeof line), 5);
    EXPECT_STREQ(line, "heal\n");
    EXPECT_EQ(::write(fd, "ok\n", 3), 3);
    ::close(fd);
  });
  EXPECT_EQ(std::system((std::string(VS_BOARDCTL) + " --board " + root.path("") + " heal").c_str()),
            0);
  answering.join();
}

TEST(BoardPaths, ASocketFileThatWasLeftBehindIsReplaced) {
  const TempRoot root;
  std::filesystem::create_directories(root.path("/run/camera"));
  writeFile(root.path(kControlSocket), "");
  Listener listener;
  std::string error;
  EXPECT_TRUE(listener.open(root.path(kControlSocket), &error)) << error;
  listener.stop();
  EXPECT_EQ(listener.accept(), -1);
}

TEST(World, OnePictureIsDrawnPerPictureTime) {
  auto* const scene = new NotingScene;
  World world{std::unique_ptr<Scene>(scene)};
  const Picture picture = makePicture(kSceneWidth, kSceneHeight);
  std::int64_t last = world.look(picture.get());
  const std::int64_t first = last;
  EXPECT_TRUE(eventually([&] {
    const std::int64_t number = world.look(picture.get());
    EXPECT_GE(number, last);
    EXPECT_EQ(scene->lastTimeMs, number * World::kPictureMs);
    EXPECT_LE(scene->lastTimeMs, world.nowMs());
    EXPECT_EQ(picture->data[0][0], scene->drawn);
    last = number;
    return last >= first + 3;
  }));
  EXPECT_LE(scene->drawn, last - first + 1);
}

TEST(World, TheSceneHearsWhatMoves) {
  auto* const scene = new NotingScene;
  World world{std::unique_ptr<Scene>(scene)};
  const Picture picture = makePicture(kSceneWidth, kSceneHeight);
  world.setMoving(Rectangle{1, 2, 3, 4});
  world.look(picture.get());
  EXPECT_TRUE(scene->wasMoving);
  EXPECT_EQ(scene->lastMoving.height, 4);
  world.setMoving(std::nullopt);
  EXPECT_TRUE(eventually([&] {
    world.look(picture.get());
    return !scene->wasMoving;
  }));
}

}  // namespace
