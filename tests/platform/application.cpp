// The frame of the daemon: hooks, signals, and the end of the process within five seconds.
#include "platform/application.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <thread>
#include <vector>

#include "platform/linux/process_name.h"
#include "platform/log.h"
#include "platform/os.h"
#include "tests/platform/support.h"
#include "tests/platform/thread_body.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

void say(const char* text) {
  std::printf("%s\n", text);
  std::fflush(stdout);
}

// An application whose hooks say that they were called, and then do what a test wants.
class TestApplication : public TApplication {
 public:
  using Hook = std::function<bool()>;
  bool onInitial() override {
    say("initial");
    return initial == nullptr || initial();
  }
  bool onRunning() override {
    say("running");
    return running == nullptr || running();
  }
  bool onRelease() override {
    say("release");
    return release == nullptr || release();
  }

  Hook initial;
  Hook running;
  Hook release;
};

int runWith(TestApplication& application, int argc = 1) {
  std::string name = "program";
  std::string option = "-x";
  char* argv[] = {name.data(), option.data(), nullptr};
  (void)application;
  return TApplication::main(argc, argv);
}

bool untilAsked() {
  while (!TApplication::stopped) os::usleep(300000);
  return true;
}

TEST(Application, HooksAreCalledInTurn) {
  Child child([] {
    TestApplication application;
    return runWith(application);
  });
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(child.output(), "initial\nrunning\nrelease\n");
}

// Otherwise memory grows with the number of threads that there have ever been.
TEST(Application, ThreadsShareOneHeap) {
  Child child([] {
    TestApplication application;
    application.running = [] {
      std::vector<std::thread> threads;
      std::promise<void> allDone;
      const std::shared_future<void> end = allDone.get_future().share();
      std::vector<std::promise<void>> done(4);
      for (auto& mine : done)
        threads.emplace_back([&mine, end] {
          const std::vector<char> memory(1000, 'x');
          mine.set_value();
          end.wait();
        });
      for (auto& one : done) one.get_future().wait();
      malloc_info(0, stdout);
      allDone.set_value();
      for (auto& thread : threads) thread.join();
      return true;
    };
    return runWith(application);
  });
  EXPECT_EQ(child.wait(), 0);
  EXPECT_THAT(child.output(), HasSubstr("<heap nr=\"0\">"));
  EXPECT_THAT(child.output(), Not(HasSubstr("<heap nr=\"1\">")));
}

TEST(Application, FailedStartEndsWithStatusOneAndNothingElse) {
  Child child([] {
    TestApplication application;
    application.initial = [] { return false; };
    return runWith(application);
  });
  EXPECT_EQ(child.wait(), 1);
  EXPECT_EQ(child.output(), "initial\n");
}

TEST(Application, FailedRunIsReleasedAndEndsWithStatusOne) {
  Child child([] {
    TestApplication application;
    application.running = [] { return false; };
    return runWith(application);
  });
  EXPECT_EQ(child.wait(), 1);
  EXPECT_EQ(child.output(), "initial\nrunning\nrelease\n");
}

TEST(Application, FailedReleaseEndsWithStatusOne) {
  Child child([] {
    TestApplication application;
    application.release = [] { return false; };
    return runWith(application);
  });
  EXPECT_EQ(child.wait(), 1);
}

TEST(Application, WithoutAnApplicationObjectNothingRuns) {
  Child child([] {
    char* argv[] = {nullptr};
    return TApplication::main(0, argv);
  });
  EXPECT_EQ(child.wait(), 1);
  EXPECT_THAT(child.output(), HasSubstr("no application object"));
}

TEST(Application, WithoutAWatchdogNothingRuns) {
  Child child([] {
    const rlimit standardOnly{3, 3};
    setrlimit(RLIMIT_NOFILE, &standardOnly);
    TestApplication application;
    return runWith(application);
  });
  EXPECT_EQ(child.wait(), 1);
  EXPECT_THAT(child.output(), HasSubstr("can't watch over the shutdown: Too many open files"));
  EXPECT_THAT(child.output(), Not(HasSubstr("initial")));
}

