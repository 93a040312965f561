// A lock between threads.
#pragma once

#include <pthread.h>

// One POSIX mutex with default attributes: not recursive. Fits std::lock_guard. Any thread.
class TMutex {
 public:
  TMutex();
  TMutex(const TMutex&) = delete;
  TMutex& operator=(const TMutex&) = delete;
  virtual ~TMutex();

  virtual void lock();
  virtual void unlock();
  // Takes the lock if that needs no waiting. Returns false iff somebody holds it.
  virtual bool trylock();

 private:
  pthread_mutex_t mutex_;
};
