#include "board/drivers/open_nodes.h"

#include <sys/stat.h>

#include <cerrno>

namespace {

constexpr int kMostDescriptors = 4096;  // numbers below it can be nodes
constexpr int kMostNodes = 64;

std::atomic<OpenNode*> table[kMostDescriptors];
OpenNode nodes[kMostNodes];
pthread_mutex_t tableLock = PTHREAD_MUTEX_INITIALIZER;

class Lock {
 public:
  Lock() { pthread_mutex_lock(&tableLock); }
  ~Lock() { pthread_mutex_unlock(&tableLock); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
};

// Returns the number that no other open socket has, 0 when `fd` is no socket.
unsigned long inodeOf(int fd) {
  const int before = errno;
  struct stat about {};
  const bool known = fstat(fd, &about) == 0 && S_ISSOCK(about.st_mode);
  errno = before;
  return known ? static_cast<unsigned long>(about.st_ino) : 0;
}

bool inTable(int fd) { return fd >= 0 && fd < kMostDescriptors; }

// The table is locked.
void forget(int fd) {
  OpenNode* const node = table[fd].exchange(nullptr);
  if (node != nullptr && --node->descriptors == 0) node->inode = 0;
}

// Forgets what was closed unseen. The table is locked.
void sweep() {
  for (int fd = 0; fd < kMostDescriptors; ++fd) {
    const OpenNode* const node = table[fd];
    if (node != nullptr && inodeOf(fd) != node->inode) forget(fd);
  }
}

// The table is locked.
OpenNode* freeNode() {
  for (OpenNode& node : nodes)
    if (node.inode == 0) return &node;
  return nullptr;
}

}  // namespace

OpenNode* findNode(int fd) {
  if (!inTable(fd)) return nullptr;
  OpenNode* const node = table[fd].load(std::memory_order_acquire);
  if (node == nullptr) return nullptr;
  if (inodeOf(fd) == node->inode) return node;
  const Lock lock;
  if (table[fd] == node) forget(fd);
  return nullptr;
}

bool addNode(int fd, int flags) {
  const Lock lock;
  OpenNode* node = freeNode();
  if (node == nullptr) {
    sweep();
    node = freeNode();
  }
  if (node == nullptr || !inTable(fd)) {
    errno = EMFILE;
    return false;
  }
  forget(fd);
  node->flags = flags;
  node->owner = 0;
  node->descriptors = 1;
  node->inode = inodeOf(fd);
  table[fd].store(node, std::memory_order_release);
  return true;
}

void addDescriptor(int fd, OpenNode* node) {
  if (!inTable(fd)) return;
  const Lock lock;
  if (table[fd] == node) return;
  forget(fd);
  ++node->descriptors;
  table[fd].store(node, std::memory_order_release);
}

void forgetDescriptor(int fd) {
  if (!inTable(fd) || table[fd].load(std::memory_order_acquire) == nullptr) return;
  const Lock lock;
  forget(fd);
}
