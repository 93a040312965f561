// The path into the stream buffer "video2".
#include "record/writer.h"

#include <cstring>

#include "platform/bytes.h"
#include "platform/log.h"
#include "platform/stream_buffer.h"

namespace {

constexpr long kReserveMs = 10;  // the capture thread waits no longer for a free frame

// The usable frame sizes that were worked out, one for each buffer there ever was: in practice two.
// Never freed: buffers live as long as the process, and so do their sizes.
struct TKnownSize {
  SB_HANDLE* buffer;
  long size;
  const TKnownSize* next;
};
std::atomic<const TKnownSize*> g_sizes{nullptr};

long usableSize(SB_HANDLE* buffer) {
  const TKnownSize* const first = g_sizes.load(std::memory_order_acquire);
  for (const TKnownSize* known = first; known != nullptr; known = known->next)
    if (known->buffer == buffer) return known->size;
  const long size = sbGetFrameSize(buffer) - static_cast<long>(kFrameHeadBytes);
  if (size < 1) return 0;
  auto* const known = new TKnownSize{buffer, size, first};
  while (!g_sizes.compare_exchange_weak(known->next, known, std::memory_order_acq_rel)) {
  }
  return size;
}

}  // namespace

TWriter::TWriter(long timeout) : timeout_(timeout) {}

TWriter::~TWriter() = default;

long TWriter::getFrameSize(SB_HANDLE* buffer) {
  if (buffer == nullptr || (buffer != sbVideo() && buffer != sbVideo2())) return 0;
  return usableSize(buffer);
}

long TWriter::write(const char* data, long length, const TDateTime& time, char /*type*/) {
  SB_HANDLE* const buffer = sbVideo2();
  if (length > getFrameSize(buffer)) {
    logEx(2, "TWriter::write() video2 buffer overflow");
    return 0;
  }
  TAutoFrame frame(buffer, 0, nullptr, nullptr, kReserveMs);
  if (!frame) {
    logEx(1, "video2 buffer busy");
    return 0;
  }
  if (length > 0) std::memcpy(frame->payload, data, static_cast<std::size_t>(length));
  storeLe32(frame->seconds, time.seconds());
  storeLe32(frame->microseconds, time.microseconds());
  storeLe32(frame->length, static_cast<std::uint32_t>(length));
  storeLe32(frame->number, sequence_++);
  last_ = time;
  return length;
}

bool TWriter::timeout(const TDateTime& /*time*/) const { return true; }

// Returns the slot nearest the end that holds `client`, -1 when there is none.
int TWriter::seek(const void* client) const {
  for (int slot = kClients - 1; slot >= 0; --slot)
    if (clients_[static_cast<std::size_t>(slot)].load() == client) return slot;
  return -1;
}

void TWriter::addRef(const void* client) {
  if (client == nullptr) return;
  while (seek(client) < 0) {
    const int slot = seek(nullptr);
    if (slot < 0) {
      logEx(2, "TWriter::add() clients buffer overflow");
      return;
    }
    const void* expected = nullptr;
    if (clients_[static_cast<std::size_t>(slot)].compare_exchange_strong(expected, client)) {
      dropDoubles(client);
      return;
    }
  }
}

// Two threads that register the same client at the same instant may both have found it missing and
// taken a slot each. Both look once more, and since each looks after it has written, at least one
// sees both slots. All agree on which one stays: the one nearest the end.
void TWriter::dropDoubles(const void* client) {
  for (int slot = seek(client) - 1; slot >= 0; --slot) {
    const void* expected = client;
    clients_[static_cast<std::size_t>(slot)].compare_exchange_strong(expected, nullptr);
  }
}

void TWriter::delRef(const void* client) {
  if (client == nullptr) return;
  for (int slot = kClients - 1; slot >= 0; --slot) {
    const void* expected = client;
    clients_[static_cast<std::size_t>(slot)].compare_exchange_strong(expected, nullptr);
  }
}

bool TWriter::getRef() const {
  for (const auto& client : clients_)
    if (client.load(std::memory_order_relaxed) != nullptr) return true;
  return false;
}
