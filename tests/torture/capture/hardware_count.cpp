#include "tests/torture/capture/hardware_count.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

#include "board/drivers/protocol.h"
#include "platform/linux/fd.h"
#include "platform/linux/unix_address.h"

namespace {

std::string askStatus(const std::string& board) {
  UnixAddress address;
  if (!address.set((board + kControlSocket).c_str())) return "";
  const Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const bool connected = connect(fd.get(), address.get(), address.size()) == 0;
  address.clear();
  constexpr char kQuestion[] = "status\n";
  constexpr auto kLength = static_cast<ssize_t>(sizeof kQuestion - 1);
  if (!connected || send(fd.get(), kQuestion, kLength, MSG_NOSIGNAL) != kLength) return "";
  std::string text;
  char part[4096];
  for (ssize_t come = 0; (come = recv(fd.get(), part, sizeof part, 0)) > 0;)
    text.append(part, static_cast<std::size_t>(come));
  return text;
}

}  // namespace

bool countHardware(const std::string& board, const std::string& node, HardwareCount* count) {
  const std::string text = askStatus(board);
  const std::size_t line = text.find("open " + node);
  if (line == std::string::npos) return false;
  const std::string tail = text.substr(line, text.find('\n', line) - line);
  const std::size_t end = tail.find(" pictures, ");
  if (end == std::string::npos) return false;
  const std::size_t begin = tail.rfind(' ', end - 1);
  return std::sscanf(tail.c_str() + begin, " %ld pictures, %ld missed", &count->given,
                     &count->missed) == 2;
}
