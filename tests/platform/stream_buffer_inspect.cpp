// What a tool sees of a stream buffer.
#include "platform/linux/stream_buffer_inspect.h"

#include <signal.h>
#include <unistd.h>

#include "platform/linux/stream_buffer_handle.h"
#include "tests/platform/stream_buffer_fixture.h"

namespace {

TEST_F(StreamBuffer, InspectionShowsFramesSlotsAndWhoHoldsWhat) {
  ASSERT_TRUE(own());
  ASSERT_TRUE(writeFrame(sbVideo(), 1, 0, 500));
  ASSERT_TRUE(writeFrame(sbVideo(), 2, 0, 600));
  sbSetUserdata(sbVideo(), 4, 30);
  sbSetUserdata(sbVideo(), 5, -7);
  EXPECT_EQ(sbTestUserdata(sbVideo(), 5), -7);
  SharedWords shared;
  Child reader([&shared] {
    Place place;
    const TAutoFrame frame(sbVideo(), 1000, &place.number, &place.epoch, 0);
    shared[0] = 1;
    while (shared[1] == 0) usleep(1000);
    return 0;
  });
  ASSERT_TRUE(eventually([&] { return shared[0] == 1; }));

  sb::Snapshot shot = sb::inspect(sbVideo());
  EXPECT_EQ(shot.path, path());
  EXPECT_EQ(shot.frameSize, 8192U);
  EXPECT_NE(shot.epoch, 0U);
  EXPECT_EQ(shot.latest, 2U);
  EXPECT_EQ(shot.writerPid, getpid());
  EXPECT_EQ(shot.frameBeingWritten, -1);
  EXPECT_EQ(shot.busyCount, 0U);
  EXPECT_FALSE(shot.retired);
  ASSERT_EQ(shot.leases.size(), 2U);
  EXPECT_EQ(shot.leases[0].pid, getpid());
  EXPECT_EQ(shot.leases[1].pid, reader.pid());
  ASSERT_EQ(shot.frames.size(), 4U);
  EXPECT_EQ(shot.frames[0].number, 1U);
  EXPECT_EQ(shot.frames[0].length, 500U);
  EXPECT_LT(shot.frames[0].ageMs, 60000U);
  EXPECT_EQ(shot.frames[1].length, 600U);
  EXPECT_EQ(shot.frames[2].number, 0U);
  ASSERT_EQ(shot.frames[0].holders.size(), 1U);
  EXPECT_EQ(shot.frames[0].holders[0].pid, reader.pid());
  EXPECT_TRUE(shot.frames[0].holders[0].alive);
  EXPECT_TRUE(shot.frames[1].holders.empty());
  ASSERT_EQ(shot.slots.size(), 32U);
  EXPECT_EQ(shot.slots[4].value, 30);
  EXPECT_TRUE(shot.slots[4].marked);
  EXPECT_EQ(shot.slots[5].value, -7);
  EXPECT_FALSE(shot.slots[5].marked);
  EXPECT_EQ(shot.slots[5].writes, 1U);

  reader.kill(SIGKILL);
  EXPECT_EQ(reader.wait(), -SIGKILL);
  shot = sb::inspect(sbVideo());
  EXPECT_EQ(shot.leases.size(), 1U);
  ASSERT_EQ(shot.frames[0].holders.size(), 1U);
  EXPECT_FALSE(shot.frames[0].holders[0].alive);
}

TEST_F(StreamBuffer, InspectionNamesTheWriterAndItsFrame) {
  ASSERT_TRUE(own());
  EXPECT_EQ(sb::inspect(sbVideo()).writerPid, 0);
  SharedWords shared;
  Child writer([&shared] {
    const TAutoFrame frame(sbVideo(), 0, nullptr, nullptr, 0);
    shared[0] = 1;
    while (shared[1] == 0) usleep(1000);
    return 0;
  });
  ASSERT_TRUE(eventually([&] { return shared[0] == 1; }));
  EXPECT_EQ(sb::inspect(sbVideo()).writerPid, writer.pid());
  EXPECT_EQ(sb::inspect(sbVideo()).frameBeingWritten, 0);
  writer.kill(SIGKILL);
  EXPECT_EQ(writer.wait(), -SIGKILL);
  EXPECT_EQ(sb::inspect(sbVideo()).writerPid, 0);
  EXPECT_EQ(sb::inspect(sbVideo()).frameBeingWritten, -1);
}

}  // namespace
