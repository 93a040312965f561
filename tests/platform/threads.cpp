// Starting, stopping and starting again of threads.
#include "platform/thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "tests/platform/support.h"
#include "tests/platform/thread_body.h"

namespace {

std::atomic<int> refusals{0};  // so many of the next threads can't be had

}  // namespace

extern "C" {
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument);

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument) {
  if (refusals > 0 && refusals-- > 0) return EAGAIN;
  return __real_pthread_create(thread, attributes, body, argument);
}
}

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;

TEST(Threads, StartRunsTheBodyOnItsOwnThread) {
  std::atomic<pthread_t> of{};
  Body body([&](Body&) { of = pthread_self(); });
  EXPECT_FALSE(body.running());
  body.run();
  ASSERT_TRUE(eventually([&] { return body.ended == 1; }));
  EXPECT_FALSE(pthread_equal(of, pthread_self()));
  EXPECT_TRUE(body.stop(true));
  EXPECT_FALSE(body.running());
}

TEST(Threads, AThreadThatTheSystemRefusesOnceIsStartedAllTheSame) {
  Body body(untilStopped);
  refusals = 2;
  body.run();
  EXPECT_EQ(refusals, 0);
  EXPECT_TRUE(eventually([&] { return body.started == 1; }));
  EXPECT_TRUE(body.stop(true));
}

TEST(Threads, StartsWhileTheBodyRunsDoNothing) {
  Body body(untilStopped);
  for (int i = 0; i < 3; ++i) body.run();
  ASSERT_TRUE(eventually([&] { return body.started == 1; }));
  body.run();
  EXPECT_TRUE(body.running());
  EXPECT_TRUE(body.stop(true));
  EXPECT_EQ(body.started, 1);
  EXPECT_EQ(body.ended, 1);
}

TEST(Threads, StoppingWhatNeverRanIsDoneAtOnce) {
  Body body(untilStopped);
  EXPECT_TRUE(body.stop(false));
  EXPECT_TRUE(body.stop(true));
}

TEST(Threads, StopWithoutWaitReturnsWhileTheBodyIsInside) {
  Gate gate;
  Body body([&](Body&) { gate.wait(); });
  body.run();
  ASSERT_TRUE(eventually([&] { return body.started == 1; }));
  EXPECT_FALSE(body.stop(false));
  EXPECT_FALSE(body.running());
  EXPECT_EQ(body.ended, 0);
  gate.open();
  EXPECT_TRUE(body.stop(true));
  EXPECT_EQ(body.ended, 1);
}

TEST(Threads, StopWithWaitGivesUpAfterFiveSeconds) {
  Gate gate;
  Body body([&](Body&) { gate.wait(); });
  body.run();
  ASSERT_TRUE(eventually([&] { return body.started == 1; }));
  bool returned = true;
  const std::uint32_t took = msOf([&] { returned = body.stop(true); });
  EXPECT_FALSE(returned);
  EXPECT_GE(took, 4990U);
  EXPECT_LT(took, 8000U);
  gate.open();
}

TEST(Threads, StopFromTheBodyItselfDoesNotWait) {
  std::atomic<bool> result{true};
  Body body([&](Body& self) { result = self.stop(true); });
  const std::uint32_t took = msOf([&] {
    body.run();
    eventually([&] { return body.ended == 1; });
  });
  EXPECT_LT(took, 4000U);
  EXPECT_FALSE(result);
}

TEST(Threads, StartAfterStopBeforeTheReturnStartsTheBodyOnceMore) {
  Gate gate;
  Body body([&](Body& self) {
    if (self.started == 1) gate.wait();
    untilStopped(self);
  });
  body.run();
  ASSERT_TRUE(eventually([&] { return body.started == 1; }));
  body.stop(false);
  for (int i = 0; i < 3; ++i) body.run();
  EXPECT_FALSE(body.running()) << "the first body must still see that it is to end";
  gate.open();
  ASSERT_TRUE(eventually([&] { return body.started == 2; }));
  EXPECT_TRUE(eventually([&] { return body.running(); }));
  EXPECT_TRUE(body.stop(true));
  EXPECT_EQ(body.started, 2);
  EXPECT_EQ(body.ended, 2);
}

TEST(Threads, StopTakesAWaitingStartBack) {
  Gate gate;
  Body body([&](Body&) { gate.wait(); });
  body.run();
  ASSERT_TRUE(eventually([&] { return body.started == 1; }));
  body.stop(false);
  body.run();
  body.stop(false);
  gate.open();
  EXPECT_TRUE(body.stop(true));
  EXPECT_EQ(body.started, 1);
}

