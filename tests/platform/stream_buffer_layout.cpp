// The bytes that other processes see, the same on every target.
#include <unistd.h>
#include <cstring>
#include <fstream>
#include <iterator>
#include <utility>

#include "platform/linux/stream_buffer_handle.h"
#include "tests/platform/stream_buffer_fixture.h"

namespace {

constexpr std::uint32_t kLease0Cell1 = 1;

// The whole file, as another process would read it.
class Bytes {
 public:
  explicit Bytes(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    bytes_.assign(std::istreambuf_iterator<char>(stream), {});
  }
  std::uint32_t operator[](std::size_t at) const {
    std::uint32_t word = 0;
    if (at + 4 <= bytes_.size()) std::memcpy(&word, bytes_.data() + at, 4);
    return word;
  }
  std::size_t size() const { return bytes_.size(); }
  const char* at(std::size_t offset) const { return bytes_.data() + offset; }

 private:
  std::vector<char> bytes_;
};

TEST_F(StreamBuffer, EveryWordIsInItsPlace) {
  if (sb::pageSize() != 4096) GTEST_SKIP() << "the places below are those of 4 KiB pages";
  ASSERT_TRUE(own({3, 5000}));
  ASSERT_TRUE(writeFrame(sbVideo(), 0x01020304, 0, 200));
  ASSERT_TRUE(writeFrame(sbVideo(), 0x11121314, 0, 201));
  Place place;
  const TAutoFrame held(sbVideo(), 1000, &place.number, &place.epoch, 0);
  sbSetUserdata(sbVideo(), 3, 0x0A0B0C0D);
  EXPECT_EQ(sbTestUserdata(sbVideo(), 3), 0x0A0B0C0D);
  sbSetUserdata(sbVideo(), 31, -2);
  const Bytes file(path());

  const std::pair<std::size_t, std::uint32_t> expected[] = {
      {0, 0x56425546},                              // magic
      {4, 1},                                       // version
      {8, 17008},                                   // head bytes
      {12, 45056},                                  // total bytes
      {16, 3},                                      // frames
      {20, 5000},                                   // frame size
      {24, 8192},                                   // stride
      {28, 64},                                     // leases
      {32, 32},                                     // slots
      {40, 20480},                                  // data offset
      {44, 0},                                      //
      {48, 0},                                      // retired
      {64, 2},                                      // latest
      {72, static_cast<std::uint32_t>(getpid())},   // writer
      {76, 0},                                      // writing
      {80, 0},                                      // busy count
      {132, 0},                                     // writer waits
      {192, 1},                                     // number of frame 0
      {196, 2},                                     // of frame 1
      {200, 0},                                     // of frame 2
      {216, 1},                                     // holders of frame 0, leases 0 to 31
      {220, 0},                                     // leases 32 to 63
      {224, 0},                                     // of frame 1
      {240, static_cast<std::uint32_t>(getpid())},  // lease 0
      {244, 0},                                     // lease 1
      {496 + 4 * 3, 0x140},                         // slot 3: count 1, no mark, cell 1, lease 0
      {496 + 4 * 31, 0x1C0},                        // slot 31: count 1, marked, cell 1, lease 0
      {624 + 8 * 3 + 4 * kLease0Cell1, 0x0A0B0C0D},
      {624 + 8 * 31 + 4 * kLease0Cell1, 0xFFFFFFFE},
      {624 + 8 * 31, 0},
  };
  EXPECT_EQ(file.size(), 45056U);
  for (const auto& [at, word] : expected) EXPECT_EQ(file[at], word) << "at " << at;
  EXPECT_NE(file[36], 0U) << "epoch";
  EXPECT_EQ(file[36], sbVideo()->segment.epoch);

  // The record is little-endian whatever the words are.
  const unsigned char record[16] = {4, 3, 2, 1, 0, 0, 0, 0, 200, 0, 0, 0, 4, 3, 2, 1};
  EXPECT_EQ(std::memcmp(file.at(20480), record, 16), 0);
  EXPECT_EQ(file[20480 + 8192 + 8],
            file[20480 + 8] + (__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? 1U : 1U << 24));
}

}  // namespace
