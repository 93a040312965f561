// The system log: where lines go, what they look like, and how repeats are folded.
#include "platform/log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <thread>
#include <vector>

#include "platform/linux/process_name.h"
#include "platform/os.h"
#include "tests/platform/allocations.h"
#include "tests/platform/support.h"
#include "tests/platform/thread_body.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class Log : public ::testing::Test {
 protected:
  TempRoot root;
  LogReader log{root};
};

TEST_F(Log, LevelsBecomeTheSystemsPriorities) {
  EXPECT_EQ(logEx(3, "bad %s", "thing"), -1);
  EXPECT_EQ(logEx(2, "odd"), -1);
  EXPECT_EQ(logEx(1, "so"), -1);
  const std::string from = std::string(processName()) + "[" + std::to_string(getpid()) + "]: ";
  EXPECT_THAT(log.raw(), ElementsAre("<27>" + from + "bad thing", "<28>" + from + "odd",
                                     "<29>" + from + "so"));
}

TEST_F(Log, LevelsOutOfRangeAreTheNearestOnes) {
  logEx(99, "above");
  logEx(-99, "below");
  EXPECT_THAT(log.lines(), ElementsAre("3 above", "1 below"));
}

TEST_F(Log, RepeatsAreFolded) {
  for (int i = 0; i < 100; ++i) logEx(3, "the same %d", 7);
  EXPECT_THAT(log.lines(), ElementsAre("3 the same 7"));
  logEx(3, "another");
  EXPECT_THAT(log.lines(), ElementsAre("3 repeated 99 times", "3 another"));
}

TEST_F(Log, ReleaseWritesOutWhatIsFolded) {
  for (int i = 0; i < 3; ++i) logEx(2, "again");
  free_log();
  EXPECT_THAT(log.lines(), ElementsAre("2 again", "2 repeated 2 times"));
  free_log();
  EXPECT_THAT(log.lines(), IsEmpty());
  logEx(2, "again");
  EXPECT_THAT(log.lines(), ElementsAre("2 again")) << "a later line opens the log anew";
}

TEST_F(Log, EndlessRepeatsAreReportedOnceASecond) {
  int written = 0;
  const std::uint32_t start = monotonicMs();
  while (monotonicMs() - start < 2500) {
    logEx(3, "retry");
    ++written;
    os::usleep(5000);
  }
  const auto lines = log.lines();
  ASSERT_THAT(lines, SizeIs(3));
  EXPECT_EQ(lines[0], "3 retry");
  int reported = 1;
  for (std::size_t i = 1; i < 3; ++i) {
    int times = 0;
    EXPECT_EQ(std::sscanf(lines[i].c_str(), "3 repeated %d times", &times), 1) << lines[i];
    reported += times;
  }
  free_log();
  int rest = 0;
  EXPECT_EQ(std::sscanf(log.lines().at(0).c_str(), "3 repeated %d times", &rest), 1);
  EXPECT_EQ(reported + rest, written);
}

// The repeats of each line that comes without end are reported, and none more often than others.
TEST_F(Log, EndlessLinesThatTakeTurnsShareOneReportASecond) {
  const std::uint32_t start = monotonicMs();
  while (monotonicMs() - start < 4500) {
    for (const char* text : {"one", "two", "three"}) logEx(3, "%s", text);
    os::usleep(5000);
  }
  const auto lines = log.lines();
  ASSERT_THAT(lines, SizeIs(testing::AllOf(testing::Ge(3U + 3U), testing::Le(3U + 4U))));
  EXPECT_THAT(lines[3], testing::MatchesRegex("3 repeated [0-9]+ times: one"));
  EXPECT_THAT(lines[4], testing::MatchesRegex("3 repeated [0-9]+ times: two"));
  EXPECT_THAT(lines[5], testing::MatchesRegex("3 repeated [0-9]+ times: three"));
}

TEST_F(Log, LineAfterAPauseIsWrittenAgain) {
  logEx(3, "now and then");
  os::usleep(1050000);
  logEx(3, "now and then");
  EXPECT_THAT(log.lines(), ElementsAre("3 now and then", "3 now and then"));
}

TEST_F(Log, LinesThatTakeTurnsAreFoldedEachByItself) {
  for (int i = 0; i < 3; ++i) {
    logEx(3, "one");
    logEx(2, "two");
  }
  EXPECT_THAT(log.lines(), ElementsAre("3 one", "2 two"));
  free_log();
  EXPECT_THAT(log.lines(), ElementsAre("3 repeated 2 times: one", "2 repeated 2 times: two"));
}

