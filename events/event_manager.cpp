#include "events/event_manager.h"

#include <algorithm>

#include "core/status_slots.h"
#include "events/access_handler.h"
#include "events/buzzer_handler.h"
#include "events/cgi_event.h"
#include "events/event_config.h"
#include "events/input_event.h"
#include "events/interval_event.h"
#include "events/motion_event.h"
#include "events/out_handler.h"
#include "events/schedule_event.h"
#include "platform/camera_io.h"
#include "platform/ini_file.h"
#include "platform/log.h"
#include "platform/os.h"
#include "record/ftp_recorder.h"
#include "record/mail_recorder.h"
#include "record/smb_recorder.h"
#include "record/usb_recorder.h"
#include "schedule/scheduler.h"

namespace {

constexpr const char* kSystemFile = "/etc/sys.conf";
constexpr const char* kUsbMountPoint = "/usb";
constexpr int kDefaultMax = 10;

// What has been started gets this long to settle before the access mode is published.
constexpr unsigned kSettleS = 2;

// Never frees the object: a body that does not end may still work on it.
template <typename T>
void leave(std::unique_ptr<T>& object) {
  static_cast<void>(object.release());
  TEventManager::leftBehind = true;
}

// Calls `action` with each mail recorder of the event.
template <typename Action>
void forEachMail(const TEvent& event, Action action) {
  for (const auto& handler : event.handlers) {
    if (TMailRecorder* const mail = handler->mail()) {
      action(*mail);
    }
  }
}

bool refersTo(const TEvent& event, const TRecorder* recorder) {
  return std::any_of(event.handlers.begin(), event.handlers.end(),
                     [recorder](const auto& handler) { return handler->recorder() == recorder; });
}

}  // namespace

Relaxed<bool> TEventManager::leftBehind;

TEventManager::TEventManager(TCamera* camera) : camera_(camera) { refresh(); }

TEventManager::~TEventManager() {
  clean();
  setInputIconState();
}

void TEventManager::refresh() {
  TAccessHandler::flush = 0;
  scheduler()->stop(false);
  clean();
  const int max = getIniInt(inf, "Main", "Max", kDefaultMax);
  for (int number = getIniSection(inf, max); number > 0; number = getIniSection(inf, number - 1)) {
    TEventConfig config;
    if (readEventConfig(inf, number, &config)) {
      build(config);
    }
  }
  scheduler()->refresh();
  setInputIconState();
  os::sleep(kSettleS);
  TAccessHandler::update();
  TAccessHandler::flush = 1;
}

void TEventManager::build(const TEventConfig& config) {
  std::unique_ptr<TEvent> event = createEvent(config);
  attachHandlers(config, *event);
  attachRecorders(config, *event);
  events_.push_back(std::move(event));
  events_.back()->refresh();
}

std::unique_ptr<TEvent> TEventManager::createEvent(const TEventConfig& config) const {
  const char* const first = config.schedule;
  const char* const second = config.schedule2;
  switch (config.source) {
    case TEventConfig::kMotion1:
      return std::make_unique<TMotion1Event>(first, second, config.period, camera_);
    case TEventConfig::kMotion2:
      return std::make_unique<TMotion2Event>(first, second, config.period, camera_);
    case TEventConfig::kInput:
      return std::make_unique<TInputEvent>(first, second, config.period);
    case TEventConfig::kInterval:
      return std::make_unique<TIntervalEvent>(first, second, config.period);
    case TEventConfig::kSchedule:
      return std::make_unique<TScheduleEvent>(first, second, config.period);
    case TEventConfig::kWeb2:
      return std::make_unique<TCgiEvent>(first, second, config.period, kSlotWebTrigger2);
    default:
      return std::make_unique<TCgiEvent>(first, second, config.period, kSlotWebTrigger1);
  }
}

