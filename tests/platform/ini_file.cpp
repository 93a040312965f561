// Settings files as they are found on cameras: good, bad, changing and huge.
#include "platform/ini_file.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <filesystem>
#include <limits>
#include <random>
#include <thread>

#include "tests/platform/support.h"

namespace {

// So many of the next calls fail for want of memory.
int failingOpens = 0;
int failingStats = 0;
int emptyReads = 0;  // so many of the next come to the end at once

bool fails(int* failures) {
  if (*failures == 0) return false;
  --*failures;
  errno = ENOMEM;
  return true;
}

}  // namespace

extern "C" {
int __real_open64(const char* path, int flags, unsigned mode);
int __wrap_open64(const char* path, int flags, unsigned mode);
int __real_stat64(const char* path, void* status);
int __wrap_stat64(const char* path, void* status);
ssize_t __real_read(int fd, void* buffer, std::size_t size);
ssize_t __wrap_read(int fd, void* buffer, std::size_t size);

int __wrap_open64(const char* path, int flags, unsigned mode) {
  return fails(&failingOpens) ? -1 : __real_open64(path, flags, mode);
}
int __wrap_stat64(const char* path, void* status) {
  return fails(&failingStats) ? -1 : __real_stat64(path, status);
}
ssize_t __wrap_read(int fd, void* buffer, std::size_t size) {
  return fails(&emptyReads) ? 0 : __real_read(fd, buffer, size);
}
}

namespace {

const char* const kFile = "/etc/events.conf";

class IniFile : public testing::Test {
 protected:
  IniFile() { std::filesystem::create_directories(root_.path("/etc")); }

  void write(const std::string& text, const char* file = kFile) {
    writeFile(root_.path(file), text);
  }
  static std::string text(const char* section, const char* key, const char* fallback = "none") {
    char buffer[128];
    const int length = getIniStr(kFile, section, key, buffer, sizeof buffer, fallback);
    EXPECT_EQ(static_cast<std::size_t>(length), std::string(buffer).size());
    return buffer;
  }

