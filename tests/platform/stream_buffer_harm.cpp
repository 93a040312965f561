// Processes of the camera's group that cut, enlarge, take away or write over a segment while the
// owner and its readers use it.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <utility>

#include "platform/bytes.h"
#include "platform/linux/stream_buffer_handle.h"
#include "platform/linux/stream_buffer_inspect.h"
#include "platform/linux/stream_buffer_streams.h"
#include "platform/timer.h"
#include "tests/platform/stream_buffer_fixture.h"

namespace {
int failingLooks = 0;  // at a file's name, from now on
}  // namespace

extern "C" {
int __real_lstat64(const char* path, void* status);
int __wrap_lstat64(const char* path, void* status);

int __wrap_lstat64(const char* path, void* status) {
  if (failingLooks == 0) return __real_lstat64(path, status);
  --failingLooks;
  errno = EIO;
  return -1;
}
}

namespace {

namespace fs = std::filesystem;

class StreamBufferHarm : public StreamBuffer {
 protected:
  void SetUp() override {
    ASSERT_TRUE(own({8, 8192}));
    for (std::uint32_t i = 1; i <= 20; ++i) ASSERT_TRUE(writeFrame(sbVideo(), i));
    sbSetUserdata(sbVideo(), 3, 33);
    sbSetUserdata(sbVideo(), 4, 44);
    EXPECT_EQ(sbTestUserdata(sbVideo(), 4), 44);
  }
  bool logged(const std::string& text) const {
    const std::vector<std::string> lines = loggedLines();
    return std::count(lines.begin(), lines.end(), "2 buffer " + path() + text) > 0;
  }
  bool mended() const { return logged(" was damaged by another process, mended"); }
  // A process that attaches now sees frames and slots as they are to be.
  static int newcomer(std::uint32_t frame) {
    Child other([frame] {
      sb::forgetStreams();
      if (sbVideo() == nullptr) return 2;
      Place place;
      if (readFrame(sbVideo(), &place, 0) != frame) return 3;
      return sbGetUserdata(sbVideo(), 3) == 33 && sbGetUserdata(sbVideo(), 4) == 44 ? 0 : 4;
    });
    return other.wait();
  }
};

struct Cut {
  const char* name;
  off_t size;
};

class StreamBufferCut : public StreamBufferHarm, public testing::WithParamInterface<Cut> {};

TEST_P(StreamBufferCut, IsMendedByItsOwnerWhoGoesOn) {
  SB_HANDLE* const before = sbVideo();
  ASSERT_EQ(truncate(path().c_str(), GetParam().size), 0);
  std::uint32_t seed = 100;
  // A cut that takes pages away is noticed at once, any other with the next look at the file.
  ASSERT_TRUE(eventually([&] {
    EXPECT_TRUE(writeFrame(sbVideo(), ++seed));
    EXPECT_EQ(sbGetUserdata(sbVideo(), 3), 33);
    EXPECT_EQ(sbTestUserdata(sbVideo(), 4), -1);
    return mended() && !sbVideo()->broken();
  }));
  EXPECT_EQ(sbVideo(), before);
  EXPECT_EQ(fs::file_size(path()), before->segment.geometry.totalBytes);
  EXPECT_EQ(before->head.retired, 0U);
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(writeFrame(sbVideo(), ++seed));
  EXPECT_EQ(newcomer(seed - 7), 0);
}

TEST_P(StreamBufferCut, EndsNoReaderWhichGoesOnWhenItIsMended) {
  SharedWords shared;
  Child reader([&shared] {
    sb::forgetStreams();
    Place place;
    for (;;) {
      const TAutoFrame frame(sbVideo(), 0, &place.number, &place.epoch, 50);
      // What it reads meanwhile may be zeros.
      if (frame) shared[1] = std::max(shared[1].load(), loadLe32(frame->number));
      sb::inspect(sbVideo());
      sbGetUserdata(sbVideo(), 3);
      sbTestUserdata(sbVideo(), 5);
      sbSetUserdata(sbVideo(), 6, 1);
      ++shared[0];
      if (shared[2] != 0) return 0;
    }
  });
  ASSERT_TRUE(eventually([&] { return shared[0] > 3; }));
  ASSERT_EQ(truncate(path().c_str(), GetParam().size), 0);
  const std::uint32_t rounds = shared[0];
  ASSERT_TRUE(eventually([&] { return shared[0] > rounds + 3; }));
  std::uint32_t seed = 1000;
  ASSERT_TRUE(eventually([&] {
    EXPECT_TRUE(writeFrame(sbVideo(), ++seed));
    usleep(1000);
    return mended() && shared[1] > 1000;
  })) << "the reader gets frames again";
  shared[2] = 1;
  EXPECT_EQ(reader.wait(), 0);
}

const Cut kCuts[] = {{"ToNothing", 0},
                     {"WithinTheHead", 100},
                     {"WithinTheSlots", 8192},
                     {"BetweenASlotAndItsValue", 192 + 8 * 16 + 256 + 128},
                     {"ToTheHead", 20480},
                     {"WithinAFrame", 30000},
                     {"ByOneByte", 20480 + 8 * 8192 - 1},
                     {"BeyondTheEnd", 200000}};
INSTANTIATE_TEST_SUITE_P(Of, StreamBufferCut, testing::ValuesIn(kCuts),
                         [](const auto& cut) { return std::string(cut.param.name); });

// Nothing is missing then, and yet everything is gone.
TEST_F(StreamBufferHarm, CutAndEnlargedAgainAtOnceIsMendedToo) {
  const std::uint32_t epoch = sbVideo()->head.epoch;
  ASSERT_EQ(truncate(path().c_str(), 0), 0);
  ASSERT_EQ(truncate(path().c_str(), 20480 + 8 * 8192), 0);
  std::uint32_t seed = 100;
  ASSERT_TRUE(eventually([&] {
    writeFrame(sbVideo(), ++seed);
    return mended();
  }));
  EXPECT_EQ(sbVideo()->head.epoch, epoch);
  EXPECT_EQ(sbGetUserdata(sbVideo(), 3), 33);
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(writeFrame(sbVideo(), ++seed));
  EXPECT_EQ(newcomer(seed - 7), 0);
}

TEST_F(StreamBufferHarm, CutAndEnlargedAgainBehindTheHeadIsMendedToo) {
  ASSERT_EQ(truncate(path().c_str(), 192), 0);
  ASSERT_EQ(truncate(path().c_str(), 20480 + 8 * 8192), 0);
  std::uint32_t seed = 100;
  ASSERT_TRUE(eventually([&] {
    writeFrame(sbVideo(), ++seed);
    return mended();
  }));
  EXPECT_EQ(sbGetUserdata(sbVideo(), 3), 33);
}

TEST_F(StreamBufferHarm, CutOverAndOverEndsNobody) {
  SharedWords shared;
  Child harm([&] {
    std::minstd_rand random(7);
    while (shared[0] == 0) {
      if (truncate(path().c_str(), static_cast<off_t>(random() % 90000)) != 0) return 1;
      usleep(static_cast<useconds_t>(random() % 2000));
    }
    return 0;
  });
  Child reader([&shared] {
    sb::forgetStreams();
    Place place;
    while (shared[0] == 0) {
      if (sbVideo() == nullptr) continue;
      const TAutoFrame frame(sbVideo(), 1000, &place.number, &place.epoch, 10);
      sbSetUserdata(sbVideo(), 6, 1);
    }
    return 0;
  });
  const std::uint32_t start = monotonicMs();
  std::uint32_t seed = 100;
  while (monotonicMs() - start < 1500) {
    writeFrame(sbVideo(), ++seed);
    sbSetUserdata(sbVideo(), 3, 33);
    sbGetUserdata(sbVideo(), 4);
  }
  shared[0] = 1;
  EXPECT_EQ(harm.wait(), 0);
  EXPECT_EQ(reader.wait(), 0);
  ASSERT_TRUE(eventually([&] {
    writeFrame(sbVideo(), ++seed);
    return !sbVideo()->broken() && fs::file_size(path()) == 20480 + 8 * 8192;
  }));
  // What the reader held at its end is taken back within a second.
  EXPECT_TRUE(eventually([&] {
    for (int i = 0; i < 10; ++i) writeFrame(sbVideo(), ++seed);
    return newcomer(seed - 7) == 0;
  }));
}

TEST_F(StreamBufferHarm, TakenAwayIsMadeAnewByItsOwner) {
  SB_HANDLE* const before = sbVideo();
  fs::remove(path());
  std::uint32_t seed = 100;
  ASSERT_TRUE(eventually([&] {
    EXPECT_TRUE(writeFrame(sbVideo(), ++seed));
    return sbVideo() != before;
  }));
  EXPECT_TRUE(logged(" was taken away by another process, made anew"));
  EXPECT_EQ(before->head.retired, 1U) << "so that its readers move over";
  EXPECT_EQ(sbTestUserdata(sbVideo(), 3), -1) << "without a mark";
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(writeFrame(sbVideo(), ++seed));
  EXPECT_EQ(newcomer(seed - 7), 0);
}

TEST_F(StreamBufferHarm, LookThatFailsOnceTakesNothingAway) {
  SB_HANDLE* const before = sbVideo();
  failingLooks = 1;
  const bool looked = sb::lookForReplacement(before, monotonicMs(), 0);
  if (std::exchange(failingLooks, 0) != 0) GTEST_SKIP() << "the call has another name here";
  EXPECT_FALSE(looked);
  EXPECT_EQ(before->head.retired, 0U);
  EXPECT_TRUE(sb::lookForReplacement(before, monotonicMs(), 0));
  EXPECT_EQ(sbVideo(), before);
  EXPECT_FALSE(logged(" was taken away by another process, made anew"));
}

TEST_F(StreamBufferHarm, ReplacedByWhatIsNoSegmentIsMadeAnewByItsOwner) {
  SB_HANDLE* const before = sbVideo();
  std::ofstream(path() + ".new") << std::string(100000, 'x');
  fs::rename(path() + ".new", path());
  std::uint32_t seed = 100;
  ASSERT_TRUE(eventually([&] {
    writeFrame(sbVideo(), ++seed);
    return sbVideo() != nullptr && sbVideo() != before;
  }));
  EXPECT_TRUE(logged(": it is no stream buffer of this system"));
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(writeFrame(sbVideo(), ++seed));
  EXPECT_EQ(newcomer(seed - 7), 0);
}

TEST_F(StreamBufferHarm, CutAfterItWasMadeAnewIsMendedWithTheSlotsOfBefore) {
  SB_HANDLE* const before = sbVideo();
  fs::remove(path());
  std::uint32_t seed = 100;
  ASSERT_TRUE(eventually([&] {
    writeFrame(sbVideo(), ++seed);
    return sbVideo() != before;
  }));
  ASSERT_EQ(truncate(path().c_str(), 0), 0);
  ASSERT_TRUE(eventually([&] {
    writeFrame(sbVideo(), ++seed);
    return mended();
  }));
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(writeFrame(sbVideo(), ++seed));
  EXPECT_EQ(newcomer(seed - 7), 0);
}

// The first lease, in whose cells the values are, is somebody else's then.
TEST_F(StreamBufferHarm, MadeAnewWhileAReaderWaitsForItIsNotTakenForDamaged) {
  SB_HANDLE* const before = sbVideo();
  SharedWords shared;
  std::unique_ptr<Child> reader;
  callAt(sb::Point::kSegmentReplaced, [&] {
    reader = std::make_unique<Child>([&] {
      sb::forgetStreams();
      shared[0] = sbVideo() == nullptr || sbVideo()->mine.lease != 0 ? 2 : 1;
      while (shared[1] == 0) usleep(1000);
      return 0;
    });
    eventually([&] { return shared[0] != 0; });
  });
  fs::remove(path());
  std::uint32_t seed = 100;
  ASSERT_TRUE(eventually([&] {
    writeFrame(sbVideo(), ++seed);
    return sbVideo() != before;
  }));
  callAt(sb::Point::kCount, nullptr);
  ASSERT_EQ(shared[0], 1U);
  const std::uint32_t start = monotonicMs();
  while (monotonicMs() - start < 1200) sbVideo()->look();
  EXPECT_FALSE(mended());
  EXPECT_EQ(sbGetUserdata(sbVideo(), 3), 33);
  shared[1] = 1;
  EXPECT_EQ(reader->wait(), 0);
}

// Each would cost memory for good.
TEST_F(StreamBufferHarm, TakenAwayAgainAndAgainIsNotMadeAnewEachTime) {
  for (int i = 0; i < 5; ++i) {
    fs::remove(path());
    sb::lookForReplacement(sbVideo(), monotonicMs(), 0);
    EXPECT_TRUE(writeFrame(sbVideo(), 100));
  }
  const auto lines = loggedLines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       "2 buffer " + path() + " was taken away by another process, made anew"),
            1);
}

