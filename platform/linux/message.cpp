#include "platform/message.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/linux/folders.h"
#include "platform/linux/process_name.h"
#include "platform/linux/root.h"
#include "platform/linux/unix_address.h"
#include "platform/log.h"

namespace {

constexpr char kFolder[] = "/run/camera/msg";
constexpr mode_t kSocketMode = 0660;
// A peer that floods the queue with rubbish must not keep the caller.
constexpr int kMostDropped = 64;

int newSocket() { return socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); }

// Gives `fd` the name `path`. The name appears at once and complete, in the place of one that a
// dead process left. Returns true on success, otherwise `errno` says why not.
bool bindTo(int fd, const std::string& folder, const std::string& name) {
  if (!makeFolders(folder)) return false;
  const std::string path = folder + "/" + name;
  const std::string draft = folder + "/." + name + "." + std::to_string(getpid());
  unlink(draft.c_str());
  UnixAddress address;
  const bool bound = address.set(draft.c_str()) && bind(fd, address.get(), address.size()) == 0 &&
                     chmod(draft.c_str(), kSocketMode) == 0 &&
                     rename(draft.c_str(), path.c_str()) == 0;
  const int error = errno;
  if (!bound) unlink(draft.c_str());
  address.clear();
  errno = error;
  return bound;
}

int queue = -1;         // this process's own; main thread, as the next
std::string queuePath;  // its name

// Returns this process's queue, made at the first call; -1 when it can't be made. Main thread.
int ownQueue() {
  static int reported = 0;  // the error that the log knows of
  if (queue >= 0) return queue;
  const int fd = newSocket();
  if (fd >= 0 && bindTo(fd, rooted(kFolder), processName())) {
    reported = 0;
    queuePath = rooted(kFolder) + "/" + processName();
    return queue = fd;
  }
  if (reported != errno) {
    reported = errno;
    logEx(2, "can't open the message queue: %s", std::strerror(reported));
  }
  if (fd >= 0) close(fd);
  return -1;
}

// Somebody may have removed the queue's name, with all of the folder perhaps: then no message would
// ever come again. The next call makes a new one. Another process's queue in its place is left.
void closeUnlessNamed() {
  if (access(queuePath.c_str(), F_OK) == 0 || errno != ENOENT) return;
  logEx(2, "the message queue was removed");
  close(queue);
  queue = -1;
}

bool isProcessName(const char* name) {
  return name != nullptr && *name != '\0' && *name != '.' && std::strchr(name, '/') == nullptr;
}

}  // namespace

int SendMessage(const char* process, int id, int argument1, int argument2, int type) {
  if (!isProcessName(process)) {
    errno = EINVAL;
    return -1;
  }
  const TMessage message{getpid(), id, argument1, argument2, type, {0, 0}};
  UnixAddress address;
  const int fd = newSocket();
  ssize_t sent = -1;
  if (fd >= 0 && address.set(rooted(kFolder).append("/").append(process).c_str()))
    sent = sendto(fd, &message, sizeof message, MSG_DONTWAIT | MSG_NOSIGNAL, address.get(),
                  address.size());
  const int error = errno;
  address.clear();
  if (fd >= 0) close(fd);
  errno = error;
  return sent == static_cast<ssize_t>(sizeof message) ? 0 : -1;
}

int PeekMessage(TMessage* message) {
  if (ownQueue() < 0) return -1;
  for (int dropped = 0; dropped < kMostDropped; ++dropped) {
    TMessage received{};
    const ssize_t length = recv(queue, &received, sizeof received, MSG_DONTWAIT | MSG_TRUNC);
    if (length < 0) {
      closeUnlessNamed();
      return -1;
    }
    if (length == static_cast<ssize_t>(sizeof received)) {
      *message = received;
      return 0;
    }
    logEx(2, "message of %ld bytes dropped", static_cast<long>(length));
  }
  return -1;
}
