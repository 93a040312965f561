// Messages from other processes.
#include "platform/message.h"

#include <sys/socket.h>

#include <vector>

#include "tests/fuzz/fuzz.h"

namespace {
std::vector<std::string> waiting;
constexpr int kQueue = 1 << 20;
}  // namespace

// The queue is this program's own.
extern "C" {
int __wrap_socket(int, int, int) { return kQueue; }
int __wrap_bind(int, const sockaddr*, socklen_t) { return 0; }
int __wrap_chmod(const char*, mode_t) { return 0; }
int __wrap_rename(const char*, const char*) { return 0; }
int __wrap_mkdir(const char*, mode_t) { return 0; }
int __wrap_unlink(const char*) { return 0; }
ssize_t __wrap_recv(int queue, void* buffer, size_t size, int flags) {
  require(queue == kQueue, "it is the queue that is read");
  if (waiting.empty()) {
    errno = EAGAIN;
    return -1;
  }
  const std::string datagram = waiting.front();
  waiting.erase(waiting.begin());
  const std::size_t copied = datagram.copy(static_cast<char*>(buffer), size);
  return static_cast<ssize_t>((flags & MSG_TRUNC) != 0 ? datagram.size() : copied);
}
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  std::vector<std::string> good;
  waiting.clear();
  while (input.left() > 0) {
    waiting.push_back(input.bytes(input.byte() % 64));
    if (waiting.back().size() == sizeof(TMessage)) good.push_back(waiting.back());
  }
  // As often as the daemon looks until the queue is empty.
  std::size_t taken = 0;
  while (!waiting.empty()) {
    const TMessage before{1, 2, 3, 4, 5, {6, 7}};
    TMessage message = before;
    if (PeekMessage(&message) != 0) {
      require(std::memcmp(&message, &before, sizeof message) == 0, "without a message all stays");
      continue;
    }
    require(taken < good.size() && std::memcmp(&message, good[taken].data(), sizeof message) == 0,
            "messages come whole and in their order");
    ++taken;
  }
  require(taken == good.size(), "no message is lost");
  return 0;
}
