// The event log's lines, its file and its limits.
#include "platform/event_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <vector>

#include "platform/linux/event_text.h"
#include "tests/platform/support.h"

namespace {
int failingLooks = 0;  // at a file that is open, from now on
}  // namespace

extern "C" {
int __real_fstat64(int fd, void* status);
int __wrap_fstat64(int fd, void* status);

int __wrap_fstat64(int fd, void* status) {
  if (failingLooks == 0) return __real_fstat64(fd, status);
  --failingLooks;
  errno = EIO;
  return -1;
}
}

namespace {

using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr char kFile[] = "/var/log/camera/events.log";
constexpr std::size_t kMebibyte = 1 << 20;

class EventLog : public ::testing::Test {
 protected:
  std::string file() const { return readFile(root.path(kFile)); }
  void makeFolder() { std::filesystem::create_directories(root.path("/var/log/camera")); }

  TempRoot root;
  LogReader log{root};
};

mode_t modeOf(const std::string& path) {
  struct stat found {};
  return stat(path.c_str(), &found) == 0 ? found.st_mode & 07777 : 0;
}

TEST_F(EventLog, APipeInItsPlaceHoldsNobody) {
  makeFolder();
  ASSERT_EQ(mkfifo(root.path(kFile).c_str(), 0600), 0);
  log_event(501);
  EXPECT_TRUE(log.waitFor("2 can't write the event log: No such device or address"));
}

TEST_F(EventLog, LinesTellUtcTimeNumberAndText) {
  setenv("TZ", "XXX-5", 1);
  tzset();
  const time_t before = time(nullptr);
  log_event(501);
  const time_t after = time(nullptr);
  unsetenv("TZ");
  tzset();
  tm utc{};
  const std::string line = file();
  ASSERT_THAT(line, ContainsRegex("^....-..-..T..:..:..Z 501 digital input active\n$"));
  ASSERT_NE(strptime(line.c_str(), "%Y-%m-%dT%H:%M:%SZ", &utc), nullptr);
  EXPECT_GE(timegm(&utc), before);
  EXPECT_LE(timegm(&utc), after);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(EventLog, LinesAreAppended) {
  log_event(502);
  log_event(523);
  log_event(77);
  std::vector<std::string> ends;
  std::ifstream lines(root.path(kFile));
  for (std::string line; std::getline(lines, line);) ends.push_back(line.substr(21));
  EXPECT_THAT(ends, ElementsAre("502 interval event started", "523 " + std::string(eventText(523)),
                                "77 unknown event"));
}

TEST_F(EventLog, FileAndFolderAreForOwnerAndGroup) {
  const mode_t before = umask(0);
  log_event(501);
  umask(before);
  EXPECT_EQ(modeOf(root.path(kFile)), 0640U);
  EXPECT_EQ(modeOf(root.path("/var/log/camera")), 0750U);
}

TEST_F(EventLog, IsRotatedBeforeItGrowsPastOneMebibyte) {
  makeFolder();
  const std::string old(kMebibyte - 10, 'o');
  writeFile(root.path(kFile), old);
  writeFile(root.path("/var/log/camera/events.log.1"), "older");
  log_event(502);
  EXPECT_EQ(readFile(root.path("/var/log/camera/events.log.1")), old);
  EXPECT_THAT(file(), EndsWith("502 interval event started\n"));
  EXPECT_LT(file().size(), 100U);
}

TEST_F(EventLog, FillsTheMebibyteToItsLastByte) {
  log_event(502);
  const std::size_t line = file().size();
  writeFile(root.path(kFile), std::string(kMebibyte - line, 'o'));
  log_event(502);
  EXPECT_EQ(file().size(), kMebibyte);
  EXPECT_FALSE(std::filesystem::exists(root.path("/var/log/camera/events.log.1")));
  log_event(502);
  EXPECT_EQ(file().size(), line);
}

TEST_F(EventLog, NumbersWithTwoMeaningsTellBoth) {
  for (const auto& [id, output, share] :
       {std::make_tuple(523, "output switched on", "could not be opened"),
        std::make_tuple(524, "output switched on", "could not be written"),
        std::make_tuple(525, "output switched on", "could not be closed"),
        std::make_tuple(526, "output not switched", "full")}) {
    EXPECT_THAT(eventText(id), HasSubstr(output));
    EXPECT_THAT(eventText(id), HasSubstr("network share"));
    EXPECT_THAT(eventText(id), HasSubstr(share));
  }
}

TEST_F(EventLog, TextsAreThoseOfTheirPage) {
  std::ifstream page(VS_SOURCE_DIR "/docs/event-log.md");
  std::set<std::string> rows;
  for (std::string line; std::getline(page, line);)
    if (line.rfind("| 5", 0) == 0 || line.rfind("| 6", 0) == 0) rows.insert(line);
  EXPECT_THAT(rows, SizeIs(kEventTextCount));
  int last = 0;
  for (std::size_t i = 0; i < kEventTextCount; ++i) {
    const EventText& event = kEventTexts[i];
    EXPECT_GT(event.id, last);
    last = event.id;
    const std::string row = "| " + std::to_string(event.id) + " | " + event.text + " |";
    bool found = false;
    for (const std::string& line : rows) found = found || line.rfind(row, 0) == 0;
    EXPECT_TRUE(found) << row;
  }
}

TEST_F(EventLog, FullDiskIsToldOnce) {
  makeFolder();
  std::filesystem::create_symlink("/dev/full", root.path(kFile));
  for (int i = 0; i < 5; ++i) log_event(517);
  EXPECT_THAT(log.lines(), ElementsAre("2 can't write the event log: No space left on device"));
}

TEST_F(EventLog, HalfALineIsTakenBack) {
  makeFolder();
  const std::string old(1000, 'o');
  for (const int looks : {0, 1}) {
    writeFile(root.path(kFile), old);
    Child child([looks] {
      signal(SIGXFSZ, SIG_IGN);
      const rlimit limit{1010, 1010};
      if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 77;
      failingLooks = looks;
      log_event(517);
      return 0;
    });
    ASSERT_EQ(child.wait(), 0);
    EXPECT_EQ(file(), old) << "and nothing else, though " << looks << " looks at the file fail";
    EXPECT_THAT(child.output(), HasSubstr("can't write the event log: "));
  }
}

TEST_F(EventLog, MissingFolderThatCannotBeMadeIsToldAndNothingElseFails) {
  writeFile(root.path("/var"), "in the way");
  log_event(501);
  EXPECT_THAT(log.lines(), ElementsAre("2 can't write the event log: Not a directory"));
}

TEST_F(EventLog, LinesOfManyThreadsStayWhole) {
  atOnce(4, 50, [](int, int) { log_event(519); });
  std::ifstream lines(root.path(kFile));
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count)
    EXPECT_THAT(line, EndsWith("Z 519 digital input: buzzer sounded"));
  EXPECT_EQ(count, 200);
}

}  // namespace
