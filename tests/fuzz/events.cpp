// Events and schedules files: what they build, run and answered by the recorders, and its end.
#include <vector>

#include "events/event.h"
#include "events/event_manager.h"
#include "record/recorder.h"
#include "schedule/scheduler.h"
#include "tests/fakes/fake_platform.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/real_ini.h"

namespace {

void runBody(FakePlatform& fake, PThread& thread) {
  if (!fake.started(thread)) return;
  fake.stopAfterPasses(4);
  fake.runBody(thread);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
  FakePlatform::setTimeZone("UTC");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const std::string events = input.text('\0');
  const std::string schedules = input.text('\0');
  const std::string system = input.rest();
  FakePlatform fake;
  fake.keepCalls(false);
  real_ini::put("/etc/events.conf", events);
  real_ini::put("/etc/schedule.conf", schedules);
  real_ini::put("/etc/sys.conf", system);
  fake.smbMounted();
  for (FakeStream* stream : {&fake.video, &fake.video2}) {
    stream->setFrameSize(1024);
    stream->setDepth(3);
  }
  {
    TEventManager manager(nullptr);
    require(manager.events().size() <= events.size(), "events are those of the file");
    runBody(fake, *scheduler());
    std::size_t bodies = 0;
    for (const auto& event : manager.events()) {
      if (++bodies > 4) break;
      runBody(fake, *event);
      for (const auto& handler : event->handlers)
        if (handler->recorder() != nullptr) runBody(fake, *handler->recorder());
    }
    manager.refresh();
  }
  scheduler()->stop(false);
  real_ini::clear();
  return 0;
}
