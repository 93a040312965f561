// What the platform itself needs to know of the daemon's threads: whether the calling one is to
// hurry, and which are still inside their bodies.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

struct ThreadAccess {
  // Returns true iff waits of the calling thread are to end early: the body of the calling PThread
  // was asked to stop from outside, or on the main thread the process was. One load; false on any
  // other thread. Long platform calls look here between their steps, of 100 ms at the most.
  static bool stopAsked();

  // Returns what tells another thread the same about the calling one, for as long as the body that
  // calls this is inside.
  static std::function<bool()> stopTest();

  // Pauses the calling thread by the monotonic clock; zero or less: no pause.
  // Returns the microseconds that were left when stopAsked() ended the pause; 0 after a whole one.
  static std::int64_t pause(std::int64_t microseconds);

  // Makes the calling thread the main one: its pauses end when `fd` becomes readable.
  static void adoptMain(int fd);

  // Starts a thread of the platform's own, detached and with signals blocked as in all threads but
  // the main one. Returns 0 or the error number.
  static int start(void* (*body)(void*), void* argument);

  // Writes the names of the bodies that were asked to stop and have not returned into `names`,
  // separated by commas. Returns their number. Any thread, allocates nothing.
  static int stuck(char* names, std::size_t size);

  // Asks all bodies to end and waits for them, but not for those that an owner has left behind.
  // Returns true iff no body is inside any more. Main thread.
  static bool endAll();
};