TEST_F(StreamBufferHarm, PinsThatNobodyHasSetDoNotHoldTheWriter) {
  for (std::uint32_t i = 0; i < 8; ++i) {
    for (std::uint32_t word = 0; word < 2; ++word) {
      sbVideo()->holders[i * 2 + word] = ~0U;
    }
  }
  for (std::uint32_t i = 0; i < 20; ++i) EXPECT_TRUE(writeFrame(sbVideo(), 100 + i, 100));
}

// It is the writer's first choice, and was never missed while there were others.
TEST_F(StreamBufferHarm, AnEmptyFrameThatTheDeadHoldIsTakenBack) {
  sbVideo()->seq[5] = 0;
  sbVideo()->holders[5 * 2 + 1] = 1U << 20;
  for (std::uint32_t i = 0; i < 10; ++i) EXPECT_TRUE(writeFrame(sbVideo(), 100 + i));
  EXPECT_EQ(sbVideo()->holders[5 * 2 + 1], 0U);
  EXPECT_EQ(newcomer(102), 0);
}

// Random words at full speed over everything that the group may write to, while the owner captures
// and readers read. Nothing ends, nothing hangs, and afterwards all is well.
TEST_F(StreamBufferHarm, GarbageInEveryWordEndsNobodyAndIsMended) {
  SharedWords shared;
  const auto garbage = [&](unsigned seed) {
    const int fd = open(path().c_str(), O_RDWR);
    const std::size_t size = sbVideo()->segment.geometry.totalBytes;
    void* const base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (base == MAP_FAILED) return 1;
    auto* const words = static_cast<std::uint32_t*>(base);
    std::minstd_rand random(seed);
    // The first words, which everything depends on, as often as all the others, and frames'
    // records.
    const std::size_t ends[] = {48, 48 + 8 * 4, 20480 / 4, size / 4};
    while (shared[0] == 0) {
      const std::size_t end = ends[random() % 4];
      words[random() % end] =
          static_cast<std::uint32_t>(random() % 3 == 0 ? random() % 70 : random() * 5);
    }
    return 0;
  };
  const auto read = [&] {
    sb::forgetStreams();
    Place place;
    while (shared[0] == 0) {
      if (sbVideo() == nullptr) continue;
      const long size = sbGetFrameSize(sbVideo());
      const TAutoFrame frame(sbVideo(), 1000, &place.number, &place.epoch, 10);
      volatile char last = 0;
      if (frame) last = frame->payload[size - static_cast<long>(kFrameHeadBytes) - 1];
      (void)last;
      sb::inspect(sbVideo());
      for (int i = 0; i < kSlotCount; ++i) sbTestUserdata(sbVideo(), i);
      sbSetUserdata(sbVideo(), 6, 1);
      ++shared[1];
    }
    return 0;
  };
  Child reader(read);
  Child another(read);
  ASSERT_TRUE(eventually([&] { return shared[1] > 1; }));
  Child one([&] { return garbage(1); });
  Child two([&] { return garbage(2); });
  const std::uint32_t start = monotonicMs();
  std::uint32_t seed = 100;
  while (monotonicMs() - start < 2000) {
    writeFrame(sbVideo(), ++seed, 5);
    for (int i = 0; i < kSlotCount; ++i) sbTestUserdata(sbVideo(), i);
    sbSetUserdata(sbVideo(), 3, 33);
    // As the daemon's recorders do it.
    Place place;
    const TAutoFrame frame(sbVideo(), 1000, &place.number, &place.epoch, 1);
  }
  shared[0] = 1;
  EXPECT_EQ(one.wait(), 0);
  EXPECT_EQ(two.wait(), 0);
  EXPECT_EQ(reader.wait(), 0);
  EXPECT_EQ(another.wait(), 0);
  EXPECT_TRUE(mended());
  int result = 0;
  EXPECT_TRUE(eventually([&] {
    sbSetUserdata(sbVideo(), 3, 33);
    sbSetUserdata(sbVideo(), 4, 44);
    for (int i = 0; i < 10; ++i) writeFrame(sbVideo(), ++seed);
    result = newcomer(seed - 7);
    return result == 0;
  })) << "a newcomer ends with "
      << result << "; " << testing::PrintToString(loggedLines());
  for (int i = 0; i < 100; ++i) ASSERT_TRUE(writeFrame(sbVideo(), ++seed));
}

// Only what was mapped here is spared.
TEST_F(StreamBufferHarm, OtherBusErrorsHaveTheirEffect) {
  // More than a page, because qemu gives the address of its own for that of the program: a page on.
  constexpr int kSize = 4 * 4096;
  Child elsewhere([&] {
    std::ofstream(path() + ".other") << std::string(kSize, 'x');
    const int fd = open((path() + ".other").c_str(), O_RDWR);
    auto* const page =
        static_cast<volatile char*>(mmap(nullptr, kSize, PROT_READ, MAP_SHARED, fd, 0));
    if (ftruncate(fd, 0) != 0) return 0;
    const volatile char byte = page[0];
    (void)byte;
    return 0;
  });
  Child sent([] {
    raise(SIGBUS);
    return 0;
  });
  const int statuses[] = {elsewhere.wait(), sent.wait()};
  for (const int status : statuses) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    EXPECT_NE(status, 0) << "the sanitizer reports, and ends the process with a status of its own";
#else
    EXPECT_EQ(status, -SIGBUS);
#endif
  }
}

}  // namespace
