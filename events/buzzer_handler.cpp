#include "events/buzzer_handler.h"

#include <climits>
#include <cstdio>

#include "platform/os.h"

namespace {

// "ptcmd BTONE=", eleven characters of an int at most, " &" and the terminator.
constexpr int kCommandSize = 32;

}  // namespace

TBuzzerHandler::TBuzzerHandler(int tone) : THandler(nullptr, 0), tone_(tone) {}

bool TBuzzerHandler::onTrigger() {
  if (!THandler::onTrigger()) {
    return false;
  }
  // The command counts its tones from 1.
  const int number = tone_ < INT_MAX ? tone_ + 1 : tone_;
  char command[kCommandSize];
  std::snprintf(command, sizeof command, "ptcmd BTONE=%d &", number);
  os::system(command);
  return true;
}
