// camctl status: everything that the camera shares, for people.
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "platform/linux/stream_buffer_inspect.h"
#include "platform/stream_buffer.h"
#include "tools/camctl/commands.h"
#include "tools/camctl/newest_frame.h"
#include "tools/camctl/slots.h"
#include "tools/camctl/status_json.h"

namespace {

std::string processName(int pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
  std::string name;
  return std::getline(file, name) ? name + " (" + std::to_string(pid) + ")"
                                  : "process " + std::to_string(pid);
}

std::string kibi(std::uint32_t bytes) { return std::to_string(bytes / 1024) + " KiB"; }

void printSlots(const std::vector<sb::SlotState>& slots) {
  std::puts("\nslots (* written, not taken up yet)");
  for (const SlotLabel& label : slotLabels()) {
    const sb::SlotState& slot = slots[static_cast<std::size_t>(label.slot)];
    const std::string value = slot.value == -1 ? "unset" : std::to_string(slot.value);
    std::printf("  %2d  %-16s %12s%c  %s\n", label.slot, label.name, value.c_str(),
                slot.marked ? '*' : ' ', label.what);
  }
}

void printHolders(const sb::Snapshot& buffer) {
  for (const sb::FrameState& frame : buffer.frames) {
    for (const sb::LeaseState& holder : frame.holders) {
      std::printf("           frame %" PRIu32 ", %" PRIu32 " ms old, is held by %s%s\n",
                  frame.number, frame.ageMs, processName(holder.pid).c_str(),
                  holder.alive ? "" : ", which is dead");
    }
  }
}

void printBuffer(const char* name, SB_HANDLE* handle) {
  if (handle == nullptr) {
    std::printf("  %-7s  not there\n", name);
    return;
  }
  const sb::Snapshot buffer = sb::inspect(handle);
  std::printf("  %-7s  %zu frames of %s, newest %" PRIu32 ", %" PRIu32 " times none free\n", name,
              buffer.frames.size(), kibi(buffer.frameSize).c_str(), buffer.latest,
              buffer.busyCount);
  const std::string writer =
      buffer.writerPid != 0 ? processName(buffer.writerPid) : std::string("nobody");
  std::string readers;
  for (const sb::LeaseState& lease : buffer.leases) {
    if (lease.pid == buffer.writerPid) continue;
    readers += (readers.empty() ? ", used by " : ", ") + processName(lease.pid);
  }
  std::printf("           written by %s%s\n", writer.c_str(), readers.c_str());
  printHolders(buffer);
}

std::string motionLevel(const std::string& level) { return level.empty() ? "off" : level; }

void printNewestFrame() {
  NewestFrame frame;
  if (!findNewestFrame(&frame)) {
    std::puts("frame    none");
    return;
  }
  std::printf("frame    %" PRIu32 ", %s, ", frame.number, kindName(frame.kind));
  if (frame.size.width > 0) std::printf("%dx%d, ", frame.size.width, frame.size.height);
  std::printf("%zu bytes, motion 1 %s, motion 2 %s\n", frame.length,
              motionLevel(frame.motion[0]).c_str(), motionLevel(frame.motion[1]).c_str());
}

}  // namespace

int runStatus(const std::string& camera, int pid, bool json) {
  if (json) {
    std::puts(statusJson(camera, pid).c_str());
    return kExitOk;
  }
  const std::vector<sb::SlotState> slots = sb::inspect(sbVideo()).slots;
  std::printf("camera   %s, process %d\n", camera.empty() ? "this machine" : camera.c_str(), pid);
  std::printf("status   %s\n", inWords(statusFields(slots[kSlotStatus].value), true).c_str());
  std::printf("format   %s\n", inWords(formatFields(slots[kSlotFormat].value), true).c_str());
  printNewestFrame();
  printSlots(slots);
  std::puts("\nbuffers");
  printBuffer("video", sbVideo());
  printBuffer("video2", sbVideo2());
  printBuffer("audio", sbAudio());
  return kExitOk;
}
