// What the tests of the event manager share.
#pragma once

#include <memory>

#include "events/event_manager.h"
#include "tests/unit/events/event_fixture.h"

// A manager, and the events file that it builds from.
class ManagerFixture : public EventFixture {
 protected:
  static constexpr const char* kEvents = TEventManager::inf;

  // Adds a live section with an event of `source` that sounds the buzzer.
  void section(const char* number, const char* source, const char* schedule = "office") {
    set(number, "Erased", "0");
    set(number, "Schedule", schedule);
    set(number, "Source", source);
    set(number, "Buzzer", "1");
  }
  void set(const char* number, const char* key, const char* value) {
    fake.ini.set(kEvents, number, key, value);
  }
  // The share is wanted and mounted.
  void allowShare() {
    fake.ini.set("/etc/sys.conf", "Samba", "Enable", "1");
    fake.smbMounted();
  }
  void build(TCamera* camera = nullptr) { manager = std::make_unique<TEventManager>(camera); }

  // The first recorder that the events have, highest section first; null for none.
  TRecorder* anyRecorder() const {
    for (const auto& event : manager->events()) {
      for (const auto& handler : event->handlers) {
        if (handler->recorder() != nullptr) {
          return handler->recorder();
        }
      }
    }
    return nullptr;
  }

  std::unique_ptr<TEventManager> manager;
};