void TEventManager::attachHandlers(const TEventConfig& config, TEvent& event) {
  if (config.out1) {
    event.handlers.push_back(std::make_unique<TOutHandler>(0, config.out1Duration));
  }
  if (config.out2) {
    event.handlers.push_back(std::make_unique<TOutHandler>(1, config.out2Duration));
  }
  if (config.buzzer) {
    event.handlers.push_back(std::make_unique<TBuzzerHandler>(config.buzzerTone));
  }
  if (config.access) {
    event.handlers.push_back(std::make_unique<TAccessHandler>());
    TAccessHandler::setMode(kAccessOff);
  }
}

void TEventManager::attachRecorders(const TEventConfig& config, TEvent& event) {
  if (config.mail) {
    auto mail = std::make_unique<TMailRecorder>(camera_, config.receiver, config.subject);
    event.handlers.push_back(std::make_unique<THandler>(mail.release(), 0));
  }
  if (config.usb) {
    std::unique_ptr<TRecorder>& usb = recorders_[kUsbRecorder];
    if (usb == nullptr) {
      // Intended: the folder is that of the first section that records to USB storage.
      usb = std::make_unique<TUsbRecorder>(camera_, kUsbMountPoint, config.usbFolder, nullptr);
    }
    event.handlers.push_back(std::make_unique<THandler>(usb.get(), 0));
  }
  if (config.ftp) {
    std::unique_ptr<TRecorder>& ftp = recorders_[kFtpRecorder];
    if (ftp == nullptr) {
      ftp = std::make_unique<TFtpRecorder>(camera_);
    }
    event.handlers.push_back(std::make_unique<THandler>(ftp.get(), config.ftpDuration));
  }
  // A share that is not wanted or can't be mounted costs the event its recording, silently: the
  // housekeeping asks for the next refresh until the share is there.
  if (config.smb && getIniInt(kSystemFile, "Samba", "Enable", 0) != 0 && TSmbRecorder::mount()) {
    std::unique_ptr<TRecorder>& smb = recorders_[kSmbRecorder];
    if (smb == nullptr) {
      smb = std::make_unique<TSmbRecorder>("");
    }
    event.handlers.push_back(std::make_unique<THandler>(smb.get(), config.smbDuration));
  }
}

void TEventManager::clean() {
  for (auto event = events_.rbegin(); event != events_.rend(); ++event) {
    (*event)->withdraw();
    (*event)->onStopped();
  }
  // Asked now, so that they end beside the events; what an event starts meanwhile is ended below.
  for (const auto& event : events_) {
    forEachMail(*event, [](TMailRecorder& mail) { mail.stop(false); });
  }
  for (auto& recorder : recorders_) {
    if (recorder != nullptr) {
      recorder->stop(false);
    }
  }
  TStopDeadline deadline;
  std::array<bool, kRecorderSlots> inUse{};  // by an event that is left behind
  for (; !events_.empty(); events_.pop_back()) {
    TEvent& event = *events_.back();
    bool ended = deadline.end(event);
    if (!ended) {
      for (std::size_t slot = 0; slot < kRecorderSlots; ++slot) {
        inUse[slot] = inUse[slot] || refersTo(event, recorders_[slot].get());
      }
    }
    forEachMail(event, [&](TMailRecorder& mail) { ended = deadline.end(mail) && ended; });
    if (!ended) {
      event.leaveBehind();
      leave(events_.back());
    }
  }
  for (std::size_t slot = kRecorderSlots; slot-- > 0;) {
    if (recorders_[slot] != nullptr && (!deadline.end(*recorders_[slot]) || inUse[slot])) {
      leave(recorders_[slot]);
    }
    recorders_[slot].reset();
  }
  TAccessHandler::setMode(kAccessNone);
  if (!TSmbRecorder::umount()) {
    logEx(2, "umount(smb) fail");
  }
}

void TEventManager::setInputIconState() {
  const bool used = std::any_of(events_.begin(), events_.end(), [](const auto& event) {
    return dynamic_cast<const TInputEvent*>(event.get()) != nullptr;
  });
  set_trigger_in_state(used ? 1 : 0);
}