TEST(Application, MissingStandardDescriptorsAreFilled) {
  const TempRoot root;
  const std::string look =
      root.script("[ -e /proc/$$/fd/0 ] && [ -e /proc/$$/fd/1 ] && [ -e /proc/$$/fd/2 ]");
  Child child([&look] {
    TestApplication application;
    application.running = [&look] {
      for (int fd = 0; fd <= STDERR_FILENO; ++fd)
        if (fcntl(fd, F_GETFD) != 0) return false;
      return os::system(look.c_str()) == 0;
    };
    for (int fd = 0; fd <= STDERR_FILENO; ++fd) close(fd);
    return runWith(application);
  });
  EXPECT_EQ(child.wait(), 0);
}

TEST(Application, FilesAreForItsGroupWhateverItWasStartedWithAndCommandsAreNotConcerned) {
  const TempRoot root;
  const std::string command = root.script("umask >" + root.path("/of-command"));
  Child child([&] {
    umask(0);
    TestApplication application;
    application.running = [&] {
      const mode_t mask = umask(0);
      return mask == 027 && os::system(command.c_str()) == 0;
    };
    return runWith(application);
  });
  EXPECT_EQ(child.wait(), 0);
  const mode_t own = umask(022);
  umask(own);
  char expected[16];
  std::snprintf(expected, sizeof expected, "%04o\n", static_cast<unsigned>(own));
  EXPECT_EQ(readFile(root.path("/of-command")), expected);
}

TEST(Application, ArgumentsAreKept) {
  Child child([] {
    TestApplication application;
    application.initial = [] {
      return TApplication::argc == 2 && std::string(TApplication::argv[1]) == "-x";
    };
    const TempRoot root;
    return runWith(application, 2);
  });
  EXPECT_EQ(child.wait(), 0);
}

TEST(Application, UsageAloneLeavesNoSharedMemoryBehind) {
  const TempRoot root;
  std::filesystem::create_directories(root.path("/dev/shm"));
  const auto run = [](int argc) {
    TestApplication application;
    application.initial = [] { return false; };
    return runWith(application, argc);
  };
  Child usage([&] { return run(1); });
  EXPECT_EQ(usage.wait(), 1);
  EXPECT_FALSE(std::filesystem::exists(root.path("/dev/shm/camera")));
  Child daemon([&] { return run(2); });
  EXPECT_EQ(daemon.wait(), 1);
  EXPECT_TRUE(std::filesystem::exists(root.path("/dev/shm/camera/video"))) << daemon.output();
}

TEST(Application, TerminationAndInterruptEndTheRunInOrder) {
  for (const int number : {SIGTERM, SIGINT}) {
    Child child([] {
      TestApplication application;
      application.running = untilAsked;
      return runWith(application);
    });
    ASSERT_TRUE(child.waitForOutput("running\n"));
    child.signal(number);
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(child.output(), "initial\nrunning\nrelease\n");
  }
}

TEST(Application, SignalsThatTheParentBlockedOrIgnoredStillEndIt) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  sigprocmask(SIG_SETMASK, &all, &before);
  signal(SIGINT, SIG_IGN);
  signal(SIGCHLD, SIG_IGN);
  Child child([] {
    TestApplication application;
    application.running = [] { return os::system("exit 0") == 0 && untilAsked(); };
    return runWith(application);
  });
  sigprocmask(SIG_SETMASK, &before, nullptr);
  signal(SIGINT, SIG_DFL);
  signal(SIGCHLD, SIG_DFL);
  ASSERT_TRUE(child.waitForOutput("running\n"));
  child.signal(SIGINT);
  EXPECT_EQ(child.wait(), 0);
}

TEST(Application, LongPausesOfTheMainThreadEndWithTheSignal) {
  Child child([] {
    TestApplication application;
    application.running = [] { return os::sleep(1000) > 900 && os::usleep(1000000000) != 0; };
    return runWith(application);
  });
  ASSERT_TRUE(child.waitForOutput("running\n"));
  EXPECT_LT(msOf([&] {
              child.signal(SIGTERM);
              EXPECT_EQ(child.wait(), 0);
            }),
            3000U);
}

