// The program "hardware" as a whole: started, used and ended as scripts do it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "board/drivers/protocol.h"
#include "board/drivers/requests.h"
#include "tests/platform/support.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

class HardwareProgram : public testing::Test {
 protected:
  HardwareProgram() {
    std::filesystem::create_directories(board_.path("/run/camera"));
    setenv("VS_BOARD", board_.path("").c_str(), 1);
  }
  ~HardwareProgram() override {
    if (pid_ > 0) end(SIGKILL);
  }

  // Starts it without waiting for it. `options`: besides the board's folder.
  void launch(std::vector<std::string> options) {
    options.insert(options.begin(), {VS_HARDWARE, "--board", board_.path("")});
    std::vector<char*> arguments;
    for (std::string& option : options) arguments.push_back(option.data());
    arguments.push_back(nullptr);
    pid_ = fork();
    if (pid_ != 0) return;
    const int file = open(board_.path("/text").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0640);
    dup2(file, STDERR_FILENO);
    execv(VS_HARDWARE, arguments.data());
    _exit(127);
  }

  void start(const std::vector<std::string>& options) {
    launch(options);
    ASSERT_TRUE(eventually([this] {
      return std::filesystem::exists(board_.path("/run/hardware.pid"));
    })) << text();
  }

  // Ends it by a signal, or waits for its end. Returns its exit status, or -1 and a signal's
  // number.
  int end(int signal = 0) {
    if (signal != 0) kill(pid_, signal);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

  std::string text() const { return readFile(board_.path("/text")); }

  int boardctl(const std::string& words) const {
    return std::system(
        (std::string(VS_BOARDCTL) + " --board " + board_.path("") + " " + words).c_str());
  }

  TempRoot board_;
  pid_t pid_ = -1;
};

int setWord(int fd, unsigned request, std::int32_t value) {
  return ioctl(fd, static_cast<unsigned long>(request), &value);
}

TEST_F(HardwareProgram, ASensorCameraDeliversPicturesOnBothNodes) {
  start({});
  EXPECT_EQ(std::stoi(readFile(board_.path("/run/hardware.pid"))), pid_);
  const int encoder = open(kEncoderPath, O_RDONLY);
  const int sensor = open(kSensorPath, O_RDONLY);
  ASSERT_GE(encoder, 0);
  ASSERT_GE(sensor, 0);
  EXPECT_EQ(setWord(encoder, kMpg430StreamStart, 1), 0);
  std::string buffer(300000, ' ');
  ASSERT_GT(read(encoder, buffer.data(), buffer.size()), 4);
  EXPECT_THAT(buffer, StartsWith(std::string("\0\0\1\xB6", 4)));
  ASSERT_GT(read(sensor, buffer.data(), buffer.size()), 4);
  EXPECT_THAT(buffer, StartsWith("\xFF\xD8"));
  close(encoder);
  close(sensor);
  EXPECT_EQ(end(SIGTERM), 0);
  EXPECT_FALSE(std::filesystem::exists(board_.path("/run/hardware.pid")));
  EXPECT_FALSE(std::filesystem::exists(board_.path(kHardwareSocket)));
  EXPECT_FALSE(std::filesystem::exists(board_.path(kControlSocket)));
}

TEST_F(HardwareProgram, AnEncoderAloneHasNoSensor) {
  start({"--model", "K310"});
  EXPECT_LT(open(kSensorPath, O_RDONLY), 0);
  EXPECT_EQ(errno, ENODEV);
  const int encoder = open(kEncoderPath, O_RDONLY);
  EXPECT_GE(encoder, 0);
  close(encoder);
  EXPECT_EQ(end(SIGINT), 0);
}

TEST_F(HardwareProgram, HardwareThatIsKilledDuringAReadIsAnInputError) {
  start({"--model", "K310"});
  const int fd = open(kEncoderPath, O_RDONLY);
  EXPECT_EQ(setWord(fd, kMpg430StreamStart, 1), 0);
  std::atomic<int> pictures{0};
  std::thread reader([&] {
    char buffer[16384];
    while (read(fd, buffer, sizeof buffer) >= 0) ++pictures;
    EXPECT_EQ(errno, EIO);
  });
  EXPECT_TRUE(eventually([&] { return pictures > 0; }));
  EXPECT_EQ(end(SIGKILL), -SIGKILL);
  reader.join();
  EXPECT_LT(setWord(fd, kMpg430StreamStart, 0), 0);
  EXPECT_EQ(errno, EIO);
  close(fd);
  EXPECT_LT(open(kEncoderPath, O_RDONLY), 0);
  EXPECT_EQ(errno, ENXIO);

  // What a killed one left behind is in nobody's way.
  std::filesystem::remove(board_.path("/run/hardware.pid"));
  start({"--model", "K310"});
  const int again = open(kEncoderPath, O_RDONLY);
  EXPECT_GE(again, 0);
  close(again);
}

TEST_F(HardwareProgram, HungHardwareEndsByASignal) {
  start({});
  ASSERT_EQ(boardctl("hang sensor"), 0);
  ASSERT_EQ(boardctl("hang encoder"), 0);
  const int sensor = open(kSensorPath, O_RDONLY);
  const int encoder = open(kEncoderPath, O_RDONLY);
  std::thread reader([sensor] {
    char buffer[16];
    while (read(sensor, buffer, sizeof buffer) > 0) {
    }
  });
  std::thread caller([encoder] { setWord(encoder, kMpg430StreamStart, 1); });
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_EQ(end(SIGTERM), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(5));
  reader.join();
  caller.join();
  close(sensor);
  close(encoder);
}

std::atomic<int> signals{0};

TEST_F(HardwareProgram, AChangeOfTheStandardRaisesSigioAndThenNoPictureForAWhile) {
  start({"--model", "K310"});
  struct sigaction action {};
  action.sa_handler = [](int) { ++signals; };
  action.sa_flags = SA_RESTART;
  sigaction(SIGIO, &action, nullptr);
  const int fd = open(kEncoderPath, O_RDONLY);
  fcntl(fd, F_SETOWN, getpid());
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_ASYNC);
  setWord(fd, kMpg430StreamStart, 1);
  std::string buffer(20000, ' ');
  EXPECT_GT(read(fd, buffer.data(), buffer.size()), 0);
  EXPECT_EQ(signals, 0);
  const auto begun = std::chrono::steady_clock::now();
  ASSERT_EQ(boardctl("tv ntsc"), 0);
  EXPECT_TRUE(eventually([] { return signals == 1; }));
  // What was begun before the change may still come to its end.
  do {
    ASSERT_GT(read(fd, buffer.data(), buffer.size()), 0);
  } while (buffer.compare(0, 4, std::string("\0\0\1\xB6", 4)) != 0);
  EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(100));
  EXPECT_EQ(signals, 1);
  close(fd);
}