TEST_F(Log, NewLineComesAfterTheRepeatsBeforeIt) {
  for (int i = 0; i < 2; ++i) {
    logEx(3, "one");
    logEx(3, "two");
  }
  logEx(3, "three");
  EXPECT_THAT(log.lines(), ElementsAre("3 one", "3 two", "3 repeated 1 times: one",
                                       "3 repeated 1 times: two", "3 three"));
}

// Of more lines than are remembered none is taken for a repeat, and none is lost.
TEST_F(Log, NineLinesThatTakeTurnsAreAllWritten) {
  for (int i = 0; i < 9; ++i) logEx(3, "line %d", i);
  EXPECT_THAT(log.lines(), SizeIs(9));
  for (int i = 0; i < 9; ++i) logEx(3, "line %d", i);
  EXPECT_THAT(log.lines(), SizeIs(9));
}

TEST_F(Log, TheSameTextAtAnotherLevelIsNoRepeat) {
  logEx(3, "text");
  logEx(2, "text");
  EXPECT_THAT(log.lines(), ElementsAre("3 text", "2 text"));
}

TEST_F(Log, LinesEndAtAThousandCharacters) {
  const std::string exact(1000, 'a');
  logEx(3, "%s", exact.c_str());
  logEx(3, "%s", (exact + "b").c_str());
  EXPECT_THAT(log.lines(), ElementsAre("3 " + exact)) << "the cut line is a repeat";
  logEx(3, "%s", std::string(100000, 'c').c_str());
  EXPECT_EQ(log.lines().back(), "3 " + std::string(1000, 'c'));
}

TEST_F(Log, CutDoesNotSplitACharacter) {
  logEx(3, "%s\xC3\xA4rest", std::string(999, 'a').c_str());
  EXPECT_THAT(log.lines(), ElementsAre("3 " + std::string(999, 'a')));
}

TEST_F(Log, ControlCharactersCannotForgeLines) {
  logEx(3, "can't open %s", "a\nb\x1b[2J\x7f");
  logEx(3, "ends here\n");
  EXPECT_THAT(log.lines(), ElementsAre("3 can't open a?b?[2J?", "3 ends here"));
}

TEST_F(Log, NeverWaitsForALoggerThatDoesNotKeepUp) {
  const std::uint32_t took = msOf([] {
    for (int i = 0; i < 5000; ++i) logEx(3, "line %d", i);
  });
  EXPECT_LT(took, 10000U);
  EXPECT_EQ(log.lines().front(), "3 line 0");
}

TEST(LogWithout, LoggerGoesOnAndFindsItWhenItComes) {
  const TempRoot root;
  EXPECT_EQ(logEx(3, "nobody there"), -1);
  std::filesystem::create_directories(root.path("/dev"));
  LogReader log(root);
  logEx(3, "somebody there");
  EXPECT_THAT(log.lines(), ElementsAre("3 somebody there"));
}

TEST(LogWithout, LoggerLeavesTheErrorNumberAlone) {
  const TempRoot root;
  errno = ENOSPC;
  logEx(3, "disk full");
  EXPECT_EQ(errno, ENOSPC);
}

TEST(LogWithout, LoggerThatIsReplacedIsFoundAgain) {
  const TempRoot root;
  {
    LogReader first(root);
    logEx(3, "before");
    EXPECT_THAT(first.lines(), ElementsAre("3 before"));
  }
  std::filesystem::remove(root.path("/dev/log"));
  logEx(3, "in between");
  LogReader second(root, LogReader::kLogStaysOpen);
  logEx(3, "after");
  EXPECT_THAT(second.lines(), ElementsAre("3 after"));
}

TEST(LogWithout, AShortPathReachesTheLoggerAllTheSame) {
  const TempRoot root(std::string(120, 'x'));
  LogReader log(root);
  logEx(3, "deep down");
  EXPECT_THAT(log.lines(), ElementsAre("3 deep down"));
}

