// The driver library: every call of a program on the device nodes, and on everything else.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <thread>

#include "board/drivers/protocol.h"
#include "platform/linux/unix_address.h"
#include "platform/mpg430.h"
#include "tests/platform/drivers_fixture.h"

// The names that a program may have for one call, whatever its headers make of them.
extern "C" {
int openPlain(const char* path, int flags, ...) __asm__("open");
int openLarge(const char* path, int flags, ...) __asm__("open64");
int openAt(int folder, const char* path, int flags, ...) __asm__("openat");
int openAtLarge(int folder, const char* path, int flags, ...) __asm__("openat64");
int openChecked(const char* path, int flags) __asm__("__open_2");
int openLargeChecked(const char* path, int flags) __asm__("__open64_2");
int openAtChecked(int folder, const char* path, int flags) __asm__("__openat_2");
int openAtLargeChecked(int folder, const char* path, int flags) __asm__("__openat64_2");
ssize_t readChecked(int fd, void* buffer, size_t size, size_t room) __asm__("__read_chk");
int fcntlPlain(int fd, int command, ...) __asm__("fcntl");
int fcntlLarge(int fd, int command, ...) __asm__("fcntl64");
}

namespace {

class DriverCalls : public Drivers {
 protected:
  int openEncoder() {
    const int fd = open(kEncoderPath, O_RDONLY | O_CLOEXEC);
    EXPECT_GE(fd, 0) << std::strerror(errno);
    return fd;
  }
  int openSensor() {
    const int fd = open(kSensorPath, O_RDONLY | O_CLOEXEC);
    EXPECT_GE(fd, 0) << std::strerror(errno);
    return fd;
  }
};

std::vector<char> bytesOf(const void* data, std::size_t size) {
  const auto* const from = static_cast<const char*>(data);
  return {from, from + size};
}

std::size_t openDescriptors() {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    count += entry.path().empty() ? 0 : 1;
  return count;
}

TEST_F(DriverCalls, EveryNameOfOpenOpensANode) {
  const int opened[] = {openPlain(kEncoderPath, O_RDONLY),
                        openLarge(kSensorPath, O_RDONLY),
                        openAt(AT_FDCWD, kEncoderPath, O_RDONLY),
                        openAtLarge(AT_FDCWD, kSensorPath, O_RDONLY),
                        openChecked(kEncoderPath, O_RDONLY),
                        openLargeChecked(kSensorPath, O_RDONLY),
                        openAtChecked(AT_FDCWD, kEncoderPath, O_RDONLY),
                        openAtLargeChecked(AT_FDCWD, kSensorPath, O_RDONLY)};
  bool isEncoder = true;
  for (const int fd : opened) {
    EXPECT_GE(fd, 0);
    std::int32_t value = 1;
    const unsigned long request = isEncoder ? kMpg430StreamStart : kVicamSetGposdEnable;
    EXPECT_EQ(ioctl(fd, request, &value), 0);
    isEncoder = !isEncoder;
    close(fd);
  }
}

TEST_F(DriverCalls, EveryNameOfOpenHandsOtherPathsOn) {
  const std::string path = board_.path("/file");
  const int made = openPlain(path.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0640);
  ASSERT_GE(made, 0);
  struct stat about {};
  fstat(made, &about);
  EXPECT_EQ(about.st_mode & 0777, 0640U);
  ASSERT_EQ(write(made, "text", 4), 4);
  close(made);
  const char* const name = path.c_str();
  const int folder = open(board_.path("/").c_str(), O_RDONLY | O_DIRECTORY);
  for (const int fd :
       {openPlain(name, O_RDONLY), openLarge(name, O_RDONLY), openAt(folder, "file", O_RDONLY),
        openAtLarge(folder, "file", O_RDONLY), openChecked(name, O_RDONLY),
        openLargeChecked(name, O_RDONLY), openAtChecked(folder, "file", O_RDONLY),
        openAtLargeChecked(folder, "file", O_RDONLY)}) {
    char text[5] = "";
    EXPECT_EQ(read(fd, text, sizeof text), 4);
    EXPECT_STREQ(text, "text");
    lseek(fd, 0, SEEK_SET);
    EXPECT_EQ(readChecked(fd, text, 2, sizeof text), 2);
    close(fd);
  }
  close(folder);
  EXPECT_LT(openPlain((path + "-none").c_str(), O_RDONLY), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(traced().empty());
}

TEST_F(DriverCalls, OpeningForWritingIsRefused) {
  for (const char* const path : {kEncoderPath, kSensorPath, kFlashPath}) {
    for (const int flags : {O_WRONLY, O_RDWR}) {
      EXPECT_LT(open(path, flags), 0) << path;
      EXPECT_EQ(errno, EACCES) << path;
    }
  }
}

TEST_F(DriverCalls, NodesWithoutHardwareCanNotBeOpened) {
  stopHardware();
  EXPECT_LT(open(kEncoderPath, O_RDONLY), 0);
  EXPECT_EQ(errno, ENXIO);
}

TEST_F(DriverCalls, ACameraWithoutASensorHasNoSuchNode) {
  server_ = std::make_unique<NodeServer>(
      std::vector<NodeServer::Chip>{{kEncoderPath, Node::kEncoder, &encoder_}}, &trace_);
  std::string error;
  ASSERT_TRUE(server_->start(board_.path("/run/camera/other"), &error)) << error;
  std::filesystem::rename(board_.path("/run/camera/other"), socketPath());
  EXPECT_LT(open(kSensorPath, O_RDONLY), 0);
  EXPECT_EQ(errno, ENODEV);
  close(openEncoder());
}

TEST_F(DriverCalls, TheFlashIsAFileOfTheBoard) {
  writeFile(board_.path(kFlashFile), "an image");
  const int fd = open(kFlashPath, O_RDONLY);
  char text[16] = "";
  EXPECT_EQ(read(fd, text, sizeof text), 8);
  EXPECT_STREQ(text, "an image");
  EXPECT_EQ(lseek(fd, 3, SEEK_SET), 3);
  close(fd);
}

TEST_F(DriverCalls, EachRequestArrivesWithItsNumberItsArgumentAndItsSize) {
  const int fds[] = {openEncoder(), openSensor()};
  for (const Request& request : kRequests) {
    NotingDevice& device = request.node == Node::kEncoder ? encoder_ : sensor_;
    const int fd = fds[request.node == Node::kEncoder ? 0 : 1];
    std::size_t size = 0;
    switch (request.argument) {
      case Argument::kWord:
        size = 4;
        break;
      case Argument::kHeader:
        size = 20;
        break;
      case Argument::kColour:
        size = 8;
        break;
      case Argument::kPicture:
        size = 14;
        break;
      case Argument::kWindow:
        size = 32;
        break;
      case Argument::kText:
      case Argument::kImage:
        continue;  // as long as they say
    }
    std::vector<char> argument(size);
    for (std::size_t at = 0; at < size; ++at) argument[at] = static_cast<char>(at + 1);
    const std::vector<char> sent = argument;
    const std::size_t before = device.calls();
    EXPECT_EQ(ioctl(fd, request.number, argument.data()), 0) << request.name;
    ASSERT_EQ(device.calls(), before + 1) << request.name;
    EXPECT_EQ(device.last().request, request.number) << request.name;
    if (request.argument == Argument::kHeader) {
      EXPECT_EQ(device.last().argument.size(), size);
    } else {
      EXPECT_EQ(device.last().argument, sent) << request.name;
    }
  }
  close(fds[0]);
  close(fds[1]);
}

TEST_F(DriverCalls, WhatTheHardwareLeavesInTheArgumentComesBack) {
  const int encoder = openEncoder();
  const int sensor = openSensor();
  std::int32_t word = 7;
  encoder_.answers(5, {9, 0, 0, 0});
  EXPECT_EQ(ioctl(encoder, static_cast<unsigned long>(kMpg430SetMode), &word), 5);
  EXPECT_EQ(word, 9);

  encoder_.answers(20, std::vector<char>(20, 'h'));
  char header[20] = "";
  EXPECT_EQ(ioctl(encoder, static_cast<unsigned long>(kMpg430GetImgheader), header), 20);
  EXPECT_EQ(bytesOf(header, 20), std::vector<char>(20, 'h'));

  sensor_.answers(0, std::vector<char>(14, 'p'));
  char picture[14] = "";
  EXPECT_EQ(ioctl(sensor, static_cast<unsigned long>(kVidiocgpict), picture), 0);
  EXPECT_EQ(bytesOf(picture, 14), std::vector<char>(14, 'p'));

  const TVideoWindow window{1, 2, 3, 4, 5, 6, 7, 8};
  TVideoWindow given = window;
  sensor_.answers(0, std::vector<char>(32, 'w'));
  EXPECT_EQ(ioctl(sensor, static_cast<unsigned long>(kVidiocswin), &given), 0);
  EXPECT_EQ(std::memcmp(&given, &window, sizeof window), 0) << "it is for reading only";
  close(encoder);
  close(sensor);
}

TEST_F(DriverCalls, AnArgumentThatIsTooLongIsCutToWhatTheRequestHas) {
  const int fd = openEncoder();
  encoder_.answers(20, std::vector<char>(3000, 'h'));
  char header[21] = "";
  EXPECT_EQ(ioctl(fd, static_cast<unsigned long>(kMpg430GetImgheader), header), 20);
  EXPECT_EQ(std::strlen(header), 20U);
  encoder_.answers(0);
  std::int32_t word = 4;
  EXPECT_EQ(ioctl(fd, static_cast<unsigned long>(kMpg430SetMode), &word), 0) << "still in step";
  close(fd);
}

TEST_F(DriverCalls, AFailedRequestGivesTheErrorAndLeavesTheArgumentAlone) {
  const int fd = openSensor();
  sensor_.answers(-EBUSY, {9, 0, 0, 0});
  std::int32_t word = 7;
  EXPECT_EQ(ioctl(fd, static_cast<unsigned long>(kVicamSetMirror), &word), -1);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_EQ(word, 7);
  close(fd);
}

TEST_F(DriverCalls, ARequestNumberWhoseSignWasExtendedIsTheSame) {
  const int fd = openSensor();
  std::int32_t word = 1;
  const auto extended = static_cast<unsigned long>(static_cast<int>(kVicamSetMirror));
  ASSERT_NE(extended, static_cast<unsigned long>(kVicamSetMirror));
  EXPECT_EQ(ioctl(fd, extended, &word), 0);
  EXPECT_EQ(sensor_.last().request, kVicamSetMirror);
  close(fd);
}

TEST_F(DriverCalls, RequestsOfNobodyOrOfTheOtherNodeAreInvalid) {
  const int encoder = openEncoder();
  const int sensor = openSensor();
  std::int32_t word = 1;
  EXPECT_EQ(ioctl(encoder, static_cast<unsigned long>(kVicamSetMirror), &word), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(ioctl(sensor, static_cast<unsigned long>(kMpg430SetMode), &word), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(ioctl(sensor, 0x12345678UL, &word), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(ioctl(sensor, static_cast<unsigned long>(kVicamSetMirror), nullptr), -1);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(encoder_.calls() + sensor_.calls(), 0U);
  EXPECT_EQ(ioctl(sensor, static_cast<unsigned long>(kVicamSetMirror), &word), 0);
  close(encoder);
  close(sensor);
}

TEST_F(DriverCalls, ATextArrivesWithItsEndOrItsFirst256Characters) {
  const int fd = openSensor();
  struct Case {
    std::size_t length;
    std::size_t arriving;
  };
  for (const Case& one :
       {Case{0, 1}, Case{127, 128}, Case{255, 256}, Case{256, 256}, Case{300, 256}}) {
    // Of just this size, so that a sanitizer sees who reads behind it.
    std::string text(one.length, 't');
    EXPECT_EQ(ioctl(fd, static_cast<unsigned long>(kVicamSetDtosdString), text.data()), 0);
    std::string expected = text + '\0';
    expected.resize(one.arriving);
    EXPECT_EQ(sensor_.last().argument, bytesOf(expected.data(), expected.size())) << one.length;
  }
  close(fd);
}

TEST_F(DriverCalls, AnImageIsAsLongAsItsHeadTells) {
  const int fd = openSensor();
  struct Case {
    unsigned width;
    unsigned height;
    std::size_t arriving;
  };
  for (const Case& one : {Case{0, 0, 8}, Case{3, 5, 38}, Case{130, 126, 32768},
                          Case{128, 128, 32768}, Case{65535, 65535, 32768}}) {
    std::vector<char> image(one.arriving, 'i');
    const TOverlayImage head{
        {'O', 'S', 'D', '1'},
        {static_cast<unsigned char>(one.width & 255), static_cast<unsigned char>(one.width >> 8)},
        {static_cast<unsigned char>(one.height & 255),
         static_cast<unsigned char>(one.height >> 8)}};
    std::memcpy(image.data(), &head, sizeof head);
    EXPECT_EQ(ioctl(fd, static_cast<unsigned long>(kVicamSetGposdImg), image.data()), 0);
    EXPECT_EQ(sensor_.last().argument, image) << one.width;
  }
  close(fd);
}

TEST_F(DriverCalls, AReadGivesAtMostWhatWasAskedFor) {
  const int fd = openEncoder();
  encoder_.delivers("abcdefghij");
  char buffer[8] = "";
  EXPECT_EQ(read(fd, buffer, 4), 4);
  EXPECT_EQ(encoder_.lastLimit(), 4U);
  EXPECT_EQ(std::string(buffer), "abcd");
  EXPECT_EQ(read(fd, buffer, 0), 0);
  EXPECT_EQ(readChecked(fd, buffer, 6, sizeof buffer), 6);
  EXPECT_EQ(std::string(buffer), "efghij");
  close(fd);
}

TEST_F(DriverCalls, AReadOfALargePictureComesInOnePiece) {
  const int fd = openSensor();
  const std::string picture(300000, 'J');
  sensor_.delivers(picture);
  std::string buffer(400000, ' ');
  ASSERT_EQ(read(fd, buffer.data(), buffer.size()), 300000);
  EXPECT_EQ(buffer.substr(0, 300000), picture);
  EXPECT_EQ(buffer[300000], ' ');
  close(fd);
}

TEST_F(DriverCalls, AReadBlocksUntilThereIsSomething) {
  const int fd = openEncoder();
  std::atomic<bool> come{false};
  std::thread reader([&] {
    char buffer[8];
    EXPECT_EQ(read(fd, buffer, sizeof buffer), 1);
    come = true;
  });
  EXPECT_TRUE(eventually([&] { return encoder_.blocked() == 1; }));
  EXPECT_FALSE(come);
  encoder_.delivers("x");
  reader.join();
  close(fd);
}

TEST_F(DriverCalls, ANodeClosesOnExecWhenItWasOpenedSo) {
  const int closing = open(kEncoderPath, O_RDONLY | O_CLOEXEC);
  const int staying = open(kEncoderPath, O_RDONLY);
  EXPECT_EQ(fcntl(closing, F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(fcntl(staying, F_GETFD), 0);
  close(closing);
  close(staying);
}

TEST_F(DriverCalls, OwnerAndFlagsAreKeptByEveryNameOfFcntl) {
  const int fd = openEncoder();
  EXPECT_EQ(fcntlPlain(fd, F_GETFL), O_RDONLY);
  EXPECT_EQ(fcntlPlain(fd, F_SETOWN, getpid()), 0);
  EXPECT_EQ(fcntlLarge(fd, F_GETOWN), getpid());
  EXPECT_EQ(fcntlLarge(fd, F_SETFL, O_ASYNC), 0);
  EXPECT_EQ(fcntlPlain(fd, F_GETFL), O_RDONLY | O_ASYNC);
  EXPECT_EQ(fcntlPlain(fd, F_SETFL, 0), 0);
  EXPECT_EQ(fcntlPlain(fd, F_GETFL), O_RDONLY);
  close(fd);
}

TEST_F(DriverCalls, ANumberThatIsUsedForSomethingElseAfterwardsIsNoNode) {
  const int fd = openEncoder();
  close(fd);
  const int file = open(board_.path("/file").c_str(), O_CREAT | O_RDWR, 0640);
  ASSERT_EQ(file, fd);
  ASSERT_EQ(write(file, "text", 4), 4);
  lseek(file, 0, SEEK_SET);
  char text[5] = "";
  EXPECT_EQ(read(file, text, 4), 4);
  EXPECT_STREQ(text, "text");
  close(file);
}

TEST_F(DriverCalls, ANumberThatWasClosedUnseenIsNoNode) {
  const int fd = openEncoder();
  ASSERT_EQ(close_range(static_cast<unsigned>(fd), static_cast<unsigned>(fd), 0), 0);
  char text[5] = "";
  EXPECT_LT(read(fd, text, 4), 0);
  EXPECT_EQ(errno, EBADF);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(ends[0], fd);
  ASSERT_EQ(write(ends[1], "text", 4), 4);
  EXPECT_EQ(read(fd, text, 4), 4);
  EXPECT_STREQ(text, "text");
  close(ends[0]);
  close(ends[1]);
}

TEST_F(DriverCalls, ADuplicateIsTheSameNode) {
  const int fd = openEncoder();
  const int copies[] = {dup(fd), fcntl(fd, F_DUPFD_CLOEXEC, 100), dup2(fd, 200),
                        dup3(fd, 201, O_CLOEXEC)};
  close(fd);
  EXPECT_EQ(fcntl(copies[0], F_SETOWN, 42), 0);
  for (const int copy : copies) {
    std::int32_t word = 1;
    EXPECT_EQ(ioctl(copy, static_cast<unsigned long>(kMpg430SetMode), &word), 0) << copy;
    EXPECT_EQ(fcntl(copy, F_GETOWN), 42);
    EXPECT_EQ(encoder_.timesClosed(), 0);
    close(copy);
  }
  EXPECT_TRUE(eventually([&] { return encoder_.timesClosed() == 1; }));
}

TEST_F(DriverCalls, ADuplicateOfAFileOverANodeIsTheFile) {
  writeFile(board_.path("/file"), "text");
  const int fd = openEncoder();
  const int file = open(board_.path("/file").c_str(), O_RDONLY);
  ASSERT_EQ(dup2(file, fd), fd);
  char text[5] = "";
  EXPECT_EQ(read(fd, text, 4), 4);
  EXPECT_STREQ(text, "text");
  close(fd);
  close(file);
}

TEST_F(DriverCalls, OpeningAndClosingLeavesNothingBehind) {
  close(openEncoder());
  const std::size_t before = openDescriptors();
  for (int n = 0; n < 100; ++n) {
    const int encoder = openEncoder();
    const int sensor = openSensor();
    ASSERT_GE(encoder, 0);
    ASSERT_GE(sensor, 0);
    close(encoder);
    close(sensor);
  }
  // The hardware is in this process too, and notices the end of a connection in its own time.
  EXPECT_TRUE(eventually([&] {
    close(openEncoder());
    return openDescriptors() <= before + 2;
  }));
}

TEST_F(DriverCalls, AHundredOpenNodesAreTooMany) {
  std::vector<int> fds;
  for (int n = 0; n < 100; ++n) {
    const int fd = open(kEncoderPath, O_RDONLY);
    if (fd < 0) break;
    fds.push_back(fd);
  }
  EXPECT_EQ(errno, EMFILE);
  EXPECT_EQ(fds.size(), 64U);
  // Whatever way they are closed, there is room again.
  const auto unseen = static_cast<unsigned>(fds[10]);
  close_range(unseen, unseen, 0);
  close(openEncoder());
  for (const int fd : fds)
    if (fd != static_cast<int>(unseen)) close(fd);
}

TEST_F(DriverCalls, TwoThreadsReadBothNodesAtOnce) {
  constexpr int kChunks = 200;
  for (int n = 0; n < kChunks; ++n) {
    encoder_.delivers(std::string(1000, 'e'));
    sensor_.delivers(std::string(50000, 's'));
  }
  atOnce(2, 1, [&](int caller, int) {
    const int fd = caller == 0 ? openEncoder() : openSensor();
    const char expected = caller == 0 ? 'e' : 's';
    std::vector<char> buffer(caller == 0 ? 1000 : 50000);
    for (int n = 0; n < kChunks; ++n) {
      std::fill(buffer.begin(), buffer.end(), ' ');
      ASSERT_EQ(read(fd, buffer.data(), buffer.size()), static_cast<ssize_t>(buffer.size()));
      ASSERT_EQ(std::count(buffer.begin(), buffer.end(), expected),
                static_cast<long>(buffer.size()));
    }
    close(fd);
  });
}

TEST_F(DriverCalls, ThreadsThatUseOneDescriptorTakeTurns) {
  const int fd = openSensor();
  atOnce(4, 200, [&](int caller, int) {
    if (caller == 0) {
      std::string text(100, 'x');
      EXPECT_EQ(ioctl(fd, static_cast<unsigned long>(kVicamSetMdosdString), text.data()), 0);
    } else if (caller == 1) {
      EXPECT_EQ(fcntl(fd, F_SETOWN, getpid()), 0);
    } else {
      std::int32_t word = 5;
      EXPECT_EQ(ioctl(fd, static_cast<unsigned long>(kVicamSetMirror), &word), 0);
    }
  });
  close(fd);
}

TEST_F(DriverCalls, HardwareThatEndsDuringAReadIsAnInputError) {
  const int fd = openEncoder();
  std::thread reader([fd] {
    char buffer[8];
    EXPECT_EQ(read(fd, buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, EIO);
  });
  EXPECT_TRUE(eventually([&] { return encoder_.blocked() == 1; }));
  // As the kernel does it when the program is killed: the connection ends without a reply.
  std::thread end([this] { server_.reset(); });
  reader.join();
  encoder_.end();
  end.join();
  std::int32_t word = 1;
  EXPECT_EQ(ioctl(fd, static_cast<unsigned long>(kMpg430SetMode), &word), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(fcntl(fd, F_SETOWN, getpid()), 0);
  close(fd);
}

// Appends a call of the drivers, with its bytes, as it goes over the connection.
void append(std::string* calls, CallKind kind, unsigned word, const std::string& bytes) {
  const Call call{static_cast<std::uint32_t>(kind), word, static_cast<std::uint32_t>(bytes.size())};
  calls->append(reinterpret_cast<const char*>(&call), sizeof call).append(bytes);
}

// A killed camera's last word, to stop the encoder, must not come behind its successor's first.
TEST_F(DriverCalls, WhatAProcessAskedForReachesNoChipAfterItsEnd) {
  std::string open;
  append(&open, CallKind::kOpen, 0, kEncoderPath);
  std::string calls;
  for (int n = 0; n < 5000; ++n) append(&calls, CallKind::kOwner, 0, "");  // are not answered
  append(&calls, CallKind::kIoctl, kMpg430StreamStart, std::string(4, '\0'));
  UnixAddress address{};
  ASSERT_TRUE(address.set(socketPath().c_str()));
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(connect(fd, address.get(), address.size()), 0);
  address.clear();
  ASSERT_EQ(send(fd, open.data(), open.size(), 0), static_cast<ssize_t>(open.size()));
  Reply opened{};
  ASSERT_EQ(recv(fd, &opened, sizeof opened, MSG_WAITALL), static_cast<ssize_t>(sizeof opened));
  ASSERT_EQ(send(fd, calls.data(), calls.size(), 0), static_cast<ssize_t>(calls.size()));
  close(fd);
  EXPECT_TRUE(eventually([&] { return encoder_.timesClosed() == 1; }));
  EXPECT_EQ(encoder_.calls(), 0U);
}

std::atomic<int> signals{0};
std::atomic<int> ioSignals{0};

void count(int signal) { ++(signal == SIGIO ? ioSignals : signals); }

void handle(int signal) {
  signals = 0;
  ioSignals = 0;
  struct sigaction action {};
  action.sa_handler = count;
  sigemptyset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
}

TEST_F(DriverCalls, ASignalDoesNotEndARead) {
  handle(SIGUSR1);
  const int fd = openEncoder();
  std::atomic<pthread_t> thread{};
  std::thread reader([&] {
    thread = pthread_self();
    char buffer[8];
    EXPECT_EQ(read(fd, buffer, sizeof buffer), 1);
  });
  EXPECT_TRUE(eventually([&] { return encoder_.blocked() == 1; }));
  for (int n = 1; n <= 20; ++n) {
    pthread_kill(thread, SIGUSR1);
    EXPECT_TRUE(eventually([&] { return signals >= n; }));
  }
  encoder_.delivers("x");
  reader.join();
  close(fd);
}

TEST_F(DriverCalls, TheOwnerOfAnAsynchronousNodeGetsSigio) {
  handle(SIGIO);
  const int fd = openEncoder();
  const int sensor = openSensor();
  // Neither by the bytes of a reply nor by the hardware, as long as it is not asked for.
  const auto call = [&] {
    std::int32_t word = 1;
    EXPECT_EQ(ioctl(fd, static_cast<unsigned long>(kMpg430SetMode), &word), 0);
  };
  fcntl(fd, F_SETOWN, getpid());
  call();
  server_->signalOwners(Node::kEncoder);
  EXPECT_EQ(ioSignals, 0);

  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_ASYNC);
  call();
  EXPECT_EQ(ioSignals, 0);
  server_->signalOwners(Node::kSensor);
  EXPECT_EQ(ioSignals, 0);
  server_->signalOwners(Node::kEncoder);
  EXPECT_TRUE(eventually([] { return ioSignals == 1; }));

  fcntl(fd, F_SETFL, 0);
  call();
  server_->signalOwners(Node::kEncoder);
  fcntl(fd, F_SETFL, O_ASYNC);
  fcntl(fd, F_SETOWN, 0);
  call();
  server_->signalOwners(Node::kEncoder);
  EXPECT_EQ(ioSignals, 1);
  close(fd);
  close(sensor);
}

TEST_F(DriverCalls, AnOwnerWhoHasClosedGetsNoSigio) {
  handle(SIGIO);
  const int fd = openEncoder();
  fcntl(fd, F_SETOWN, getpid());
  fcntl(fd, F_SETFL, O_ASYNC);
  close(fd);
  EXPECT_TRUE(eventually([&] { return encoder_.timesClosed() == 1; }));
  server_->signalOwners(Node::kEncoder);
  EXPECT_EQ(ioSignals, 0);
}

TEST_F(DriverCalls, WhatAProgramStartsLoadsNoDrivers) {
  EXPECT_EQ(std::getenv("LD_PRELOAD"), nullptr);
}

TEST_F(DriverCalls, OtherProgramsReadTheNodesToo) {
  sensor_.delivers("picture");
  encoder_.delivers("chunk");
  encoder_.delivers("more");
  // cat goes on until nothing comes; dd duplicates the descriptor.
  sensor_.end();
  const std::string load = std::string("LD_PRELOAD=") + VS_DRIVERS + " ";
  const std::string output = board_.path("/output");
  EXPECT_EQ(std::system((load + "cat /dev/video0 >" + output).c_str()), 0);
  EXPECT_EQ(readFile(output), "picture");
  EXPECT_EQ(std::system((load + "dd if=/dev/mpg430 bs=5 count=2 status=none >" + output).c_str()),
            0);
  EXPECT_EQ(readFile(output), "chunkmore");
}

}  // namespace