TEST(Application, PausesBeforeTheSignalAreWhole) {
  Child child([] {
    TestApplication application;
    application.running = [] {
      const std::uint32_t start = monotonicMs();
      return os::usleep(50000) == 0 && monotonicMs() - start >= 50;
    };
    return runWith(application);
  });
  EXPECT_EQ(child.wait(), 0);
}

TEST(Application, PausesOfTheMainThreadLeaveTheProcessorToOthers) {
  Child child([] {
    TestApplication application;
    application.running = [] {
      timespec before{};
      timespec after{};
      clock_gettime(CLOCK_THREAD_CPUTIME_ID, &before);
      os::usleep(400000);
      clock_gettime(CLOCK_THREAD_CPUTIME_ID, &after);
      const auto used =
          (after.tv_sec - before.tv_sec) * 1000000 + (after.tv_nsec - before.tv_nsec) / 1000;
      if (used > 15000) say("busy");  // who turns round and round gets more even of a busy machine
      return true;
    };
    return runWith(application);
  });
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(child.output(), "initial\nrunning\nrelease\n");
}

TEST(Application, WritingToAClosedPipeDoesNotEndIt) {
  Child child([] {
    TestApplication application;
    application.running = [] {
      int ends[2];
      if (pipe(ends) != 0) return false;
      close(ends[0]);
      return os::write(ends[1], "x", 1) == -1;
    };
    return runWith(application);
  });
  EXPECT_EQ(child.wait(), 0);
}

TEST(Application, InterruptDuringACommandCounts) {
  const TempRoot root;
  const std::string wait =
      root.script("echo command; until [ -e " + root.path("/go") + " ]; do sleep 0.01; done");
  Child child([&] {
    TestApplication application;
    application.running = [&] {
      const int status = os::system(wait.c_str());
      return status == 0 && TApplication::stopped;
    };
    return runWith(application);
  });
  ASSERT_TRUE(child.waitForOutput("command\n"));
  child.signal(SIGINT);
  writeFile(root.path("/go"), "");
  EXPECT_EQ(child.wait(), 0) << "the command goes on and the signal is noticed";
}

// Sends SIGTERM to a child that says "ready". Returns its exit status and how long it took.
std::pair<int, std::uint32_t> terminate(Child& child) {
  EXPECT_TRUE(child.waitForOutput("ready\n"));
  int status = 0;
  const std::uint32_t took = msOf([&] {
    child.signal(SIGTERM);
    status = child.wait();
  });
  return {status, took};
}

TEST(Application, CommandThatNeverEndsIsNotWaitedForAtTheEnd) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "this sanitizer hands signals on only when the wait for the command is over";
#endif
  Child child([] {
    TestApplication application;
    application.running = [] {
      say("ready");
      os::system("exec sleep 20");
      return true;
    };
    return runWith(application);
  });
  const auto [status, took] = terminate(child);
  EXPECT_EQ(status, 1);
  EXPECT_LT(took, 5000U);
  EXPECT_THAT(child.output(), HasSubstr("shutdown took too long, ending: main thread\n"));
  EXPECT_THAT(child.output(), Not(HasSubstr("release")));
}

// Stands for the static objects of a process.
void sayDestroyed() { say("destroyed"); }

TEST(Application, StuckBodiesAreNamedAndTheProcessEndsWithoutStaticDestructors) {
  Child child([] {
    std::atexit(sayDestroyed);
    TestApplication application;
    static Gate gate;
    Body stuck([](Body&) { gate.wait(); }, "KVX-video");
    Body other([](Body&) { gate.wait(); }, "recorder");
    Body polite(untilStopped, "polite");
    application.running = [&] {
      for (Body* body : {&stuck, &other, &polite}) body->run();
      while (stuck.started + other.started + polite.started < 3) os::usleep(1000);
      say("ready");
      untilAsked();
      for (Body* body : {&stuck, &other, &polite}) body->stop(false);
      polite.stop(true);
      stuck.stop(true);
      return true;
    };
    return runWith(application);
  });
  const auto [status, took] = terminate(child);
  EXPECT_EQ(status, 1);
  EXPECT_LT(took, 5000U);
  EXPECT_GT(took, 4000U) << "the orderly way has its time";
  EXPECT_THAT(child.output(), HasSubstr("shutdown took too long, ending: KVX-video, recorder\n"));
  EXPECT_THAT(child.output(), Not(HasSubstr("destroyed")));
}

