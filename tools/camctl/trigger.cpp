// camctl trigger, input, privacy, reload: what comes to the camera from outside.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/status_slots.h"
#include "platform/message.h"
#include "platform/stream_buffer.h"
#include "tools/camctl/commands.h"
#include "tools/camctl/io_files.h"

namespace {

constexpr char kDaemon[] = "video_svr";  // its name in the messaging service

int signalInput() {
  if (SendMessage(kDaemon, 0, 0, 0, kMessageInputTrigger) == 0) return kExitOk;
  std::fprintf(stderr, "camctl: the camera takes no message: %s\n", std::strerror(errno));
  return kExitFailed;
}

}  // namespace

int runTrigger(Trigger trigger) {
  if (trigger == Trigger::kInput) return signalInput();
  const int slot = trigger == Trigger::kWeb1 ? kSlotWebTrigger1 : kSlotWebTrigger2;
  sbSetUserdata(sbVideo(), slot, slot);  // a web event fires on its own number alone
  return kExitOk;
}

int runInput(bool on) { return setInput(on) ? kExitOk : kExitFailed; }

int runPrivacy(bool on) { return setPrivacy(on) ? kExitOk : kExitFailed; }

int runReload() {
  sbSetUserdata(sbVideo(), kSlotConfigChanged, 1);
  return kExitOk;
}
