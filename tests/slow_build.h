// What the build under test is watched for.
#pragma once

// A test of one thread has no races to be found: where it takes many times as long it is skipped.
#ifdef __SANITIZE_THREAD__
constexpr bool kWatchedForRaces = true;
#else
constexpr bool kWatchedForRaces = false;
#endif

// Limits of time that are no promise, but show that something has an end, are longer by so much.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr unsigned kSlow = 4;
#else
constexpr unsigned kSlow = 1;
#endif

#define SKIP_WHERE_RACES_ARE_WATCHED() \
  if (kWatchedForRaces) GTEST_SKIP() << "one thread: nothing to be seen in this build"
