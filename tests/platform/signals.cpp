// Signals of devices, and the flags of descriptors that ask for them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include "platform/os.h"
#include "platform/relaxed.h"
#include "tests/platform/support.h"
#include "tests/platform/thread_body.h"

namespace {

Relaxed<int> g_signals;
Relaxed<int> g_elsewhere;  // signals that did not come to the main thread
pthread_t g_main;

void onDevice(int signal) {
  if (signal == SIGIO) g_signals = g_signals + 1;
  if (pthread_equal(pthread_self(), g_main) == 0) g_elsewhere = g_elsewhere + 1;
}

class Signals : public testing::Test {
 protected:
  Signals() {
    g_main = pthread_self();
    g_signals = 0;
    g_elsewhere = 0;
    EXPECT_EQ(pipe(ends_), 0);
  }
  ~Signals() override {
    for (const int end : ends_) close(end);
  }
  int input() const { return ends_[0]; }
  void data() const { EXPECT_EQ(write(ends_[1], "x", 1), 1); }

  // As the encoder does it. A pipe can tell of its data by signal, as a device can.
  void askForSignal() const {
    EXPECT_EQ(os::onSignal(SIGIO, onDevice), 0);
    EXPECT_EQ(os::fcntl(input(), F_SETOWN, os::getpid()), 0);
    const int flags = os::fcntl(input(), F_GETFL, 0);
    EXPECT_EQ(flags & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(os::fcntl(input(), F_SETFL, flags | O_ASYNC), 0);
  }

 private:
  int ends_[2] = {-1, -1};
};

TEST_F(Signals, OfADeviceComeToTheHandler) {
  if (emulated()) GTEST_SKIP() << "the emulation passes on no owner of a descriptor";
  askForSignal();
  EXPECT_NE(os::fcntl(input(), F_GETFL, 0) & O_ASYNC, 0);
  EXPECT_EQ(os::fcntl(input(), F_GETOWN, 0), os::getpid());
  data();
  EXPECT_TRUE(eventually([] { return g_signals == 1; }));
  data();
  EXPECT_TRUE(eventually([] { return g_signals == 2; }));
}

TEST_F(Signals, ComeToTheMainThreadWhateverOthersDo) {
  ASSERT_EQ(os::onSignal(SIGIO, onDevice), 0);
  Body body(untilStopped);
  body.run();
  ASSERT_TRUE(eventually([&] { return body.started == 1; }));
  for (int i = 0; i < 100; ++i) {
    const int before = g_signals;
    ASSERT_EQ(kill(os::getpid(), SIGIO), 0);
    ASSERT_TRUE(eventually([=] { return g_signals > before; }));
  }
  EXPECT_EQ(g_elsewhere, 0);
}

TEST_F(Signals, ThatTheParentHadBlockedComeAllTheSame) {
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGIO);
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
  ASSERT_EQ(os::onSignal(SIGIO, onDevice), 0);
  ASSERT_EQ(kill(os::getpid(), SIGIO), 0);
  EXPECT_TRUE(eventually([] { return g_signals == 1; }));
}

TEST_F(Signals, InterruptNoCall) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the sanitizer keeps the signals of a thread back until its call has ended";
#endif
  ASSERT_EQ(os::onSignal(SIGIO, onDevice), 0);
  const pthread_t main = pthread_self();
  std::atomic<bool> reading{true};
  std::thread other([&] {
    while (g_signals < 20) {
      pthread_kill(main, SIGIO);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(reading);
    data();
  });
  char byte = 0;
  EXPECT_EQ(os::read(input(), &byte, 1), 1);
  reading = false;
  EXPECT_EQ(byte, 'x');
  other.join();
}

TEST_F(Signals, ThatDoNotExistAreRefused) {
  for (const int signal : {-1, 0, 1000, SIGKILL, SIGSTOP}) {
    errno = 0;
    EXPECT_EQ(os::onSignal(signal, onDevice), -1) << signal;
    EXPECT_EQ(errno, EINVAL) << signal;
  }
}

TEST_F(Signals, TheFlagsOfAClosedDescriptorCantBeHad) {
  errno = 0;
  EXPECT_EQ(os::fcntl(-1, F_GETFL, 0), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(os::fcntl(-1, F_SETOWN, os::getpid()), -1);
}

}  // namespace
