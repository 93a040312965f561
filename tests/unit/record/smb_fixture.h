// What the tests of the recorder on the Samba share have in common.
#pragma once

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "capture/chunk_trailer.h"
#include "core/status_slots.h"
#include "record/smb_recorder.h"
#include "tests/unit/record/record_fixture.h"

// A frame as the capture thread would publish it.
struct SmbFrame {
  std::string types = "I";    // one chunk each
  std::string data = "data";  // of each chunk
  std::string header;         // the text of the stream header
  int skipped = 0;            // frames that were lost ahead of it
};

class SmbFixture : public RecordFixture {
 protected:
  SmbFixture() {
    fake.smbMounted();
    fake.video.setDepth(8);
  }

  void set(const std::string& key, int value) {
    fake.ini.set("/etc/sys.conf", "Samba", key, std::to_string(value));
  }

  TSmbRecorder& make() {
    recorder = std::make_unique<TSmbRecorder>("");
    return *recorder;
  }

  // Publishes a frame now. `change` may spoil it first.
  void push(const SmbFrame& frame, const std::function<void(SB_FRAME*)>& change = nullptr) {
    const FakeScope scope;
    number += 1 + frame.skipped;
    const int index = fake.video.reserve();
    ASSERT_GE(index, 0);
    SB_FRAME* const to = fake.video.frame(index);
    std::memset(to->userdata, 0, sizeof to->userdata);
    std::memcpy(to->userdata[0], frame.header.data(),
                std::min<std::size_t>(frame.header.size(), 48));
    char* at = to->payload;
    char* trailer = to->payload + kUsable;
    for (const char type : frame.types) {
      std::memcpy(at, frame.data.data(), frame.data.size());
      at += frame.data.size();
      trailer -= kTrailerBytes;
      storeTrailer(trailer, type, kTrailerMore, static_cast<std::uint32_t>(frame.data.size()));
    }
    if (!frame.types.empty()) markLastTrailer(trailer);
    storeLe32(to->length, static_cast<std::uint32_t>(at - to->payload));
    storeLe32(to->number, static_cast<std::uint32_t>(number));
    const TDateTime time = now();
    storeLe32(to->seconds, time.seconds());
    storeLe32(to->microseconds, time.microseconds());
    if (change) change(to);
    fake.video.publish(index);
  }

  // Publishes a frame `seconds` from now.
  void at(double seconds, const SmbFrame& frame) {
    fake.at(seconds, [this, frame] { push(frame); });
  }
  // The frames of `types` one by one, each `period` after the one before.
  void sequence(double first, double period, const std::string& types) {
    for (std::size_t i = 0; i < types.size(); ++i)
      at(first + static_cast<double>(i) * period, {std::string(1, types[i]), "data", "", 0});
  }

  // Records for `seconds`, then lets everything end. Returns how often the body ran.
  int record(long seconds) {
    if (!recorder) make();
    recorder->start(seconds);
    fake.stopAfter(static_cast<double>(seconds) + 3);
    return runBodies(*recorder);
  }

  std::vector<std::string> opened() const {
    std::vector<std::string> result;
    for (const std::string& call : fake.callsWith("aviOpen("))
      result.push_back(call.substr(8, call.size() - 9));
    return result;
  }
  std::vector<std::string> failures() const {
    std::vector<std::string> result;
    for (const std::string& call : fake.calls())
      if (call.compare(0, 4, "log ") == 0 || call.compare(0, 10, "log_event(") == 0)
        result.push_back(call);
    return result;
  }
  std::string types(const std::string& path) const { return fake.recordings.at(path).types; }

  std::unique_ptr<TSmbRecorder> recorder;
  std::int32_t number = 0;
};

// The folder of the day on which the tests begin, and names in it.
inline std::string smbFile(const std::string& time) {
  return "/smb/camera/20240603/" + time + ".avi";
}
