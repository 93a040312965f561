// camctl get, set: the settings slots.
#include <cstdio>

#include "platform/stream_buffer.h"
#include "tools/camctl/commands.h"
#include "tools/camctl/slots.h"

namespace {

constexpr int kUnset = -1;

void print(const SlotLabel& label, bool withName) {
  const int value = sbGetUserdata(sbVideo(), label.slot);
  if (withName) std::printf("%-18s", label.name);
  if (value == kUnset) {
    std::puts("unset");
  } else {
    std::printf("%d\n", value);
  }
}

int sayUnknown(const std::string& name) {
  std::fprintf(stderr, "camctl: there is no setting \"%s\"; \"camctl get\" lists them\n",
               name.c_str());
  return kExitUsage;
}

}  // namespace

int runGet(const std::string& name) {
  if (!name.empty()) {
    const SlotLabel* label = findSetting(name);
    if (label == nullptr) return sayUnknown(name);
    print(*label, false);
    return kExitOk;
  }
  for (const SlotLabel& label : slotLabels()) {
    if (label.setting) print(label, true);
  }
  return kExitOk;
}

int runSet(const std::string& name, int value) {
  const SlotLabel* label = findSetting(name);
  if (label == nullptr) return sayUnknown(name);
  sbSetUserdata(sbVideo(), label->slot, value);
  return kExitOk;
}
