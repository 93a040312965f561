#include "tools/boardctl/hardware.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "board/drivers/protocol.h"
#include "platform/linux/unix_address.h"

namespace {

constexpr int kAnswerSeconds = 10;

// Returns a socket to the hardware, -1 when none runs.
int connectTo(const std::string& path) {
  UnixAddress address;
  if (!address.set(path.c_str())) return -1;
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool connected = connect(fd, address.get(), address.size()) == 0;
  address.clear();
  if (connected) return fd;
  close(fd);
  return -1;
}

}  // namespace

Answer askHardware(const std::string& folder, const std::string& line, std::string* text) {
  const int fd = connectTo(folder + kControlSocket);
  if (fd < 0) return Answer::kNobody;
  const timeval limit{kAnswerSeconds, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  const std::string sent = line + '\n';
  std::string answer;
  if (send(fd, sent.data(), sent.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(sent.size())) {
    char bytes[4096];
    for (ssize_t length = 0; (length = recv(fd, bytes, sizeof bytes, 0)) > 0;)
      answer.append(bytes, static_cast<std::size_t>(length));
  }
  close(fd);
  const std::size_t end = answer.find('\n');
  if (end == std::string::npos) {
    *text = "the hardware does not answer\n";
    return Answer::kFailed;
  }
  *text = answer.substr(end + 1);
  const std::string verdict = answer.substr(0, end);
  if (verdict == "usage") return Answer::kUsage;
  return verdict == "ok" ? Answer::kOk : Answer::kFailed;
}
