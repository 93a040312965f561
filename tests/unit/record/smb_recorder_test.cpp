// The mount of the share.
#include "record/smb_recorder.h"

#include "tests/unit/record/record_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class SmbMount : public RecordFixture {};

TEST_F(SmbMount, StateIsThatOfTheShare) {
  for (const int state : {-1, 0, 1, 2}) {
    fake.smbState = state;
    EXPECT_EQ(state, TSmbRecorder::getState());
  }
  EXPECT_THAT(fake.calls(), IsEmpty());
}

TEST_F(SmbMount, StateThatCannotBeAskedIsNotMounted) {
  fake.smbMounted();
  fake.fails("get_smb_mount_state");
  EXPECT_EQ(-1, TSmbRecorder::getState());
  EXPECT_THAT(fake.calls(), ElementsAre("log 2 get_smb_mount_state() fail"));
  fake.clearCalls();
  EXPECT_TRUE(TSmbRecorder::mount());
  EXPECT_TRUE(TSmbRecorder::umount());
  EXPECT_THAT(fake.calls(),
              ElementsAre("log 2 get_smb_mount_state() fail", "system(/etc/init.d/smb.sh start)",
                          "log 2 get_smb_mount_state() fail"));
}

TEST_F(SmbMount, IsMountedByItsScript) {
  for (const int state : {-1, 0}) {
    fake.smbState = state;
    fake.clearCalls();
    EXPECT_TRUE(TSmbRecorder::mount());
    EXPECT_THAT(fake.calls(), ElementsAre("system(/etc/init.d/smb.sh start)"));
    EXPECT_TRUE(TSmbRecorder::umount());
    EXPECT_EQ(0, fake.count("system(/etc/init.d/smb.sh stop)"));
  }
}

TEST_F(SmbMount, IsUnmountedByItsScript) {
  fake.smbMounted();
  EXPECT_TRUE(TSmbRecorder::mount());
  EXPECT_THAT(fake.calls(), IsEmpty()) << "it is mounted";
  EXPECT_TRUE(TSmbRecorder::umount());
  EXPECT_THAT(fake.calls(), ElementsAre("system(/etc/init.d/smb.sh stop)"));
}

TEST_F(SmbMount, FailsWithItsScript) {
  for (const int status : {1 << 8, 9, -1}) {
    fake.onCommand([status](const std::string&) { return status; });
    fake.smbUnmounted();
    EXPECT_FALSE(TSmbRecorder::mount()) << status;
    fake.smbMounted();
    EXPECT_FALSE(TSmbRecorder::umount()) << status;
  }
}

TEST_F(SmbMount, StateThatDoesNotExistIsAnError) {
  fake.smbState = 2;
  EXPECT_FALSE(TSmbRecorder::mount());
  EXPECT_FALSE(TSmbRecorder::umount());
  EXPECT_THAT(fake.calls(),
              ElementsAre("log 3 TSmbRecorder::mount() IPE", "log 3 TSmbRecorder::umount() IPE"));
}

}  // namespace