TEST(Application, BodyLeftBehindIsNotDestroyedUnder) {
  Child child([] {
    std::atexit(sayDestroyed);
    static TestApplication application;
    static Gate gate;
    static auto& stuck = *new Body([](Body&) { gate.wait(); }, "stuck");
    application.running = [] {
      stuck.run();
      while (stuck.started < 1) os::usleep(1000);
      TStopDeadline deadline;
      return !deadline.end(stuck);
    };
    return runWith(application);
  });
  int status = -1;
  EXPECT_LT(msOf([&] { status = child.wait(); }), 9000U) << "its five seconds are not spent twice";
  EXPECT_EQ(status, 0);
  EXPECT_THAT(child.output(), HasSubstr("release\n"));
  EXPECT_THAT(child.output(), HasSubstr("thread stuck does not end, left behind\n"));
  EXPECT_THAT(child.output(), Not(HasSubstr("destroyed")));
}

TEST(Application, BodiesThatNobodyEndedAreEndedBeforeStaticDestructors) {
  Child child([] {
    std::atexit(sayDestroyed);
    static TestApplication application;
    static Body forgotten([](Body& self) {
      while (self.running()) os::sleep(1);
      say("ended");
    });
    application.running = [] {
      forgotten.run();
      while (forgotten.started < 1) os::usleep(1000);
      return true;
    };
    return runWith(application);
  });
  EXPECT_EQ(child.wait(), 0);
  EXPECT_THAT(child.output(), HasSubstr("release\nended\ndestroyed\n"));
}

TEST(Application, ThreadsOnTheirWayOutAreGoneBeforeStaticDestructors) {
  Child child([] {
    std::atexit(sayDestroyed);
    static TestApplication application;
    static pthread_key_t key;
    pthread_key_create(&key, [](void*) {
      os::usleep(20000);
      say("gone");
    });
    static Body body([](Body&) { pthread_setspecific(key, &key); });
    application.running = [] {
      body.run();
      return body.stop(true);
    };
    return runWith(application);
  });
  EXPECT_EQ(child.wait(), 0);
  EXPECT_THAT(child.output(), HasSubstr("release\ngone\ndestroyed\n"));
}

TEST(Application, UnreadLogDoesNotSaveAStuckProcess) {
  Child child([] {
    TestApplication application;
    application.running = [] {
      // A pipe that nobody empties, as a terminal that was stopped.
      int ends[2];
      if (pipe(ends) != 0) return false;
      say("ready");
      dup2(ends[1], STDERR_FILENO);
      for (int i = 0; i < 3000; ++i) logEx(3, "line %d of many that nobody reads", i);
      while (true) pause();
    };
    return runWith(application);
  });
  const auto [status, took] = terminate(child);
  EXPECT_NE(status, 0);
  EXPECT_LT(took, 5000U);
}

// The system's logger, hanging inside the log's own lock.
std::atomic<bool> loggerHangs{false};

TEST(Application, HangingLogDoesNotSaveAStuckProcess) {
  Child child([] {
    TestApplication application;
    application.running = [] {
      loggerHangs = true;
      say("ready");
      logEx(3, "never gets through");
      return true;
    };
    return runWith(application);
  });
  const auto [status, took] = terminate(child);
  EXPECT_EQ(status, -SIGALRM);
  EXPECT_LT(took, 5000U);
}

}  // namespace

extern "C" {
ssize_t __real_sendto(int fd, const void* data, size_t size, int flags, const sockaddr* address,
                      socklen_t length);
ssize_t __wrap_sendto(int fd, const void* data, size_t size, int flags, const sockaddr* address,
                      socklen_t length);
ssize_t __wrap_sendto(int fd, const void* data, size_t size, int flags, const sockaddr* address,
                      socklen_t length) {
  while (loggerHangs) pause();
  return __real_sendto(fd, data, size, flags, address, length);
}
}
