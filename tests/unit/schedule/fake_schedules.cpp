#include "schedule/schedule.h"
#include "tests/fakes/fake_platform.h"
#include "tests/unit/schedule/schedules.h"

void putSchedules(const std::string& text) { FakePlatform::the().ini.file(TSchedule::inf, text); }