TEST_F(HardwareProgram, ATraceIsWrittenFromTheBeginning) {
  start({"--trace", board_.path("/trace")});
  const int fd = open(kSensorPath, O_RDONLY);
  setWord(fd, kVicamSetMirror, 1);
  close(fd);
  EXPECT_THAT(readFile(board_.path("/trace")),
              StartsWith("open /dev/video0 -> 0\nSET_MIRROR 1 -> 0\n"));
}

TEST_F(HardwareProgram, ItSaysWhyItDoesNotStart) {
  launch({"--scene", "/nowhere.avi"});
  EXPECT_EQ(end(), 1);
  EXPECT_EQ(text(), "hardware: /nowhere.avi: No such file or directory\n");
  launch({"--trace", "/nowhere/trace"});
  EXPECT_EQ(end(), 1);
  EXPECT_EQ(text(), "hardware: /nowhere/trace: No such file or directory\n");
  launch({"--model", "X1"});
  EXPECT_EQ(end(), 2);
  EXPECT_THAT(text(), HasSubstr("Usage: hardware"));
  launch({"extra"});
  EXPECT_EQ(end(), 2);
  std::filesystem::remove_all(board_.path("/run"));
  launch({});
  EXPECT_EQ(end(), 1);
  EXPECT_EQ(text(), "hardware: " + board_.path(kHardwareSocket) + ": No such file or directory\n");
}

TEST_F(HardwareProgram, ASecondOneForTheSameBoardDoesNotStart) {
  start({});
  const pid_t first = pid_;
  launch({});
  EXPECT_EQ(end(), 1);
  EXPECT_THAT(text(), HasSubstr("the hardware of this board runs already"));
  pid_ = first;
  const int fd = open(kSensorPath, O_RDONLY);
  EXPECT_GE(fd, 0);
  close(fd);
  EXPECT_EQ(end(SIGTERM), 0);
}

}  // namespace