TEST_F(Log, LinesOfManyThreadsStayWhole) {
  std::atomic<bool> done{false};
  std::vector<std::string> lines;
  std::thread reader([&] {
    while (!done) {
      for (auto& line : log.lines()) lines.push_back(line);
    }
  });
  const std::string filling(200, '.');
  atOnce(4, 300, [&](int caller, int n) { logEx(1, "%d/%d%s.", caller, n, filling.c_str()); });
  done = true;
  reader.join();
  for (auto& line : log.lines()) lines.push_back(line);
  EXPECT_FALSE(lines.empty());
  for (const std::string& line : lines) {
    int writer = -1;
    int number = -1;
    int end = 0;
    ASSERT_EQ(std::sscanf(line.c_str(), "1 %d/%d%n", &writer, &number, &end), 2) << line;
    ASSERT_EQ(line.substr(static_cast<std::size_t>(end)), filling + ".");
  }
}

TEST_F(Log, AllocatesNothing) {
  logEx(3, "first");  // the log opens
  const unsigned before = allocationCount();
  for (int i = 0; i < 100; ++i) {
    logEx(3, "line %d of %s: %5.1f", i, "a loop", 0.5);
    logEx(2, "the same");
    logEx(2, "the same");
  }
  EXPECT_EQ(allocationCount(), before);
  free(strdup("x"));
  EXPECT_GT(allocationCount(), before) << "the count works";
}

TEST(LogToStderr, WhenTheEnvironmentAsksForIt) {
  Child child([] {
    logEx(3, "bad");
    logEx(2, "odd");
    logEx(1, "so");
    return 0;
  });
  EXPECT_EQ(child.wait(), 0);
  const std::string name = processName();
  EXPECT_EQ(child.output(),
            name + ": error: bad\n" + name + ": warning: odd\n" + name + ": notice: so\n");
}

TEST(LogToStderr, NotIntoAPipeUnasked) {
  for (const char* wish : {"", "syslog"}) {
    Child child([wish] {
      if (*wish == '\0') unsetenv("VS_LOG");
      if (*wish != '\0') setenv("VS_LOG", wish, 1);
      logEx(3, "bad");
      return 0;
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(child.output(), "");
  }
}

// A terminal, and a child that has its other side for standard error.
class Terminal {
 public:
  Terminal() : fd(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    if (fd >= 0 && grantpt(fd) == 0 && unlockpt(fd) == 0) name_ = ptsname(fd);
  }
  ~Terminal() { close(fd); }
  bool usable() const { return !name_.empty(); }
  // For the child: standard error leads here, and nothing but that asks for lines there.
  void become() const {
    unsetenv("VS_LOG");
    dup2(open(name_.c_str(), O_RDWR | O_NOCTTY), STDERR_FILENO);
    free_log();
  }

  const int fd;

 private:
  std::string name_;
};

TEST(LogToStderr, WhenItIsATerminal) {
  const Terminal terminal;
  if (!terminal.usable()) GTEST_SKIP() << "no terminals here";
  Child child([&terminal] {
    terminal.become();
    logEx(3, "seen");
    return 0;
  });
  char text[200] = "";
  const ssize_t length = read(terminal.fd, text, sizeof text - 1);
  EXPECT_EQ(child.wait(), 0);
  ASSERT_GT(length, 0);
  EXPECT_THAT(text, HasSubstr("error: seen"));
}

TEST(LogToStderr, NeverWaitsForATerminalThatNobodyReads) {
  const Terminal terminal;
  if (!terminal.usable()) GTEST_SKIP() << "no terminals here";
  Child child([&terminal] {
    terminal.become();
    const std::string filling(900, '.');
    for (int i = 0; i < 500; ++i) logEx(3, "%d%s", i, filling.c_str());
    return (fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK) == 0 ? 0 : 1;
  });
  EXPECT_EQ(child.wait(), 0) << "and the terminal itself still blocks for its other users";
}

TEST(LogToStderr, IsAppendedToAFile) {
  const TempRoot root;
  Child child([&root] {
    const int file = open(root.path("/log").c_str(), O_WRONLY | O_CREAT, 0600);
    dup2(file, STDERR_FILENO);
    if (write(STDERR_FILENO, "before\n", 7) != 7) return 1;
    logEx(3, "line");
    if (write(STDERR_FILENO, "after\n", 6) != 6) return 1;
    return 0;
  });
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(readFile(root.path("/log")),
            std::string("before\n") + processName() + ": error: line\nafter\n");
}

TEST(LogToStderr, NeverWaitsForAReader) {
  Child child([] {
    int ends[2];
    if (pipe(ends) != 0) return 2;
    dup2(ends[1], STDERR_FILENO);
    for (int i = 0; i < 5000; ++i) logEx(3, "line %d that nobody reads", i);
    return 0;
  });
  EXPECT_EQ(child.wait(), 0);
}

}  // namespace
