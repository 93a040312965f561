// What is preloaded answers calls of the C library in its place, and makes those behind them.
#pragma once

#include <dlfcn.h>

#include <atomic>

// After a declaration: it is what the program calls by that name, and the only kind of symbol to be
// seen.
#define ANSWERS(symbol) __asm__(symbol) __attribute__((visibility("default")))

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
