// The camera's messaging service: short messages between its processes, by process name.
#pragma once

#include <cstdint>

// A message as it travels, in native byte order.
struct TMessage {
  std::int32_t sender;  // process id
  std::int32_t id;      // what is asked; fixed by the receiver
  std::int32_t argument1;
  std::int32_t argument2;
  std::int32_t type;         // fifth word; kMessageInputTrigger for the daemon
  std::int32_t reserved[2];  // 0
};
static_assert(sizeof(TMessage) == 28, "seven 32-bit words: other processes send and receive them");

// Type of the message by which the digital input tells the daemon that it has signalled.
constexpr int kMessageInputTrigger = 8;

// Sends a message to the process called `process`. Never blocks.
// Returns 0 on success; -1 when the peer is missing or does not keep up. Any thread.
int SendMessage(const char* process, int id, int argument1, int argument2, int type = 0);

// Takes the oldest message for this process off its queue. Never blocks.
// Returns 0 on success, -1 (and `*message` unchanged) when none is waiting. Main thread.
// The first call opens the queue; until it can, every call tries, and each new reason logs
// 2 "can't open the message queue: %s". A queue whose name somebody has removed is opened anew by
// the next call, and logs 2 "the message queue was removed". A datagram that is no message is taken
// off as well and logs 2 "message of %ld bytes dropped".
int PeekMessage(TMessage* message);
