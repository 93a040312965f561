// Segments that are new, stale, foreign, replaced or half-made.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include "platform/linux/stream_buffer_handle.h"
#include "platform/linux/stream_buffer_streams.h"
#include "platform/timer.h"
#include "tests/platform/stream_buffer_fixture.h"

namespace {

int failingLinks = 0;  // so many of the next fail for want of room

}  // namespace

extern "C" {
int __real_link(const char* from, const char* to);
int __wrap_link(const char* from, const char* to);

int __wrap_link(const char* from, const char* to) {
  if (failingLinks == 0) return __real_link(from, to);
  --failingLinks;
  errno = ENOSPC;
  return -1;
}
}

namespace {

namespace fs = std::filesystem;

constexpr sb::FrameSizes kOther{5, 12288};

// What is in the folder that should not be there.
int leftOvers(const std::string& file) {
  int count = 0;
  for (const auto& entry : fs::directory_iterator(fs::path(file).parent_path())) {
    if (entry.path().filename().string()[0] == '.') ++count;
  }
  return count;
}

bool logged(const std::string& line) {
  const std::vector<std::string> lines = loggedLines();
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

void changeWord(const std::string& file, long at, std::uint32_t value) {
  std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
  stream.seekp(at);
  stream.write(reinterpret_cast<const char*>(&value), 4);
}

class StreamBufferSegments : public StreamBuffer {};

TEST_F(StreamBufferSegments, AreOfTheirGroupOnlyAndFullyAllocated) {
  ASSERT_TRUE(own());
  struct stat file;
  ASSERT_EQ(stat(path().c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 07777, 0660U);
  EXPECT_GE(file.st_blocks * 512, file.st_size) << "a hole would kill whoever touches it later";
  EXPECT_EQ(file.st_nlink, 1U);
  struct stat folder;
  ASSERT_EQ(stat(fs::path(path()).parent_path().c_str(), &folder), 0);
  EXPECT_EQ(folder.st_mode & 07777, 0750U);
  EXPECT_EQ(leftOvers(path()), 0);
}

TEST_F(StreamBufferSegments, BelongToTheCamerasGroupWhereThereIsOne) {
  if (geteuid() != 0) GTEST_SKIP() << "only root gives files to any group";
  const fs::path etc = fs::path(path()) / "../../../../etc";
  fs::create_directories(etc.lexically_normal());
  std::ofstream(etc.lexically_normal() / "group") << "root:x:0:\ncamera:x:4711:\n";
  ASSERT_TRUE(own());
  struct stat file;
  ASSERT_EQ(stat(path().c_str(), &file), 0);
  EXPECT_EQ(file.st_gid, 4711U);
  ASSERT_EQ(stat(fs::path(path()).parent_path().c_str(), &file), 0);
  EXPECT_EQ(file.st_gid, 4711U);
}

TEST_F(StreamBufferSegments, OfAKilledOwnerAreReusedWithNumbersAndSlots) {
  SharedWords shared;
  Child owner([&shared] {
    if (!own()) return 1;
    for (std::uint32_t i = 1; i <= 6; ++i) writeFrame(sbVideo(), i);
    sbSetUserdata(sbVideo(), 0, 6);
    sbSetUserdata(sbVideo(), 25, 25);
    shared[0] = sbVideo()->segment.epoch;
    raise(SIGKILL);
    return 1;
  });
  ASSERT_EQ(owner.wait(), -SIGKILL);
  ASSERT_TRUE(own());
  EXPECT_EQ(sbVideo()->segment.epoch, shared[0]);
  EXPECT_EQ(sbGetUserdata(sbVideo(), 0), 6);
  EXPECT_EQ(sbTestUserdata(sbVideo(), 25), 25);
  ASSERT_TRUE(writeFrame(sbVideo(), 7));
  Place place;
  EXPECT_EQ(readFrame(sbVideo(), &place), 4U);
  EXPECT_EQ(place.number, 4);
  EXPECT_EQ(sbVideo()->head.latest, 7U);
}

TEST_F(StreamBufferSegments, OfAnotherSizeAreReplacedAndTheirUsersMoveOver) {
  ASSERT_TRUE(own());
  SharedWords shared;
  Child user([&shared] {
    SB_HANDLE* before = sbVideo();
    Place place;
    readFrame(before, &place);
    shared[0] = 1;
    const std::uint32_t start = monotonicMs();
    if (readFrame(before, &place, 20000) != 0) return 1;
    if (monotonicMs() - start > 10000) return 2;  // the wait was not ended by the replacement
    if (!eventually([before] { return sbGetUserdata(before, 3) == 33 && sbVideo() != before; }))
      return 3;
    if (sbGetFrameSize(sbVideo()) != 12288) return 3;
    if (sbGetFrameSize(before) != 8192 || sbGetUserdata(before, 3) != 33) return 4;
    const std::int32_t epoch = place.epoch;
    if (readFrame(sbVideo(), &place, 20000) != 9 || place.epoch == epoch) return 5;
    return 0;
  });
  sbSetUserdata(sbVideo(), 3, 33);
  ASSERT_TRUE(eventually([&] { return shared[0] == 1; }));
  ASSERT_TRUE(own(kOther));
  EXPECT_EQ(sbGetFrameSize(sbVideo()), 12288);
  EXPECT_EQ(sbGetUserdata(sbVideo(), 3), 0);
  ASSERT_TRUE(writeFrame(sbVideo(), 9));
  EXPECT_EQ(user.wait(), 0);
  EXPECT_EQ(leftOvers(path()), 0);
}

TEST_F(StreamBufferSegments, OfAnotherVersionAreRetiredAndReplaced) {
  ASSERT_TRUE(own());
  SB_HANDLE* before = sbVideo();
  before->head.version = 7;
  Child owner([] {
    sb::forgetStreams();
    return own() && writeFrame(sbVideo(), 1) ? 0 : 1;
  });
  EXPECT_EQ(owner.wait(), 0);
  EXPECT_EQ(before->head.retired, 1U);
  sbGetUserdata(before, 0);
  EXPECT_NE(sbVideo(), before);
  Place place;
  EXPECT_EQ(readFrame(sbVideo(), &place), 1U);
}

// A creator that died before it gave the new segment its name, and a later one.
TEST_F(StreamBufferSegments, RetiredTooEarlyAreUsedUntilTheyAreReplaced) {
  ASSERT_TRUE(own());
  SB_HANDLE* before = sbVideo();
  Child creator([] {
    signalAt(sb::Point::kSegmentRetired, SIGKILL);
    own(kOther);
    return 1;
  });
  ASSERT_EQ(creator.wait(), -SIGKILL);
  EXPECT_EQ(before->head.retired, 1U);
  EXPECT_EQ(sbGetUserdata(sbVideo(), 1), 0);
  EXPECT_TRUE(writeFrame(sbVideo(), 1));
  Child user([] {
    sb::forgetStreams();
    Place place;
    return static_cast<int>(readFrame(sbVideo(), &place));
  });
  EXPECT_EQ(user.wait(), 1) << "newcomers attach it too";
  EXPECT_EQ(sbVideo(), before);
  Child next([] { return own(kOther) ? 0 : 1; });
  ASSERT_EQ(next.wait(), 0);
  EXPECT_TRUE(eventually([before] {
    sbGetUserdata(sbVideo(), 1);
    return sbVideo() != before;
  })) << "who only reads slots moves over too";
}

TEST_F(StreamBufferSegments, RetiredTooEarlyAreTakenBackInTheSameSize) {
  ASSERT_TRUE(own());
  SB_HANDLE* before = sbVideo();
  before->head.retired = 1;
  ASSERT_TRUE(own());
  EXPECT_EQ(sbVideo(), before);
  EXPECT_EQ(before->head.retired, 0U);
}

TEST_F(StreamBufferSegments, ReplacedByStrangersAreNoticedWithinTwoSeconds) {
  ASSERT_TRUE(own());
  SB_HANDLE* before = sbVideo();
  fs::remove(path());
  Child owner([] {
    sb::forgetStreams();
    return own() ? 0 : 1;
  });
  EXPECT_EQ(owner.wait(), 0);
  EXPECT_EQ(before->head.retired, 0U);
  const std::uint32_t start = monotonicMs();
  ASSERT_TRUE(eventually([before] {
    sbSetUserdata(sbVideo(), 1, 0);
    return sbVideo() != before;
  }));
  EXPECT_LT(monotonicMs() - start, 2000U);
  EXPECT_EQ(sbGetUserdata(before, 1), 0) << "the old one stays mapped";
}

TEST_F(StreamBufferSegments, ThatLostTheirNameAreKeptUntilThereIsANewOne) {
  Child owner([] { return own() ? 0 : 1; });
  ASSERT_EQ(owner.wait(), 0);
  SB_HANDLE* before = sbVideo();
  fs::remove(path());
  sb::lookForReplacement(before, monotonicMs(), 0);
  EXPECT_EQ(sbVideo(), before);
  EXPECT_TRUE(writeFrame(before, 1));
  ASSERT_TRUE(own());
  EXPECT_NE(sbVideo(), before);
  EXPECT_EQ(before->head.retired, 1U);
  EXPECT_TRUE(fs::exists(path()));
}

TEST_F(StreamBufferSegments, AreWatchedWithoutLosingTheLease) {
  ASSERT_TRUE(own());
  ASSERT_TRUE(writeFrame(sbVideo(), 1));
  for (int i = 0; i < 3; ++i) sb::lookForReplacement(sbVideo(), monotonicMs(), 0);
  ASSERT_TRUE(own());
  const int lease = sbVideo()->mine.lease;
  const pid_t parent = getpid();
  Child other([&] {
    const bool kept =
        sbVideo()->lockOwner(lease) == parent && sbVideo()->lockOwner(sb::kWriterByte) == parent;
    return kept ? 0 : 1;
  });
  EXPECT_EQ(other.wait(), 0);
}

struct Damage {
  const char* name;
  std::function<void(const std::string&)> make;
  const char* reason;
};

class StreamBufferDamage : public StreamBuffer, public testing::WithParamInterface<Damage> {};

TEST_P(StreamBufferDamage, IsNotAttachedSaysWhyOnceAndIsReplacedByTheOwner) {
  Child maker([] { return own() ? 0 : 1; });
  ASSERT_EQ(maker.wait(), 0);
  GetParam().make(path());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(sbVideo(), nullptr);
  const std::string line = "2 buffer " + path() + ": " + GetParam().reason;
  ASSERT_EQ(loggedLines().size(), 1U);
  EXPECT_EQ(loggedLines()[0], line);
  ASSERT_TRUE(own());
  EXPECT_TRUE(writeFrame(sbVideo(), 1));
  EXPECT_EQ(leftOvers(path()), 0);
}

const Damage kDamages[] = {
    {"Empty", [](const std::string& f) { std::ofstream(f, std::ios::trunc); },
     "the file has another size"},
    {"Text", [](const std::string& f) { std::ofstream(f) << std::string(100000, 'x'); },
     "it is no stream buffer of this system"},
    {"OtherByteOrder",
     [](const std::string& f) { changeWord(f, 0, __builtin_bswap32(sb::kMagic)); },
     "it is no stream buffer of this system"},
    {"OtherVersion", [](const std::string& f) { changeWord(f, 4, 2); }, "it has another version"},
    {"NoFrames", [](const std::string& f) { changeWord(f, 16, 0); },
     "its geometry is out of range"},
    {"ManyFrames", [](const std::string& f) { changeWord(f, 16, 0x40000004); },
     "its geometry is out of range"},
    {"HugeFrames", [](const std::string& f) { changeWord(f, 20, 0xFFFFF000); },
     "its geometry is out of range"},
    {"OtherStride", [](const std::string& f) { changeWord(f, 24, 4096); },
     "its sizes contradict each other"},
    {"OtherLeases", [](const std::string& f) { changeWord(f, 28, 65); },
     "its sizes contradict each other"},
    {"OtherSlots", [](const std::string& f) { changeWord(f, 32, 33); },
     "its sizes contradict each other"},
    {"NoEpoch", [](const std::string& f) { changeWord(f, 36, 0); }, "it has no epoch"},
    {"OtherDataOffset", [](const std::string& f) { changeWord(f, 40, 0); },
     "its sizes contradict each other"},
    {"CutShort", [](const std::string& f) { fs::resize_file(f, 20480); },
     "the file has another size"},
    {"TooLong", [](const std::string& f) { fs::resize_file(f, 1000000); },
     "the file has another size"},
    {"Pipe",
     [](const std::string& f) {
       fs::remove(f);
       ASSERT_EQ(mkfifo(f.c_str(), 0600), 0);
     },
     "it is no regular file"},
    {"Link",
     [](const std::string& f) {
       fs::rename(f, f + ".away");
       fs::create_symlink(f + ".away", f);
     },
     "Too many levels of symbolic links"},
};

INSTANTIATE_TEST_SUITE_P(Of, StreamBufferDamage, testing::ValuesIn(kDamages),
                         [](const auto& damage) { return std::string(damage.param.name); });

TEST_F(StreamBufferSegments, OfAnotherUserAreNotTrusted) {
  if (geteuid() != 0) GTEST_SKIP() << "only root gives files away";
  Child maker([] { return own() ? 0 : 1; });
  ASSERT_EQ(maker.wait(), 0);
  ASSERT_EQ(chown(path().c_str(), 4711, 4711), 0);
  EXPECT_EQ(sbVideo(), nullptr);
  EXPECT_TRUE(logged("2 buffer " + path() + ": it belongs to somebody else"));
  ASSERT_TRUE(own());
  EXPECT_NE(sbVideo(), nullptr);
}

TEST_F(StreamBufferSegments, CantBeCreatedWhereAFolderHasTheirName) {
  fs::create_directories(path());
  EXPECT_FALSE(own());
  EXPECT_TRUE(logged("3 can't create buffer " + path() + ": Is a directory"));
  EXPECT_EQ(sbVideo(), nullptr);
  EXPECT_NE(sbVideo2(), nullptr) << "the others are there all the same";
  EXPECT_EQ(leftOvers(path()), 0);
}

TEST_F(StreamBufferSegments, CantBeCreatedWithoutTheirFolder) {
  const fs::path folder = fs::path(path()).parent_path();
  std::ofstream(folder.string()) << "a file";
  EXPECT_FALSE(own());
  EXPECT_TRUE(logged("3 can't create folder " + folder.string() + ": Not a directory"));
  EXPECT_EQ(sbVideo(), nullptr);
}

TEST_F(StreamBufferSegments, CantBeCreatedWithoutTheirSpaceAndLeaveNothing) {
  Child owner([this] {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {30000, 30000};
    setrlimit(RLIMIT_FSIZE, &limit);
    if (own()) return 1;
    return logged("3 can't create buffer " + path() + ": File too large") ? 0 : 2;
  });
  EXPECT_EQ(owner.wait(), 0);
  EXPECT_FALSE(fs::exists(path()));
  EXPECT_EQ(leftOvers(path()), 0);
}

TEST_F(StreamBufferSegments, AreThereAlthoughOneOfTheirCallsHasFailedOnce) {
  failingLinks = 1;
  EXPECT_TRUE(own());
  EXPECT_EQ(failingLinks, 0);
  EXPECT_EQ(leftOvers(path()), 0);
  EXPECT_TRUE(loggedLines().empty());
}

TEST_F(StreamBufferSegments, ThatCouldNotBeMadeAreMadeWhenTheyAreNeeded) {
  failingLinks = 9;  // three tries for each of them
  EXPECT_FALSE(own());
  EXPECT_EQ(failingLinks, 0);
  EXPECT_NE(sbVideo(), nullptr);
  EXPECT_NE(sbAudio(), nullptr);
}

TEST_F(StreamBufferSegments, OfACreatorKilledAtAnyPointHarmNobody) {
  for (const sb::Point point : {sb::Point::kSegmentCreated, sb::Point::kSegmentFilled,
                                sb::Point::kSegmentRetired, sb::Point::kSegmentReplaced}) {
    SCOPED_TRACE(static_cast<int>(point));
    fs::remove_all(fs::path(path()).parent_path());
    sb::forgetStreams();
    Child fresh([point] {
      signalAt(point, SIGKILL);
      own();
      return 1;
    });
    ASSERT_EQ(fresh.wait(), -SIGKILL);
    ASSERT_TRUE(own());
    EXPECT_EQ(leftOvers(path()), 0);
    ASSERT_TRUE(writeFrame(sbVideo(), 1));
    SB_HANDLE* before = sbVideo();

    Child replacing([point] {
      signalAt(point, SIGKILL);
      own(kOther);
      return 1;
    });
    ASSERT_EQ(replacing.wait(), -SIGKILL);
    ASSERT_TRUE(writeFrame(before, 2)) << "users of the old segment go on";
    ASSERT_TRUE(own(kOther));
    EXPECT_EQ(leftOvers(path()), 0);
    EXPECT_NE(sbVideo(), before);
    EXPECT_EQ(sbGetFrameSize(sbVideo()), 12288);
    EXPECT_TRUE(writeFrame(sbVideo(), 1));
  }
}

TEST_F(StreamBufferSegments, OfManyCreatorsAtOnceAreOne) {
  for (int round = 0; round < 10; ++round) {
    fs::remove_all(fs::path(path()).parent_path());
    SharedWords shared;
    std::vector<std::unique_ptr<Child>> creators;
    for (int i = 0; i < 6; ++i) {
      creators.push_back(std::make_unique<Child>([i, &shared] {
        ++shared[10];
        while (shared[10] < 6) usleep(100);
        if (!own()) return 1;
        shared[i] = sbVideo()->segment.epoch;
        return 0;
      }));
    }
    for (auto& creator : creators) ASSERT_EQ(creator->wait(), 0);
    for (int i = 1; i < 6; ++i) EXPECT_EQ(shared[i], shared[0]);
    EXPECT_EQ(leftOvers(path()), 0);
  }
}

TEST_F(StreamBufferSegments, HaveAPlaceForEachOf64ProcessesAndItsSuccessor) {
  ASSERT_TRUE(own());
  ASSERT_NE(sbVideo(), nullptr);
  SharedWords shared;
  std::vector<std::unique_ptr<Child>> users;
  for (int i = 1; i < 64; ++i) {
    users.push_back(std::make_unique<Child>([&shared] {
      sbSetUserdata(sbVideo(), 1, 5);
      ++shared[0];
      for (;;) pause();
      return 0;
    }));
  }
  ASSERT_TRUE(eventually([&] { return shared[0] == 63; }));
  Child late([this, &shared] {
    if (sbVideo() != nullptr) return 1;
    if (sbVideo() != nullptr) return 2;
    if (loggedLines().size() != 1 || !logged("2 buffer " + path() + ": all places are taken")) {
      return 3;
    }
    shared[1] = 1;
    return eventually([] { return sbVideo() != nullptr; }) ? 0 : 4;
  });
  ASSERT_TRUE(eventually([&] { return shared[1] == 1; }));
  users[20].reset();
  EXPECT_EQ(late.wait(), 0);
}

TEST_F(StreamBufferSegments, HaveTheSizesThatTheConfigurationAsksFor) {
  static const char* readKey = nullptr;
  static int readValue = 0;
  sb::readIni = [](const char* file, const char* section, const char* key, int fallback) {
    EXPECT_NE(std::string(file).find("/etc/camera.conf"), std::string::npos);
    EXPECT_STREQ(section, "Buffers");
    return std::string(key) == readKey ? readValue : fallback;
  };
  const auto set = [](const char* key, int value) {
    readKey = key;
    readValue = value;
    return sb::configuredSizes();
  };
  EXPECT_EQ(set("", 0).video.frames, 16U);
  EXPECT_EQ(set("", 0).video.frameSize, 262144U);
  EXPECT_EQ(set("", 0).video2.frames, 12U);
  EXPECT_EQ(set("", 0).video2.frameSize, 262144U);
  EXPECT_EQ(set("", 0).audio.frames, 64U);
  EXPECT_EQ(set("", 0).audio.frameSize, 1024U);
  EXPECT_EQ(set("VideoFrames", 2).video.frames, 2U);
  EXPECT_EQ(set("VideoFrameSize", 4194304).video.frameSize, 4194304U);
  EXPECT_EQ(set("Video2Frames", 64).video2.frames, 64U);
  EXPECT_EQ(set("Video2FrameSize", 1024).video2.frameSize, 1024U);
  EXPECT_EQ(set("AudioFrames", 3).audio.frames, 3U);
  EXPECT_EQ(set("AudioFrameSize", 5000).audio.frameSize, 5000U);
  EXPECT_TRUE(loggedLines().empty());
  for (const int wrong : {1, 65, 0, -1, INT32_MAX, INT32_MIN}) {
    EXPECT_EQ(set("Video2Frames", wrong).video2.frames, 12U);
    EXPECT_NE(
        loggedLines().back().find("/etc/camera.conf: [Buffers] Video2Frames is out of range: " +
                                  std::to_string(wrong)),
        std::string::npos);
  }
  for (const int wrong : {1023, 4194305, 0, -1}) {
    EXPECT_EQ(set("VideoFrameSize", wrong).video.frameSize, 262144U);
  }
  EXPECT_EQ(loggedLines().size(), 10U);
  sb::readIni = nullptr;
}

}  // namespace
