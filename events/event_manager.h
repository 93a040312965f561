// The event engine: turns the events file into running events, handlers and recorders.
#pragma once

#include <array>
#include <memory>
#include <vector>

#include "platform/relaxed.h"

class TCamera;
class TEvent;
class TRecorder;
struct TEventConfig;

// Builds one event with its handlers per live section of the events file, and the recorders that
// they share; throws everything away and builds it anew on each refresh().
// Bound to one thread (the main one).
class TEventManager {
 public:
  // Path of the events file; docs/configuration.md tells its sections and keys.
  static constexpr const char* inf = "/etc/events.conf";

  // True from the first body on that any manager has left behind: the camera must not be deleted
  // any more, because the body may still ask it.
  static Relaxed<bool> leftBehind;

  // Builds everything, as refresh() does. `camera`: may be null, then motion events never fire; not
  // owned, must outlive the manager.
  explicit TEventManager(TCamera* camera);
  TEventManager(const TEventManager&) = delete;
  TEventManager& operator=(const TEventManager&) = delete;
  // Ends everything, as clean() does, and reports that nothing watches the digital input.
  ~TEventManager();

  // Ends everything that the last refresh built and builds it anew from the events file. A running
  // recording is stopped, an output that is on is switched off. Takes a pause of 2 s.
  void refresh();

  // Ends and deletes all events with what is their own, then the shared recorders, and unmounts the
  // share. A body that does not end within 5 s (for all together) is left behind with its object
  // and the recorders it uses, an event also with its mail recorders and for theirs.
  // Logs 2 "umount(smb) fail".
  void clean();

  // Tells the platform whether any event watches the digital input.
  void setInputIconState();

  // What the last refresh has built; the highest section comes first.
  const std::vector<std::unique_ptr<TEvent>>& events() const { return events_; }

 private:
  enum TRecorderSlot { kUsbRecorder, kFtpRecorder, kSmbRecorder, kRecorderSlots };

  void build(const TEventConfig& config);
  std::unique_ptr<TEvent> createEvent(const TEventConfig& config) const;
  void attachHandlers(const TEventConfig& config, TEvent& event);
  void attachRecorders(const TEventConfig& config, TEvent& event);

  TCamera* camera_;  // not owned
  std::vector<std::unique_ptr<TEvent>> events_;
  std::array<std::unique_ptr<TRecorder>, kRecorderSlots> recorders_;  // shared by all events
};
