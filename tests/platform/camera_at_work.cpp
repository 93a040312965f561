// Frames and housekeeping on the platform as it is: a camera that runs for months must not ask for
// memory again and again.
#include <gtest/gtest.h>

#include <filesystem>

#include "capture/video_args.h"
#include "capture/video_source.h"
#include "core/status_slots.h"
#include "core/trigger_state.h"
#include "platform/date_time.h"
#include "platform/ini_file.h"
#include "platform/linux/stream_buffer_owner.h"
#include "platform/os.h"
#include "platform/storage.h"
#include "platform/stream_buffer.h"
#include "platform/timer.h"
#include "tests/platform/allocations.h"
#include "tests/platform/support.h"

namespace {

class CameraAtWork : public testing::Test {
 protected:
  CameraAtWork() {
    for (const char* folder : {"/etc", "/dev/shm", "/run/camera/io"})
      std::filesystem::create_directories(root_.path(folder));
    for (const char* name : {"input", "output1", "output2", "privacy"})
      writeFile(root_.path("/run/camera/io/") + name, "0\n");
    writeFile(root_.path("/etc/camera.conf"), "[IO]\nInput = /run/camera/io/input\n");
    writeFile(root_.path("/etc/sys.conf"), "[Samba]\nEnable = 1\n");
    writeFile(root_.path("/test.jpg"), std::string(10000, 'x'));
    sbOwnSegments();
  }

  static int frames() { return sbGetUserdata(sbVideo(), kSlotFrameCount); }

  // What the main thread does in a pass, and now and then, but for its commands.
  void pass() {
    now_.set();
    hours_ += now_[kFieldHour];
    due_ += timer_.timeout() ? 1 : 0;
    getTriggerState();
    sbTestUserdata(sbVideo(), kSlotConfigChanged);
    sbSetUserdata(sbVideo(), kSlotTimestamp, 1);
    if (getIniInt("/etc/sys.conf", "Samba", "Enable", 0) != 0) get_smb_mount_state(&mounted_);
  }

  TempRoot root_;
  TDateTime now_;
  TTimer timer_{1};
  int hours_ = 0;
  int due_ = 0;
  int mounted_ = -1;
};

TEST_F(CameraAtWork, AllocatesNothingPerFrameAndPass) {
  const std::string picture = root_.path("/test.jpg");
  TVideoArgs args(0, nullptr);
  args.source = picture.c_str();
  args.frameRate = 15;
  TVideoSource source(args);
  source.run();
  // Settled: files are read, the log is open, threads have their stacks.
  ASSERT_TRUE(eventually([this] {
    pass();
    return frames() > 20;
  }));
  const int framesBefore = frames();
  const unsigned before = allocationCount();
  std::int32_t number = 0;
  std::int32_t epoch = 0;
  int read = 0;
  for (int passes = 0; passes < 1000 || (frames() < framesBefore + 50 && passes < 50000);
       ++passes) {
    pass();
    TAutoFrame frame(sbVideo(), 1000, &number, &epoch, 2);
    if (frame) ++read;
  }
  EXPECT_EQ(allocationCount() - before, 0U);
  EXPECT_GT(before, 0U);
  EXPECT_GT(read, 10);
  EXPECT_EQ(mounted_, 0);
  EXPECT_TRUE(TStopDeadline().end(source));
}

}  // namespace