TEST(Threads, StopFromTheBodyItselfTakesAWaitingStartBack) {
  Gate gate;
  Body body([&](Body& self) {
    gate.wait();
    self.stop(false);
  });
  body.run();
  ASSERT_TRUE(eventually([&] { return body.started == 1; }));
  body.stop(false);
  body.run();
  gate.open();
  ASSERT_TRUE(eventually([&] { return body.stop(false); }));
  EXPECT_EQ(body.started, 1);
}

TEST(Threads, StopWithWaitAnswersForTheBodyThatItAsked) {
  Gate gate;
  Gate second;
  Body body([&](Body& self) { self.started == 1 ? gate.wait() : second.wait(); });
  body.run();
  ASSERT_TRUE(eventually([&] { return body.started == 1; }));
  std::atomic<bool> returned{false};
  std::thread stopper([&] { returned = body.stop(true); });
  ASSERT_TRUE(eventually([&] { return !body.running(); }));
  body.run();
  gate.open();
  stopper.join();
  EXPECT_TRUE(returned) << "the body that was asked has returned, though another one runs";
  second.open();
}

TEST(Threads, StartWhileTheBodyIsLeavingIsKept) {
  Gate gate;
  Gate left;
  Body body([&](Body& self) {
    if (self.started > 1) return;
    self.leave();
    left.open();
    gate.wait();
  });
  body.run();
  left.wait();
  EXPECT_FALSE(body.running());
  body.run();
  gate.open();
  EXPECT_TRUE(eventually([&] { return body.ended == 2; }));
}

TEST(Threads, BodyThatFindsNewWorkWhileLeavingStartsItselfAgain) {
  Body body([](Body& self) {
    self.leave();
    if (self.started == 1) self.run();
  });
  body.run();
  EXPECT_TRUE(eventually([&] { return body.ended == 2; }));
  EXPECT_TRUE(body.stop(true));
  EXPECT_EQ(body.started, 2);
}

// Bodies that end whenever they find no work, while others bring some.
TEST(Threads, NoWorkIsLostBetweenLastLookAndEnd) {
  std::atomic<int> brought{0};
  std::atomic<int> done{0};
  Body body([&](Body& self) {
    done = brought.load();
    self.leave();
    if (done != brought) self.run();
  });
  for (int round = 0; round < 300; ++round) {
    atOnce(3, 10, [&](int, int) {
      ++brought;
      body.run();
    });
    ASSERT_TRUE(eventually([&] { return done == brought; })) << round;
  }
  EXPECT_TRUE(eventually([&] { return body.started == body.ended; }));
}

TEST(Threads, StartsAndStopsFromManyThreadsNeverRunTwoBodies) {
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
  Body body([&](Body& self) {
    const int now = ++inside;
    if (now > most) most = now;
    while (self.running()) std::this_thread::yield();
    --inside;
  });
  for (unsigned round = 0; round < 50; ++round) {
    atOnce(4, 100, [&](int caller, int n) {
      std::minstd_rand random(round * 1000 + static_cast<unsigned>(caller * 100 + n));
      switch ((random(), random() >> 16) % 4) {
        case 0:
        case 1:
          body.run();
          break;
        case 2:
          body.stop(false);
          break;
        default:
          std::this_thread::yield();
      }
    });
    ASSERT_TRUE(body.stop(true)) << round;
    ASSERT_EQ(inside, 0) << round;
  }
  EXPECT_EQ(most, 1);
  EXPECT_EQ(body.started, body.ended);
  EXPECT_GT(body.started, 50);
}

TEST(Threads, ThousandsOfStartsAndStops) {
  Body body(untilStopped);
  for (int i = 0; i < 3000; ++i) {
    body.run();
    if (i % 3 == 0) body.stop(false);
    ASSERT_TRUE(body.stop(true)) << i;
  }
  EXPECT_EQ(body.started, body.ended);
}

TEST(Threads, ObjectsGoOnlyAfterTheirBodiesHaveReturned) {
  for (int i = 0; i < 500; ++i) {
    auto word = std::make_unique<int>(0);
    auto body = std::make_unique<Body>([&word](Body& self) {
      while (self.running()) ++*word;
      ++*word;
    });
    body->run();
    TStopDeadline deadline;
    ASSERT_TRUE(deadline.end(*body));
    body.reset();
    word.reset();  // the sanitizers see a body that still counts
  }
}

TEST(Threads, NamesReachTheKernelCutToFifteenCharacters) {
  Gate gate;
  Body video([&](Body&) { gate.wait(); }, "KVX-video");
  Body longer([&](Body&) { gate.wait(); }, "a-name-of-20-letters");
  video.run();
  longer.run();
  ASSERT_TRUE(eventually([&] { return video.started + longer.started == 2; }));
  std::vector<std::string> names;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
    names.push_back(readFile(task.path().string() + "/comm"));
  EXPECT_THAT(names, Contains("KVX-video\n"));
  EXPECT_THAT(names, Contains("a-name-of-20-le\n"));
  gate.open();
}

