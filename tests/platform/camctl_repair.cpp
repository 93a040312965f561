// camctl repair, on recordings of all kinds.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "tests/avi_check/avi_report.h"
#include "tests/platform/recording_fixture.h"
#include "tests/platform/support.h"

namespace {

class CamctlRepair : public testing::Test {
 protected:
  CamctlRepair() : folder_("/dev/shm/vs_repair." + std::to_string(getpid())) {
    std::filesystem::create_directories(folder_ + "/20240101/deep");
    std::filesystem::create_directories(folder_ + "/20240102");
  }
  ~CamctlRepair() override { std::filesystem::remove_all(folder_); }

  std::string path(const std::string& name) const { return folder_ + '/' + name; }

  // Returns what the command prints in the folder, and its exit status.
  std::string repair(const std::string& what) {
    return outputOf("{ cd " + folder_ + " && " VS_CAMCTL " repair " + what +
                    "; printf 'status %s' $?; }");
  }

  void record(const std::string& name) {
    StandingClock clock;
    Recording recording(mpeg4Film(), path(name), 100000);
    ASSERT_TRUE(recording.add(&clock, 30) && recording.close());
  }
  // Records and cuts in the middle of the last picture but one.
  void recordAndCut(const std::string& name) {
    record(name);
    const AviPicture last = checkAvi(path(name), false).pictures.at(28);
    std::filesystem::resize_file(path(name), last.at + 20);
  }
  std::size_t picturesOfClosed(const std::string& name) {
    const AviReport report = checkAvi(path(name), false);
    EXPECT_TRUE(report.good()) << report.text();
    return report.pictures.size();
  }

 private:
  std::string folder_;
};

TEST_F(CamctlRepair, MakesAFileWholeOnce) {
  recordAndCut("a.avi");
  EXPECT_EQ(repair("a.avi"),
            "a.avi: repaired, 28 pictures, 20 bytes of an incomplete one taken off\nstatus 0");
  EXPECT_EQ(picturesOfClosed("a.avi"), 28U);
  const std::string content = readFile(path("a.avi"));
  EXPECT_EQ(repair("a.avi"), "a.avi: whole, 28 pictures\nstatus 0");
  EXPECT_EQ(readFile(path("a.avi")), content);
}

TEST_F(CamctlRepair, TakesAllRecordingsOfAFolderInTheirOrder) {
  recordAndCut("20240102/000000.avi");
  record("20240101/235959.avi");
  recordAndCut("20240101/deep/120000.avi");
  recordAndCut("other.raw");
  EXPECT_EQ(
      repair("."),
      "./20240101/235959.avi: whole, 30 pictures\n"
      "./20240101/deep/120000.avi: repaired, 28 pictures, 20 bytes of an incomplete one taken "
      "off\n"
      "./20240102/000000.avi: repaired, 28 pictures, 20 bytes of an incomplete one taken off\n"
      "status 0");
  EXPECT_FALSE(checkAvi(path("other.raw"), false).good());
}

TEST_F(CamctlRepair, LeavesAloneWhatIsBeingWritten) {
  StandingClock clock;
  Recording recording(mpeg4Film(), path("now.avi"), 100000);
  ASSERT_TRUE(recording.add(&clock, 30));
  const std::string content = readFile(path("now.avi"));
  EXPECT_EQ(repair("now.avi"), "now.avi: is being written, left alone\nstatus 0");
  EXPECT_EQ(readFile(path("now.avi")), content);
  ASSERT_TRUE(recording.add(&clock, 10) && recording.close());
  EXPECT_EQ(repair("now.avi"), "now.avi: whole, 40 pictures\nstatus 0");
}

TEST_F(CamctlRepair, FollowsNoLinks) {
  recordAndCut("20240101/a.avi");
  std::filesystem::create_symlink("../20240101/a.avi", path("20240102/b.avi"));
  std::filesystem::create_directory_symlink("../20240101", path("20240102/more"));
  EXPECT_EQ(repair("20240102"), "status 0");
  EXPECT_NE(repair("20240102/b.avi").find("status 1"), std::string::npos);
  EXPECT_FALSE(checkAvi(path("20240101/a.avi"), false).good());
}

TEST_F(CamctlRepair, GoesOnAfterAFileThatIsNone) {
  writeFile(path("20240101/a.avi"), "RIFF");
  writeFile(path("20240101/b.avi"), std::string(100000, 'x'));
  recordAndCut("20240101/c.avi");
  EXPECT_EQ(repair("20240101"),
            "camctl: 20240101/a.avi: too short for a recording\n"
            "camctl: 20240101/b.avi: no recording of this camera\n"
            "20240101/c.avi: repaired, 28 pictures, 20 bytes of an incomplete one taken off\n"
            "status 1");
  EXPECT_EQ(readFile(path("20240101/a.avi")), "RIFF");
}

// A camera that is killed when it has just begun a recording leaves a file without a byte.
TEST_F(CamctlRepair, TakesAFileWithoutAByteForNoFailure) {
  writeFile(path("20240101/a.avi"), "");
  record("20240101/b.avi");
  EXPECT_EQ(repair("20240101"),
            "20240101/a.avi: is empty, left alone\n"
            "20240101/b.avi: whole, 30 pictures\n"
            "status 0");
  EXPECT_EQ(readFile(path("20240101/a.avi")), "");
}

TEST_F(CamctlRepair, NeedsAPathThatExists) {
  EXPECT_EQ(repair("nothing.avi"),
            "camctl: nothing.avi: can't be opened: No such file or directory\nstatus 1");
  EXPECT_NE(repair("").find("status 2"), std::string::npos);
  EXPECT_EQ(repair("/dev/null"), "camctl: /dev/null: no file\nstatus 1");
}

TEST_F(CamctlRepair, PrintsNamesWithoutWhatTerminalsObey) {
  writeFile(path("x\ny\033.avi"), "RIFF");
  EXPECT_EQ(repair("."), "camctl: ./x?y?.avi: too short for a recording\nstatus 1");
}

}  // namespace
