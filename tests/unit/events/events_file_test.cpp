// Events files and what they build: each tests/data/events/NAME.conf with the objects and the log
// lines that NAME.expected tells.
#include <fstream>
#include <sstream>

#include "events/buzzer_handler.h"
#include "events/cgi_event.h"
#include "events/event_manager.h"
#include "events/input_event.h"
#include "events/interval_event.h"
#include "events/motion_event.h"
#include "events/out_handler.h"
#include "events/schedule_event.h"
#include "record/ftp_recorder.h"
#include "record/mail_recorder.h"
#include "record/smb_recorder.h"
#include "record/usb_recorder.h"
#include "tests/unit/events/event_fixture.h"

namespace {

class EventsFile : public EventFixture, public testing::WithParamInterface<const char*> {
 protected:
  static const char* kindOf(const TEvent& event) {
    if (dynamic_cast<const TMotion2Event*>(&event) != nullptr) return "TMotion2Event";
    if (dynamic_cast<const TMotion1Event*>(&event) != nullptr) return "TMotion1Event";
    if (dynamic_cast<const TInputEvent*>(&event) != nullptr) return "TInputEvent";
    if (dynamic_cast<const TIntervalEvent*>(&event) != nullptr) return "TIntervalEvent";
    if (dynamic_cast<const TScheduleEvent*>(&event) != nullptr) return "TScheduleEvent";
    if (dynamic_cast<const TCgiEvent*>(&event) != nullptr) return "TCgiEvent";
    return "TEvent";
  }

  static std::string tell(const THandler& handler) {
    std::ostringstream out;
    if (const auto* output = dynamic_cast<const TOutHandler*>(&handler)) {
      out << "  output " << int{output->output()} << ", " << handler.duration() << " s\n";
    } else if (const auto* buzzer = dynamic_cast<const TBuzzerHandler*>(&handler)) {
      out << "  buzzer " << buzzer->tone() << "\n";
    } else if (dynamic_cast<const TAccessHandler*>(&handler) != nullptr) {
      out << "  access\n";
    } else if (dynamic_cast<const TUsbRecorder*>(handler.recorder()) != nullptr) {
      out << "  record USB, " << handler.duration() << " s\n";
    } else if (dynamic_cast<const TFtpRecorder*>(handler.recorder()) != nullptr) {
      out << "  upload, " << handler.duration() << " s\n";
    } else if (handler.mail() != nullptr) {
      out << "  mail, " << handler.duration() << " s\n";
    } else if (dynamic_cast<const TSmbRecorder*>(handler.recorder()) != nullptr) {
      out << "  record Samba, " << handler.duration() << " s\n";
    } else {
      out << "  unknown\n";
    }
    return out.str();
  }

  std::string tell(const TEvent& event) const {
    std::ostringstream out;
    out << kindOf(event) << " \"" << event.schedule() << "\" \"" << event.schedule2() << "\" "
        << event.period() << " ms";
    if (const auto* web = dynamic_cast<const TCgiEvent*>(&event)) {
      out << ", slot " << web->slot();
    }
    out << (fake.started(event) ? ", started\n" : "\n");
    for (const auto& handler : event.handlers) {
      out << tell(*handler);
    }
    return out.str();
  }

  std::string tell(const TEventManager& manager) const {
    std::ostringstream out;
    for (const auto& event : manager.events()) {
      out << tell(*event);
    }
    out << "registered:";
    for (const char* name : {"always", "office", "OFFICE", "night"}) {
      out << (registered(name) ? std::string(" ") + name : "");
    }
    out << "\n";
    for (const std::string& line : fake.callsWith("log ")) {
      out << line << "\n";
    }
    return out.str();
  }

  static std::string pathOf(const char* ending) {
    return std::string(VS_TEST_DATA "/events/") + GetParam() + ending;
  }
};

TEST_P(EventsFile, BuildsWhatIsExpected) {
  fake.ini.fileFromHost(TEventManager::inf, pathOf(".conf"));
  fake.ini.set("/etc/sys.conf", "Samba", "Enable", "1");
  fake.smbMounted();
  std::ifstream in(pathOf(".expected"));
  std::stringstream expected;
  expected << in.rdbuf();
  ASSERT_TRUE(in.good() || in.eof());
  fake.clearCalls();
  TEventManager manager(nullptr);
  EXPECT_EQ(expected.str(), tell(manager));
}

INSTANTIATE_TEST_SUITE_P(Golden, EventsFile,
                         testing::Values("binary", "empty", "everything", "half-written", "limits",
                                         "wrong-types"),
                         [](const auto& file) {
                           std::string name = file.param;
                           for (char& c : name) {
                             c = c == '-' ? '_' : c;
                           }
                           return name;
                         });

}  // namespace
