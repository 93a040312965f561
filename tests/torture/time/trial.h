// What the programs of this trial share: how long they may take, and how they say what they found.
#pragma once

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

// Counts what was compared and what differed. Bound to one thread.
class TTrial {
 public:
  // `seconds`: that the program may take.
  explicit TTrial(const char* seconds)
      : end_(Clock::now() + std::chrono::milliseconds(std::lround(std::atof(seconds) * 1000))) {}

  bool timeIsLeft() const { return Clock::now() < end_; }
  double secondsPassed() const {
    return std::chrono::duration<double>(Clock::now() - start_).count();
  }

  // Counts a comparison. `what()`: says what differed; the first few are printed.
  template <typename What>
  void expect(bool same, What what) {
    ++compared;
    if (same) return;
    if (++wrong <= kPrinted) std::printf("WRONG %s\n", std::string(what()).c_str());
  }

  // The exit status of the program.
  int status() const { return wrong == 0 && compared > 0 ? 0 : 1; }

  long long compared = 0;
  long long wrong = 0;

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr int kPrinted = 20;
  const Clock::time_point start_ = Clock::now();
  const Clock::time_point end_;
};
