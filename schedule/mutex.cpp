#include "schedule/mutex.h"

#include <cerrno>

TMutex::TMutex() { pthread_mutex_init(&mutex_, nullptr); }

TMutex::~TMutex() { pthread_mutex_destroy(&mutex_); }

void TMutex::lock() { pthread_mutex_lock(&mutex_); }

void TMutex::unlock() { pthread_mutex_unlock(&mutex_); }

bool TMutex::trylock() { return pthread_mutex_trylock(&mutex_) != EBUSY; }
