#include "board/drivers/connection.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "board/drivers/protocol.h"
#include "board/drivers/requests.h"
#include "platform/linux/unix_address.h"

namespace {

constexpr int kMostErrors = 4095;  // the kernel knows no more; a larger number is none of an error

// Sends all of `parts`, which is used up. Returns false with `errno`: EFAULT when the caller's
// bytes can't be read, otherwise EIO.
bool sendAll(int fd, iovec* parts, int count) {
  bool begun = false;
  while (count > 0) {
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = static_cast<std::size_t>(count);
    ssize_t sent = sendmsg(fd, &message, MSG_NOSIGNAL);
    if (sent < 0) {
      if (errno == EINTR) continue;
      // A part of a call would be taken for its whole.
      if (begun || errno != EFAULT) {
        shutdown(fd, SHUT_RDWR);
        errno = EIO;
      }
      return false;
    }
    begun = true;
    while (count > 0 && static_cast<std::size_t>(sent) >= parts->iov_len) {
      sent -= static_cast<ssize_t>(parts->iov_len);
      ++parts;
      --count;
    }
    if (count > 0) {
      parts->iov_base = static_cast<char*>(parts->iov_base) + sent;
      parts->iov_len -= static_cast<std::size_t>(sent);
    }
  }
  return true;
}

// Returns true iff something has come; otherwise sets `errno`.
bool checkReceived(int fd, ssize_t come) {
  if (come > 0) return true;
  // What is left of the reply would be taken for the next one.
  if (come < 0) shutdown(fd, SHUT_RDWR);
  errno = come < 0 && errno == EFAULT ? EFAULT : EIO;
  return false;
}

bool receiveAll(int fd, void* buffer, std::size_t size) {
  for (char* to = static_cast<char*>(buffer); size > 0;) {
    const ssize_t come = recv(fd, to, size, MSG_WAITALL);
    if (come < 0 && errno == EINTR) continue;
    if (!checkReceived(fd, come)) return false;
    to += come;
    size -= static_cast<std::size_t>(come);
  }
  return true;
}

bool discard(int fd, std::size_t size) {
  char away[512];
  while (size > 0) {
    const std::size_t part = size < sizeof away ? size : sizeof away;
    if (!receiveAll(fd, away, part)) return false;
    size -= part;
  }
  return true;
}

bool sendCall(int fd, CallKind kind, std::uint32_t word, const void* bytes, std::size_t size) {
  Call call{static_cast<std::uint32_t>(kind), word, static_cast<std::uint32_t>(size)};
  iovec parts[] = {{&call, sizeof call}, {const_cast<void*>(bytes), size}};
  return sendAll(fd, parts, size > 0 ? 2 : 1);
}

// Waits for the reply and puts at most `capacity` of its bytes into `buffer`, `*got` of them.
// Returns the result as system calls do.
//
// The hardware sends a reply in one piece, so that one call takes it mostly. There is nothing
// behind it to be taken by mistake: the next reply answers the next call.
int receive(int fd, void* buffer, std::size_t capacity, std::size_t* got) {
  Reply reply{};
  iovec parts[] = {{&reply, sizeof reply}, {buffer, capacity}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = capacity > 0 ? 2 : 1;
  ssize_t come = 0;
  do {
    come = recvmsg(fd, &message, 0);
  } while (come < 0 && errno == EINTR);
  if (!checkReceived(fd, come)) return -1;
  auto already = static_cast<std::size_t>(come);
  if (already < sizeof reply) {
    if (!receiveAll(fd, reinterpret_cast<char*>(&reply) + already, sizeof reply - already))
      return -1;
    already = sizeof reply;
  }
  already -= sizeof reply;
  *got = reply.size < capacity ? reply.size : capacity;
  if (already < *got && !receiveAll(fd, static_cast<char*>(buffer) + already, *got - already))
    return -1;
  if (!discard(fd, reply.size - *got)) return -1;
  if (reply.result >= 0) return reply.result;
  errno = reply.result >= -kMostErrors ? -reply.result : EIO;
  return -1;
}

std::size_t imageSize(const void* argument) {
  TOverlayImage head;
  std::memcpy(&head, argument, sizeof head);
  constexpr std::size_t kPixelBytes = 2;
  const std::size_t width = head.width[0] + head.width[1] * 256U;
  const std::size_t height = head.height[0] + head.height[1] * 256U;
  const std::size_t size = sizeof head + width * height * kPixelBytes;
  constexpr auto kMax = static_cast<std::size_t>(kOverlayImageMax);
  return size < kMax ? size : kMax;
}

// Returns how many bytes of the argument the hardware is to see.
std::size_t bytesOut(Argument kind, const void* argument) {
  switch (kind) {
    case Argument::kHeader:
      return 0;
    case Argument::kText: {
      const std::size_t length = strnlen(static_cast<const char*>(argument), kTextMax);
      return length < kTextMax ? length + 1 : kTextMax;
    }
    case Argument::kImage:
      return imageSize(argument);
    default:
      return argumentSize(kind);
  }
}

}  // namespace

const char* onBoard(const char* inside, char* path) {
  const char* const board = std::getenv("VS_BOARD");
  std::snprintf(path, PATH_MAX, "%s%s", board != nullptr ? board : "", inside);
  return path;
}

int connectNode(const char* path, bool closeOnExec) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | (closeOnExec ? SOCK_CLOEXEC : 0), 0);
  if (fd < 0) return -1;
  UnixAddress address;
  char hardware[PATH_MAX];
  int result = address.set(onBoard(kHardwareSocket, hardware)) ? 0 : -1;
  if (result == 0) {
    do {
      result = connect(fd, address.get(), address.size());
    } while (result != 0 && errno == EINTR);
    address.clear();
  }
  std::size_t got = 0;
  if (result != 0) {
    errno = ENXIO;
  } else if (!sendCall(fd, CallKind::kOpen, 0, path, std::strlen(path)) ||
             receive(fd, nullptr, 0, &got) != 0) {
    result = -1;
    if (errno == EIO) errno = ENXIO;  // it is about to end
  }
  if (result == 0) return fd;
  const int error = errno;
  close(fd);
  errno = error;
  return -1;
}

long readNode(int fd, void* buffer, std::size_t size) {
  if (size == 0) return 0;
  if (size > INT_MAX) size = INT_MAX;
  if (!sendCall(fd, CallKind::kRead, static_cast<std::uint32_t>(size), nullptr, 0)) return -1;
  std::size_t got = 0;
  const int result = receive(fd, buffer, size, &got);
  // A caller takes what it is told for its own: it must have come, and not be more than it asked
  // for.
  if (result < 0 || static_cast<std::size_t>(result) <= got) return result;
  errno = EIO;
  return -1;
}

int controlNode(int fd, unsigned request, void* argument) {
  std::size_t out = 0;
  std::size_t back = 0;
  if (const Request* const known = findRequest(request)) {
    if (argument == nullptr) {
      errno = EFAULT;
      return -1;
    }
    out = bytesOut(known->argument, argument);
    if (argumentComesBack(known->argument)) back = argumentSize(known->argument);
  }
  if (!sendCall(fd, CallKind::kIoctl, request, argument, out)) return -1;
  std::size_t got = 0;
  return receive(fd, argument, back, &got);
}

void setNodeOwner(int fd, int owner) {
  const int before = errno;
  sendCall(fd, CallKind::kOwner, static_cast<std::uint32_t>(owner), nullptr, 0);
  errno = before;
}
