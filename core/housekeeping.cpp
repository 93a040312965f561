#include "core/housekeeping.h"

#include "core/status_slots.h"
#include "core/trigger_state.h"
#include "core/video_server.h"
#include "platform/ini_file.h"
#include "platform/os.h"
#include "platform/storage.h"
#include "platform/stream_buffer.h"

namespace {

constexpr long kPassMs = 300;
// The periodic work comes every tenth pass; its counters count these 3 s steps.
constexpr long kPeriodMs = 3000;
constexpr long kPeriodS = kPeriodMs / 1000;

constexpr long kClockCheckS = 3600;
constexpr long kDstUpdateS = 86400;
// Reached on every 16th step (16 * 3 s = 48 s), not after 46 s.
constexpr long kSambaCheckS = 46;
constexpr int kMounted = 1;

}  // namespace

THousekeeping::THousekeeping(TCamera* camera)
    : ntpTimer_(TVideoServer::getNtpInterval()), dstTimer_(kDstUpdateS), events_(camera) {
  tickCounter_.reset(kPeriodMs, false);
  hourCounter_.reset(kClockCheckS, false);
  sambaCounter_.reset(kSambaCheckS, false);
  now_.set();
  lastCheck_.set();
}

void THousekeeping::pass() {
  getTriggerState();
  if (tickCounter_.count(kPassMs)) periodic();
  os::usleep(kPassMs * 1000);
}

void THousekeeping::periodic() {
  now_.set();
  keepTime();
  reload();
  checkClock();
  watchSamba();
}

void THousekeeping::keepTime() {
  if (ntpTimer_.timeout()) os::system("/etc/init.d/ntpc &");
  if (dstTimer_.timeout()) os::system("/sbin/updatedst &");
}

// The interval of the time synchronisation may have changed with the rest.
void THousekeeping::reload() {
  if (sbTestUserdata(sbVideo(), kSlotConfigChanged) <= 0) return;
  events_.refresh();
  ntpTimer_.reset(TVideoServer::getNtpInterval());
}

// Intended: the step from hour 23 to hour 0 is none, so that over midnight the counter alone brings
// the check.
void THousekeeping::checkClock() {
  if (!hourCounter_.count(kPeriodS) && lastCheck_[kFieldHour] >= now_[kFieldHour]) return;
  lastCheck_ = now_;
  os::system("rtchk -reload");
  sbSetUserdata(sbVideo(), kSlotTimestamp, 1);
}

// The events mount the share when they are built; so a share that is gone is mounted again.
void THousekeeping::watchSamba() {
  if (!sambaCounter_.count(kPeriodS) || getIniInt("/etc/sys.conf", "Samba", "Enable", 0) == 0)
    return;
  int state = kMounted;
  if (get_smb_mount_state(&state) == 0 && state != kMounted)
    sbSetUserdata(sbVideo(), kSlotConfigChanged, 1);
}
