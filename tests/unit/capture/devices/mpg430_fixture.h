// What the tests of the encoder share: a driver that answers as scripted.
#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "capture/chunk_trailer.h"
#include "capture/devices/mpg430.h"
#include "core/status_slots.h"
#include "platform/application.h"
#include "platform/mpg430.h"
#include "record/avi_writer.h"
#include "tests/fakes/fake_platform.h"

// A fresh platform with an encoder for each test. The requests that reach the driver are in the
// platform's list of calls, with their numbers as the driver sees them:
//   ioctl(00800000,7)    an integer
//   ioctl(02200000,1,2,3,4)   the colour record
//   ioctl(01200000)      the header
class Mpg430Fixture : public testing::Test {
 protected:
  static constexpr long kSize = 4000;  // largest payload of a frame

  Mpg430Fixture() {
    fake.files.put("/dev/mpg430", "");
    fake.video.setFrameSize(kSize + static_cast<long>(kFrameHeadBytes));
    fake.onIoctl([this](int fd, unsigned long number, void* argument) {
      EXPECT_EQ(fd, encoderFd);
      return answer(number, argument);
    });
    fake.onRead([this](int fd, char* buffer, std::size_t size) {
      EXPECT_EQ(fd, encoderFd);
      return give(buffer, size);
    });
    forgetAll();
  }
  ~Mpg430Fixture() override { forgetAll(); }

  class Device : public TMpg430 {
   public:
    explicit Device(bool start = false) : TMpg430(start) {}
    using TCamera::brightness_;
    using TCamera::compression_;
    using TCamera::contrast_;
    using TCamera::framerate_;
    using TCamera::hue_;
    using TCamera::ipratio_;
    using TCamera::package_;
    using TCamera::resolution_;
    using TCamera::saturation_;
    using TCamera::source_;
    using TMpg430::enableStream;
    using TMpg430::lastType;
  };

  // --- The driver.
  int encoderFd = 100;  // the first one of the fake
  struct Chunk {
    // `takes`: seconds of the read. `happens`: meanwhile.
    Chunk(std::string bytes, double takes = 0, std::function<void()> happens = nullptr)
        : data(std::move(bytes)), seconds(takes), during(std::move(happens)) {}
    std::string data;
    double seconds;
    std::function<void()> during;
  };
  std::deque<Chunk> chunks;         // what reads give, the first one next
  std::vector<std::size_t> asked;   // lengths that were asked for
  std::map<unsigned, int> results;  // of requests, 0 without; 20 for the header
  std::map<unsigned, int> leaves;   // in the argument, what came in without
  std::string streamHeader = std::string(kMpg430HeaderBytes, 'h');
  std::function<void(unsigned number)> onRequest;

  // Bytes of a picture's first chunk.
  static std::string key(std::size_t length, char fill = 'K') { return start(0x3F, length, fill); }
  static std::string predicted(std::size_t length, char fill = 'R') {
    return start(0x40, length, fill);
  }
  // Bytes of a chunk that goes on.
  static std::string more(std::size_t length, char fill = 'm') { return std::string(length, fill); }
  static std::string start(unsigned char fifth, std::size_t length, char fill) {
    std::string bytes(length, fill);
    const char code[] = {0, 0, 1, static_cast<char>(0xB6), static_cast<char>(fifth)};
    return bytes.replace(0, std::min(length, sizeof code), code, std::min(length, sizeof code));
  }

  // The driver's signal.
  void changeStandard() { fake.handlers.at(SIGIO)(SIGIO); }

  std::vector<std::string> takeRequests() {
    std::vector<std::string> result;
    for (const std::string& call : fake.takeCalls())
      if (call.compare(0, 6, "ioctl(") == 0) result.push_back(call);
    return result;
  }

  // --- Frames.
  struct Trailer {
    char type;
    char more;
    std::uint32_t length;
    bool operator==(const Trailer& other) const {
      return type == other.type && more == other.more && length == other.length;
    }
    friend std::ostream& operator<<(std::ostream& out, const Trailer& trailer) {
      return out << trailer.type << trailer.more << trailer.length;
    }
  };

  // Reads a frame into memory with a guard on both sides. Returns what getImage() does.
  int read(TCamera& device, long size = kSize) {
    constexpr std::size_t kGuard = 64;
    const std::string guard(kGuard, 'G');
    std::string memory = guard + std::string(static_cast<std::size_t>(size), 'u') + guard;
    const int length = device.getImage(&memory[kGuard], size);
    EXPECT_EQ(memory.substr(0, kGuard), guard);
    EXPECT_EQ(memory.substr(memory.size() - kGuard), guard);
    frame = memory.substr(kGuard, static_cast<std::size_t>(size));
    return length;
  }

  // The trailers of the last frame, up to the one that says it is the last.
  std::vector<Trailer> trailers() const { return trailersOf(frame); }
  static std::vector<Trailer> trailersOf(const std::string& bytes) {
    std::vector<Trailer> result;
    for (std::size_t at = bytes.size(); at >= 6; at -= 6) {
      const char* const trailer = &bytes[at - 6];
      result.push_back({trailer[0], trailer[1], loadLe32(trailer + 2)});
      if (trailer[1] == 'x') break;
    }
    return result;
  }

  FakePlatform fake;
  std::string frame;

 private:
  // The class's and the writer's state outlives each test.
  static void forgetAll() {
    TMpg430::fHeadr = false;
    TMpg430::fImage = false;
    TMpg430::header[0] = '\0';
    Device::lastType = 'P';
    TCamera::defMode = 0;
    aviWriter()->setHeader(std::string(TAviWriter::kHeaderBytes, '\0').data(), false);
    aviWriter()->cut();
  }

  int answer(unsigned long request, void* argument) {
    const auto number = static_cast<unsigned>(request);
    EXPECT_EQ(number, request) << "wider than 32 bits";
    char call[80];
    int result = 0;
    if (number == kMpg430GetImgheader) {
      std::snprintf(call, sizeof call, "ioctl(%08x)", number);
      result = kMpg430HeaderBytes;
      streamHeader.copy(static_cast<char*>(argument), kMpg430HeaderBytes);
    } else if (number == kMpg430VideoSetcolor) {
      std::int16_t values[4];
      std::memcpy(values, argument, sizeof values);
      std::snprintf(call, sizeof call, "ioctl(%08x,%d,%d,%d,%d)", number, values[0], values[1],
                    values[2], values[3]);
    } else {
      std::int32_t value;
      std::memcpy(&value, argument, sizeof value);
      std::snprintf(call, sizeof call, "ioctl(%08x,%d)", number, static_cast<int>(value));
      if (leaves.count(number) != 0) value = leaves[number];
      std::memcpy(argument, &value, sizeof value);
    }
    fake.record(call);
    if (onRequest) onRequest(number);
    return results.count(number) != 0 ? results[number] : result;
  }

  long give(char* buffer, std::size_t size) {
    asked.push_back(size);
    if (chunks.empty()) {
      ADD_FAILURE() << "a read that the test has no chunk for";
      TApplication::stopped = true;
      buffer[0] = '?';
      return 1;
    }
    Chunk chunk = std::move(chunks.front());
    chunks.pop_front();
    if (chunk.seconds > 0) fake.advance(chunk.seconds);
    if (chunk.during) chunk.during();
    if (chunk.data.size() > size) {  // the rest comes with the next read
      chunks.push_front({chunk.data.substr(size), 0, nullptr});
      chunk.data.resize(size);
    }
    chunk.data.copy(buffer, chunk.data.size());
    return static_cast<long>(chunk.data.size());
  }
};
