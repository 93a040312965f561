// Which descriptors of this process are device nodes of the board.
#pragma once

#include <pthread.h>

#include <atomic>

// One opened node. Several descriptors may stand for it, as after dup2().
struct OpenNode {
  std::atomic<unsigned long> inode{0};  // of the socket to the hardware; 0: this place is free
  std::atomic<int> flags{0};            // as F_GETFL gives them
  std::atomic<int> owner{0};            // as F_GETOWN gives it
  int descriptors = 0;                  // of this process, guarded by the table's lock
  // Held from a call to its reply, so that the threads of the process take turns.
  pthread_mutex_t turn = PTHREAD_MUTEX_INITIALIZER;
};

// Returns the node behind `fd`, null when it is none. Costs one load for descriptors that never
// were nodes. A number that meanwhile belongs to something else (a close that nobody saw, such as
// close_range()) is found out and forgotten. Any thread, signal handlers.
OpenNode* findNode(int fd);

// Enters `fd`, a socket connected to the hardware. `flags`: those of open(). Returns false with
// `errno` when there is no place for it. Any thread.
bool addNode(int fd, int flags);

// Enters `fd` as another descriptor of `node`. Does nothing when the number is too large: then the
// descriptor is a plain socket. Any thread.
void addDescriptor(int fd, OpenNode* node);

// Forgets `fd` before it is closed. Any thread.
void forgetDescriptor(int fd);