TEST(Threads, SignalsAreBlockedInBodiesAndNotInTheirCreator) {
  std::atomic<bool> checked{false};
  Body body([&](Body&) {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    bool all = true;
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGIO, SIGALRM, SIGCHLD, SIGUSR1, SIGPIPE})
      all = all && sigismember(&mask, number) == 1;
    checked = all;
  });
  sigset_t before;
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  body.run();
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  EXPECT_TRUE(eventually([&] { return body.ended == 1; }));
  EXPECT_TRUE(checked);
  EXPECT_EQ(sigismember(&before, SIGTERM), sigismember(&after, SIGTERM));
}

std::atomic<pthread_t> signalled{};

TEST(Threads, SignalsOfTheProcessReachTheMainThread) {
  struct sigaction action {};
  action.sa_handler = [](int) { signalled = pthread_self(); };
  sigaction(SIGUSR1, &action, nullptr);
  Body first(untilStopped);
  Body second(untilStopped);
  first.run();
  second.run();
  ASSERT_TRUE(eventually([&] { return first.started + second.started == 2; }));
  kill(getpid(), SIGUSR1);
  ASSERT_TRUE(eventually([] { return signalled.load() != pthread_t{}; }));
  EXPECT_TRUE(pthread_equal(signalled, pthread_self()));
}

TEST(Threads, AllBodiesEndUnderOneDeadline) {
  const TempRoot root;
  LogReader log(root);
  Gate gate;
  const auto stubborn = [&](Body&) { gate.wait(); };
  Body first(stubborn, "first");
  Body second(stubborn, "second");
  Body polite(untilStopped, "polite");
  for (Body* body : {&first, &second, &polite}) body->run();
  ASSERT_TRUE(eventually([&] { return first.started + second.started + polite.started == 3; }));
  const std::uint32_t took = msOf([&] {
    TStopDeadline deadline;
    EXPECT_GT(deadline.leftMs(), 4000);
    EXPECT_FALSE(deadline.end(first));
    EXPECT_EQ(deadline.leftMs(), 0);
    EXPECT_FALSE(deadline.end(second));
    polite.stop(true);
    EXPECT_TRUE(deadline.end(polite)) << "past the deadline, but its body has returned";
    EXPECT_FALSE(deadline.end(first));
  });
  EXPECT_GE(took, 4990U);
  EXPECT_LT(took, 8000U);
  EXPECT_THAT(log.lines(), ElementsAre("3 thread first does not end, left behind",
                                       "3 thread second does not end, left behind"));
  gate.open();
}

TEST(Threads, StuckBodyThatReturnsAfterAllCanBeStartedAgain) {
  Gate gate;
  Body body([&](Body&) { gate.wait(); });
  body.run();
  ASSERT_TRUE(eventually([&] { return body.started == 1; }));
  body.stop(false);
  gate.open();
  ASSERT_TRUE(eventually([&] { return body.stop(false); }));
  body.run();
  EXPECT_TRUE(eventually([&] { return body.ended == 2; }));
}

// A body that needs nothing of its object.
class Careless : public PThread {
 public:
  Careless() : PThread("careless") {}
  static Gate gate;
  static std::atomic<int> inside;

 protected:
  void execute() override {
    ++inside;
    gate.wait();
    --inside;
  }
};
Gate Careless::gate;
std::atomic<int> Careless::inside{0};

TEST(Threads, ObjectThatIsDeletedUnderItsBodyIsToldAndNeverStartedAgain) {
  const TempRoot root;
  LogReader log(root);
  auto careless = std::make_unique<Careless>();
  careless->run();
  ASSERT_TRUE(eventually([] { return Careless::inside == 1; }));
  careless->stop(false);
  careless->run();
  careless.reset();
  EXPECT_THAT(log.lines(), ElementsAre("3 thread careless is deleted while its body runs"));
  Careless::gate.open();
  EXPECT_TRUE(eventually([] { return Careless::inside == 0; }));
}

TEST(Threads, ThreadThatCannotStartIsReportedAndStopped) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "sanitizers need the address space that this test takes away";
#endif
  Child child([] {
    // More than one, because the C library keeps the stacks of earlier threads.
    std::vector<std::unique_ptr<Body>> bodies;
    bodies.reserve(20);
    for (int i = 0; i < 20; ++i) bodies.push_back(std::make_unique<Body>(untilStopped));
    const rlimit none{1, 1};
    setrlimit(RLIMIT_AS, &none);
    for (auto& body : bodies) {
      body->run();
      if (!body->running()) return body->stop(true) ? 0 : 1;
    }
    return 2;
  });
  const int status = child.wait();
  if (emulated()) GTEST_SKIP() << "the emulator does not limit its program's address space";
  EXPECT_EQ(status, 0);
  EXPECT_THAT(child.output(), ::testing::HasSubstr("can't start thread body: "));
}

}  // namespace