  TempRoot root_;
  LogReader log_{root_};
};

TEST_F(IniFile, ReadsSectionsAndKeysInAnyCase) {
  write("[Main]\nMax = 12\n\n[1]\nschedule=Office hours \nRATE: 2.5\n");
  EXPECT_EQ(getIniInt(kFile, "main", "MAX", 10), 12);
  EXPECT_EQ(text("1", "Schedule"), "Office hours");
  EXPECT_EQ(getInidouble(kFile, "1", "Rate", 1), 2.5);
  EXPECT_EQ(log_.lines(), std::vector<std::string>{});
}

TEST_F(IniFile, GivesTheDefaultsWhereFileSectionOrKeyIsMissing) {
  EXPECT_EQ(getIniInt(kFile, "Main", "Max", 10), 10);
  EXPECT_EQ(getIniInt("/etc", "Main", "Max", 11), 11);
  write("[Main]\n");
  EXPECT_EQ(getIniInt(kFile, "Main", "Max", 10), 10);
  write("");
  EXPECT_EQ(getIniInt(kFile, "Main", "Max", 10), 10);
  EXPECT_EQ(getInidouble(kFile, "Main", "Max", 0.5), 0.5);
  EXPECT_EQ(text("Main", "Name", "Never"), "Never");
  EXPECT_EQ(getIniSection(kFile, INT_MAX), 0);
  EXPECT_EQ(getIniKey(kFile, "1", "Start", 1), 0);
  EXPECT_EQ(log_.lines(), std::vector<std::string>{"2 can't read /etc"});
}

TEST_F(IniFile, TakesDecimalAndHexadecimalIntegersAndSaturatesThem) {
  write(
      "[1]\na=-7\nb=0x1F\nc=99999999999999999999999999\nd=-99999999999999999999999999\n"
      "e=+8\nf=010\ng=0xFFFFFFFFFFFFFFFFFFFF\nh=2147483648\ni=-0x10\n");
  const std::pair<const char*, int> expected[] = {{"a", -7},      {"b", 31},      {"c", INT_MAX},
                                                  {"d", INT_MIN}, {"e", 8},       {"f", 10},
                                                  {"g", INT_MAX}, {"h", INT_MAX}, {"i", -16}};
  for (const auto& [key, value] : expected) EXPECT_EQ(getIniInt(kFile, "1", key, 99), value) << key;
  EXPECT_EQ(log_.lines(), std::vector<std::string>{});
}

TEST_F(IniFile, AValueThatIsNoNumberGivesTheDefaultAndAMessage) {
  write("[1]\na=many\nb=\nc=1.5\nd=5 s\ne=0x\nf=--1\ng=0x-5\n");
  for (const std::string key : {"a", "b", "c", "d", "e", "f", "g"}) {
    EXPECT_EQ(getIniInt(kFile, "1", key.c_str(), 42), 42) << key;
    EXPECT_TRUE(log_.waitFor("2 /etc/events.conf: [1] " + key +
                             " is not a number: " + text("1", key.c_str())));
  }
}

TEST_F(IniFile, TakesFractionsAndRefusesWhatIsNone) {
  write("[1]\na=-0.25\nb=1e3\nc=1e999\nd=inf\ne=nan\nf=0x10\ng=.\nh=1,5\ni=7\n");
  EXPECT_EQ(getInidouble(kFile, "1", "a", 9), -0.25);
  EXPECT_EQ(getInidouble(kFile, "1", "b", 9), 1000);
  EXPECT_EQ(getInidouble(kFile, "1", "c", 9), std::numeric_limits<double>::max());
  EXPECT_EQ(getInidouble(kFile, "1", "i", 9), 7);
  EXPECT_EQ(log_.lines(), std::vector<std::string>{});
  for (const char* key : {"d", "e", "f", "g", "h"}) EXPECT_EQ(getInidouble(kFile, "1", key, 9), 9);
  EXPECT_TRUE(log_.waitFor("2 /etc/events.conf: [1] h is not a number: 1,5"));
}

TEST_F(IniFile, CutsTextsToTheBufferAndTerminatesThem) {
  write("[1]\nName=" + std::string(64, 'n') + "\nShort=" + std::string(63, 's') + "\n");
  char buffer[64];
  EXPECT_EQ(getIniStr(kFile, "1", "Name", buffer, sizeof buffer, ""), 63);
  EXPECT_EQ(buffer, std::string(63, 'n'));
  EXPECT_EQ(getIniStr(kFile, "1", "Short", buffer, sizeof buffer, ""), 63);
  EXPECT_EQ(buffer, std::string(63, 's'));
  EXPECT_EQ(getIniStr(kFile, "1", "None", buffer, 4, "Never"), 3);
  EXPECT_STREQ(buffer, "Nev");
  EXPECT_EQ(getIniStr(kFile, "1", "Name", buffer, 0, ""), 0);
  EXPECT_STREQ(buffer, "Nev");
}

TEST_F(IniFile, TheLastOfSeveralValuesCountsAndSectionsOfOneNameAreOne) {
  write("[1]\na=1\nb=1\n[2]\na=5\n[1]\na=2\n");
  EXPECT_EQ(getIniInt(kFile, "1", "a", 0), 2);
  EXPECT_EQ(getIniInt(kFile, "1", "b", 0), 1);
}

TEST_F(IniFile, CommentsBlanksAndLineEndsOfOtherSystemsDoNotMatter) {
  write("\xef\xbb\xbf# of 300 characters" + std::string(300, '.') +
        "\r\n; another\r\n [ Main ] \r\n\tMax = 7 ; seven\r\n   \r\nName = a\tb\r\n");
  EXPECT_EQ(getIniInt(kFile, "Main", "Max", 10), 7);
  EXPECT_EQ(text("Main", "Name"), "a\tb");
  EXPECT_EQ(log_.lines(), std::vector<std::string>{});
}

TEST_F(IniFile, AnIndentedLineIsASettingOfItsOwn) {
  write("[1]\nName = office\n  Erased = 0\n  Subject : x\n");
  EXPECT_EQ(text("1", "Name"), "office");
  EXPECT_EQ(getIniInt(kFile, "1", "Erased", 1), 0);
  EXPECT_EQ(text("1", "Subject"), "x");
}

TEST_F(IniFile, ALongLineIsIgnoredAsAWholeWithAMessage) {
  write("[1]\na=" + std::string(100000, '7') + "\nb=" + std::string(196, 'x') +
        "\nc=" + std::string(195, 'x') + "\nd=4");
  EXPECT_EQ(text("1", "a"), "none");
  EXPECT_EQ(text("1", "b"), "none");
  EXPECT_EQ(getIniSection(kFile, 9), 1);
  EXPECT_EQ(getIniInt(kFile, "1", "d", 0), 4);
  EXPECT_TRUE(log_.waitFor("2 /etc/events.conf: line 2 is ignored: too long"));
  char buffer[256];
  EXPECT_EQ(getIniStr(kFile, "1", "c", buffer, sizeof buffer, ""), 195);
}

TEST_F(IniFile, NothingUnderAnUnreadableHeaderReachesTheSectionBefore) {
  write("[1]\nErased=1\n[2\nErased=0\n[" + std::string(50, 's') +
        "]\nErased=0\n[\x01]\nErased=0\n[" + std::string(300, 's') + "]\nErased=0\n");
  EXPECT_EQ(getIniInt(kFile, "1", "Erased", 9), 1);
  EXPECT_EQ(getIniInt(kFile, "2", "Erased", 9), 9);
  EXPECT_TRUE(log_.waitFor("2 /etc/events.conf: line 3 is ignored: no section name"));
  write("[1]\nErased=1\n[" + std::string(49, 's') + "]\nErased=0\n");
  EXPECT_EQ(getIniInt(kFile, std::string(49, 's').c_str(), "Erased", 9), 0);
  EXPECT_EQ(getIniInt(kFile, "1", "Erased", 9), 1);
}

TEST_F(IniFile, AHalfWrittenLineIsToldAndTheRestIsRead) {
  write("[1]\nErased=0\nSchedule=always\nSour");
  EXPECT_EQ(text("1", "Schedule"), "always");
  EXPECT_EQ(getIniInt(kFile, "1", "Source", -1), -1);
  EXPECT_TRUE(log_.waitFor("2 /etc/events.conf: line 4 is ignored: neither section nor setting"));
}

TEST_F(IniFile, ABinaryFileGivesTheDefaultsAndOneMessage) {
  std::mt19937 random(1);
  for (int round = 0; round < 200; ++round) {
    std::string noise("[Main]\nMax=3\n\x02");
    for (int i = 0; i < 3000; ++i) noise += static_cast<char>(random());
    write(noise);
    EXPECT_EQ(getIniInt(kFile, "Main", "Max", 10), 3);
    text("1", "Name");
    getIniSection(kFile, INT_MAX);
    getIniKey(kFile, "1", "Start", 1);
  }
  write(std::string(5000, '\0'));
  EXPECT_EQ(getIniInt(kFile, "Main", "Max", 10), 10);
  EXPECT_TRUE(log_.waitFor("2 /etc/events.conf: line 1 is ignored: not text"));
}

TEST_F(IniFile, AnyCutOfAFileIsReadWithoutHarm) {
  const std::string whole =
      "[Main]\r\nMax=2 ; two\n[1]\nErased=0\n Name: x\n[2]\n#c\nErased=0x1\nStart1=08:00:00\n";
  for (std::size_t length = 0; length <= whole.size(); ++length) {
    write(whole.substr(0, length));
    const int max = getIniInt(kFile, "Main", "Max", 10);
    EXPECT_TRUE(max == 10 || max == 2) << length;
    EXPECT_TRUE(getIniInt(kFile, "1", "Erased", 1) == 0 || length < 40) << length;
    getIniKey(kFile, "2", "Start", 1);
  }
}

TEST_F(IniFile, SeesEveryChangeAtOnce) {
  for (int i = 0; i < 300; ++i) {
    write("[1]\na=" + std::to_string(100 + i) +
          "\n");  // the same inode and size, often the same time
    ASSERT_EQ(getIniInt(kFile, "1", "a", 0), 100 + i);
  }
  writeFile(root_.path("/etc/new"), "[1]\na=555\n");
  std::filesystem::rename(root_.path("/etc/new"), root_.path(kFile));
  EXPECT_EQ(getIniInt(kFile, "1", "a", 0), 555);
  std::filesystem::remove(root_.path(kFile));
  EXPECT_EQ(getIniInt(kFile, "1", "a", 0), 0);
  write("[1]\na=556\n");
  EXPECT_EQ(getIniInt(kFile, "1", "a", 0), 556);
}

TEST_F(IniFile, ParsesAFileOnceWhileItStaysTheSame) {
  write("[1]\nnonsense\na=1\n");
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // until its time stamp is over
  for (int i = 0; i < 10000; ++i) ASSERT_EQ(getIniInt(kFile, "1", "a", 0), 1);
  EXPECT_EQ(log_.lines().size(), 1u);  // each parsing would tell of the line again
}

// Want of descriptors, for as long as it lives.
class NoDescriptors {
 public:
  NoDescriptors() {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit none{0, before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
  }
  ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
  rlimit before_{};
};

TEST_F(IniFile, AFileThatCouldNotBeReadIsReadLaterThoughItHasNotChanged) {
  write("[1]\na=556\n");
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // until its time stamp is over
  {
    const NoDescriptors none;
    for (int i = 0; i < 10; ++i) EXPECT_EQ(getIniInt(kFile, "1", "a", 7), 7);
  }
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (getIniInt(kFile, "1", "a", 7) != 556 && std::chrono::steady_clock::now() < limit)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(getIniInt(kFile, "1", "a", 7), 556);
}

TEST_F(IniFile, AnErrorThatComesOnceIsNotSeen) {
  write("[1]\na=556\n");
  for (int* const failures : {&failingOpens, &failingStats, &emptyReads}) {
    write("[1]\na=556\n");  // to be read anew
    *failures = 2;
    EXPECT_EQ(getIniInt(kFile, "1", "a", 7), 556);
    EXPECT_EQ(*failures, 0);
  }
  EXPECT_EQ(log_.lines(), std::vector<std::string>{});
}

TEST_F(IniFile, MoreFilesThanAreKeptAreAllRead) {
  for (int round = 0; round < 3; ++round)
    for (int i = 0; i < 20; ++i) {
      const std::string file = "/etc/" + std::to_string(i) + ".conf";
      if (round == 0) write("[1]\na=" + std::to_string(i) + "\n", file.c_str());
      EXPECT_EQ(getIniInt(file.c_str(), "1", "a", -1), i);
    }
}

TEST_F(IniFile, APipeOrAHugeFileIsNotReadAndHoldsNobody) {
  ASSERT_EQ(mkfifo(root_.path(kFile).c_str(), 0600), 0);
  EXPECT_EQ(getIniInt(kFile, "1", "a", 3), 3);
  EXPECT_TRUE(log_.waitFor("2 can't read /etc/events.conf"));
  std::filesystem::remove(root_.path(kFile));
  write("[1]\na=1\n");
  EXPECT_EQ(getIniInt(kFile, "1", "a", 3), 1);
  std::filesystem::resize_file(root_.path(kFile), std::uintmax_t{1} << 34);
  EXPECT_EQ(getIniInt(kFile, "1", "a", 3), 3);
}

TEST_F(IniFile, FindsTheNumberedSectionsDownwards) {
  write(
      "[Main]\nMax=9\n[7]\na=1\n[2000000000]\na=1\n[007]\na=1\n[-3]\na=1\n[3]\na=1\n[4x]\na=1\n"
      "[99999999999]\na=1\n[5]\n");
  std::vector<int> found;
  for (int n = getIniSection(kFile, 2000000000); n > 0; n = getIniSection(kFile, n - 1))
    found.push_back(n);
  EXPECT_EQ(found, (std::vector<int>{2000000000, 7, 3}));
  EXPECT_EQ(getIniSection(kFile, 6), 3);
  EXPECT_EQ(getIniSection(kFile, 2), 0);
  EXPECT_EQ(getIniSection(kFile, -5), 0);
}

TEST_F(IniFile, FindsTheNumberedKeysUpwards) {
  write(
      "[1]\nstart2=a\nStart10=b\nStart01=c\nStart=d\nStop3=e\nStartle4=f\nStart-5=g\n"
      "START2000000000=h\nStart99999999999=i\n");
  std::vector<int> found;
  for (int n = getIniKey(kFile, "1", "Start", 1); n > 0; n = getIniKey(kFile, "1", "Start", n + 1))
    found.push_back(n);
  EXPECT_EQ(found, (std::vector<int>{2, 10, 2000000000}));
  EXPECT_EQ(getIniKey(kFile, "2", "Start", 1), 0);
}

TEST_F(IniFile, ManyThreadsReadWhileTheFileIsReplaced) {
  write("[1]\na=1000\nb=1000\n");
  std::atomic<bool> stop{false};
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i)
    readers.emplace_back([&] {
      while (!stop) {
        const int value = getIniInt(kFile, "1", "a", -1);
        EXPECT_TRUE(value >= 1000 && value < 1300) << value;
        getIniInt(("/etc/" + std::to_string(value % 12) + ".conf").c_str(), "1", "a", 0);
      }
    });
  for (int i = 0; i < 300; ++i) {
    writeFile(root_.path("/etc/new"), "[1]\na=" + std::to_string(1000 + i) + "\n");
    std::filesystem::rename(root_.path("/etc/new"), root_.path(kFile));
  }
  stop = true;
  for (auto& reader : readers) reader.join();
}

}  // namespace
