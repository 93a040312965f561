// Finds gaps in a stream and counts what is left out after them.
#include "record/passive_drop.h"

#include "platform/os.h"

namespace {

// Intended: the message tells of 320, and comes with the 321st.
constexpr std::int32_t kDroppedPerMessage = 321;
constexpr char kMessage[] = "[vs] Another 320 frames dropped on samba recording\n";
constexpr int kStandardError = 2;

}  // namespace

// Unsigned, so that the number after the largest one is no gap.
bool TPassiveDrop::test(long number) {
  const auto next = static_cast<std::int32_t>(static_cast<std::uint32_t>(last_) + 1);
  last_ = static_cast<std::int32_t>(number);
  if (last_ != next) dropping_ = 1;
  return dropping_ != 0;
}

bool TPassiveDrop::dropzone() {
  if (dropping_ != 0 && ++dropped_ >= kDroppedPerMessage) {
    dropped_ = 0;
    os::write(kStandardError, kMessage, sizeof kMessage - 1);
  }
  return dropping_ != 0;
}
