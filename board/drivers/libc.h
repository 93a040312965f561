// The calls of the C library behind those that this library answers.
#pragma once

#include <dlfcn.h>

#include <atomic>

// One call of the libraries that come after this one, looked up when it is first needed. That may
// happen on any thread, and on several at once: all of them find the same.
template <typename Function>
class Real {
 public:
  constexpr explicit Real(const char* name) : name_(name) {}

  // Looks it up now: dlsym() does not belong into a signal handler. Null when there is none.
  Function* find() {
    Function* function = function_.load(std::memory_order_acquire);
    if (function == nullptr) {
      function = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name_));
      function_.store(function, std::memory_order_release);
    }
    return function;
  }

  template <typename... Arguments>
  auto operator()(Arguments... arguments) {
    return find()(arguments...);
  }

 private:
  const char* name_;
  std::atomic<Function*> function_{nullptr};
};
