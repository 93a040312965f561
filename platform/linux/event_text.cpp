#include "platform/linux/event_text.h"

#include <algorithm>

// Four identifiers have two meanings each: the event engine and the recorder on the network share
// use them both. Their texts name both.
const EventText kEventTexts[] = {
    {501, "digital input active"},
    {502, "interval event started"},
    {503, "digital input: mail started"},
    {504, "interval: mail started"},
    {505, "web trigger: mail started"},
    {506, "privacy mode: no mail"},
    {507, "mail could not be sent"},
    {508, "digital input: FTP upload started"},
    {509, "interval: FTP upload started"},
    {510, "web trigger: FTP upload started"},
    {511, "privacy mode: no FTP upload"},
    {512, "FTP login or upload failed"},
    {513, "digital input: USB recording started"},
    {514, "interval: USB recording started"},
    {515, "USB storage is not mounted"},
    {516, "privacy mode: no USB recording"},
    {517, "USB storage is full or can't be written"},
    {519, "digital input: buzzer sounded"},
    {520, "web trigger: buzzer sounded"},
    {521, "interval: buzzer sounded"},
    {522, "privacy mode: no buzzer"},
    {523, "digital input: output switched on; or network share: recording could not be opened"},
    {524, "interval: output switched on; or network share: recording could not be written"},
    {525, "web trigger: output switched on; or network share: recording could not be closed"},
    {526, "privacy mode: output not switched; or network share: full"},
    {604, "picture too large for its buffer, may be cut off"},
};
const std::size_t kEventTextCount = sizeof kEventTexts / sizeof kEventTexts[0];

const char* eventText(int id) {
  const EventText* const end = kEventTexts + kEventTextCount;
  const EventText* const found =
      std::lower_bound(kEventTexts, end, id, [](const EventText& a, int b) { return a.id < b; });
  return found != end && found->id == id ? found->text : "unknown event";
}
