#include "events/event_config.h"

#include <strings.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "platform/ini_file.h"
#include "platform/log.h"

namespace {

// Poll periods in ms, by source; an interval event brings its own.
constexpr long kPeriodMs[TEventConfig::kSourceCount] = {200, 200, 100, 0, 200, 2000, 2000};

constexpr std::int64_t kMsPerS = 1000;
constexpr int kDefaultIntervalS = 60;
constexpr int kDefaultDurationS = 3;

// The periods and durations of the event engine are 32 bits wide everywhere.
long saturated(std::int64_t value) {
  return static_cast<long>(
      std::clamp<std::int64_t>(value, std::int64_t{INT32_MIN}, std::int64_t{INT32_MAX}));
}

// The keys of one section.
class TSection {
 public:
  TSection(const char* file, int number) : file_(file) {
    std::snprintf(name_, sizeof name_, "%d", number);
  }

  const char* file() const { return file_; }

  int number(const char* key, int fallback) const { return getIniInt(file_, name_, key, fallback); }

  // A switch is on only when its value is exactly 1.
  bool isOn(const char* key) const { return number(key, 0) == 1; }

  void text(const char* key, char (&buffer)[TEventConfig::kTextSize], const char* fallback) const {
    getIniStr(file_, name_, key, buffer, TEventConfig::kTextSize, fallback);
  }

  // As text(), for what would be something else when it is cut. Returns false when it does not fit.
  bool wholeText(const char* key, char (&buffer)[TEventConfig::kTextSize]) const {
    char value[TEventConfig::kTextSize + 1];
    const int length = getIniStr(file_, name_, key, value, sizeof value, "");
    std::snprintf(buffer, sizeof buffer, "%.*s", TEventConfig::kTextSize - 1, value);
    return length < TEventConfig::kTextSize;
  }

 private:
  const char* file_;
  char name_[12];  // an int in decimal
};

bool isNever(const char* schedule) { return strcasecmp(schedule, "never") == 0; }

void readLocalActions(const TSection& section, TEventConfig* config) {
  config->out1 = section.isOn("Out1");
  if (config->out1) {
    config->out1Duration = section.number("Out1Duration", kDefaultDurationS);
  }
  config->out2 = section.isOn("Out2");
  if (config->out2) {
    config->out2Duration = section.number("Out2Duration", kDefaultDurationS);
  }
  config->buzzer = section.isOn("Buzzer");
  if (config->buzzer) {
    config->buzzerTone = section.number("BuzzerTone", 0);
  }
  config->access = section.isOn("Access");
}

void readDeliveries(const TSection& section, TEventConfig* config) {
  config->mail = section.isOn("Mail");
  if (config->mail && !section.wholeText("Receiver", config->receiver)) {
    // Part of an address, or of a list of them, would be somebody else.
    logEx(2, "%s: [%d] Receiver is longer than %d characters, no mail", section.file(),
          config->number, TEventConfig::kTextSize - 1);
    config->mail = false;
  }
  if (config->mail) {
    section.text("Subject", config->subject, "");
  }
  config->usb = section.isOn("Usb");
  if (config->usb) {
    section.text("UsbFolder", config->usbFolder, "");
  }
  config->ftp = section.isOn("Ftp");
  if (config->ftp) {
    config->ftpDuration = section.number("FtpDuration", 0);
  }
  config->smb = section.isOn("Smb");
  if (config->smb) {
    config->smbDuration = section.number("SmbContinue", 0) != 0
                              ? saturated(std::int64_t{config->period} * 2)
                              : section.number("SmbDuration", kDefaultDurationS);
  }
}

}  // namespace

bool readEventConfig(const char* file, int number, TEventConfig* config) {
  const TSection section(file, number);
  *config = TEventConfig();
  config->number = number;
  if (section.number("Erased", 1) != 0) {
    return false;
  }
  section.text("Schedule", config->schedule, "Never");
  section.text("Schedule2", config->schedule2, "Never");
  if (isNever(config->schedule) && isNever(config->schedule2)) {
    return false;
  }
  const int source = section.number("Source", -1);
  if (source < 0 || source >= TEventConfig::kSourceCount) {
    return false;
  }
  config->source = static_cast<TEventConfig::TSource>(source);
  config->period = source == TEventConfig::kInterval
                       ? saturated(section.number("Interval", kDefaultIntervalS) * kMsPerS)
                       : kPeriodMs[source];
  readLocalActions(section, config);
  readDeliveries(section, config);
  return true;
}
