#include "tools/camctl/status_json.h"

#include <utility>

#include "platform/linux/stream_buffer_inspect.h"
#include "platform/stream_buffer.h"
#include "tools/camctl/json.h"
#include "tools/camctl/newest_frame.h"
#include "tools/camctl/slots.h"

namespace {

void addFields(Json* json, const char* name, const std::vector<Field>& fields) {
  json->key(name).beginObject();
  for (const Field& field : fields) json->key(field.name).value(field.value);
  json->endObject();
}

void addSlots(Json* json, const std::vector<sb::SlotState>& slots) {
  json->key("slots").beginObject();
  for (const SlotLabel& label : slotLabels()) {
    const sb::SlotState& slot = slots[static_cast<std::size_t>(label.slot)];
    json->key(label.name).beginObject();
    json->key("slot").value(label.slot).key("value").value(slot.value);
    json->key("pending").value(slot.marked).key("writes").value(slot.writes).endObject();
  }
  json->endObject();
}

void addFrame(Json* json, const sb::FrameState& frame) {
  json->beginObject().key("number").value(frame.number).key("age_ms").value(frame.ageMs);
  json->key("length").value(frame.length).key("held_by").beginList();
  for (const sb::LeaseState& holder : frame.holders) {
    json->beginObject().key("pid").value(holder.pid).key("alive").value(holder.alive).endObject();
  }
  json->endList().endObject();
}

void addBuffer(Json* json, const char* name, SB_HANDLE* handle) {
  if (handle == nullptr) return;
  const sb::Snapshot buffer = sb::inspect(handle);
  json->key(name).beginObject().key("path").value(buffer.path);
  json->key("version").value(buffer.version).key("epoch").value(buffer.epoch);
  json->key("frame_size").value(buffer.frameSize).key("total_bytes").value(buffer.totalBytes);
  json->key("latest").value(buffer.latest).key("busy").value(buffer.busyCount);
  json->key("writer_pid").value(buffer.writerPid).key("pids").beginList();
  for (const sb::LeaseState& lease : buffer.leases) json->value(lease.pid);
  json->endList().key("frames").beginList();
  for (const sb::FrameState& frame : buffer.frames) addFrame(json, frame);
  json->endList().endObject();
}

void addNewestFrame(Json* json) {
  NewestFrame frame;
  if (!findNewestFrame(&frame)) return;
  json->key("frame").beginObject().key("number").value(frame.number);
  json->key("kind").value(kindName(frame.kind));
  json->key("width").value(frame.size.width).key("height").value(frame.size.height);
  json->key("length").value(static_cast<std::int64_t>(frame.length)).key("motion").beginList();
  for (const std::string& level : frame.motion) json->value(level);
  json->endList().endObject();
}

}  // namespace

std::string statusJson(const std::string& camera, int pid) {
  Json json;
  json.beginObject().key("camera").value(camera.empty() ? "/" : camera);
  json.key("running").value(pid != 0).key("pid").value(pid);
  if (pid != 0) {
    const std::vector<sb::SlotState> slots = sb::inspect(sbVideo()).slots;
    addFields(&json, "status", statusFields(slots[kSlotStatus].value));
    addFields(&json, "format", formatFields(slots[kSlotFormat].value));
    addNewestFrame(&json);
    addSlots(&json, slots);
    json.key("buffers").beginObject();
    addBuffer(&json, "video", sbVideo());
    addBuffer(&json, "video2", sbVideo2());
    addBuffer(&json, "audio", sbAudio());
    json.endObject();
  }
  return json.endObject().text();
}
