// Pauses, descriptors and shell commands.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <thread>

#include "platform/linux/plain_command.h"
#include "platform/os.h"
#include "platform/timer.h"
#include "tests/platform/support.h"
#include "tests/platform/thread_body.h"

namespace {

TEST(Pauses, LastAsLongAsAskedFor) {
  int result = -1;
  EXPECT_GE(msOf([&] { result = os::usleep(50000); }), 50U);
  EXPECT_EQ(result, 0);
  unsigned left = 1;
  EXPECT_GE(msOf([&] { left = os::sleep(1); }), 1000U);
  EXPECT_EQ(left, 0U);
}

TEST(Pauses, NothingIsNoPause) {
  EXPECT_EQ(os::sleep(0), 0U);
  EXPECT_EQ(os::usleep(0), 0);
}

TEST(Pauses, SignalsDoNotShortenThem) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGALRM, &action, nullptr);
  const itimerval often{{0, 10000}, {0, 10000}};
  const itimerval never{};
  setitimer(ITIMER_REAL, &often, nullptr);
  int result = -1;
  EXPECT_GE(msOf([&] { result = os::usleep(200000); }), 200U);
  setitimer(ITIMER_REAL, &never, nullptr);
  EXPECT_EQ(result, 0);
}

TEST(Pauses, OfABodyEndWhenItIsAskedToStop) {
  std::atomic<unsigned> left{0};
  std::atomic<int> second{0};
  Body body([&](Body&) {
    left = os::sleep(1000);
    second = os::usleep(1000000000);  // the stop goes on counting
  });
  body.run();
  ASSERT_TRUE(eventually([&] { return body.started == 1; }));
  EXPECT_LT(msOf([&] { EXPECT_TRUE(body.stop(true)); }), 1000U);
  EXPECT_GE(left, 990U);
  EXPECT_LE(left, 1000U);
  EXPECT_EQ(second, -1);
}

TEST(Pauses, OfTheLongestKindEndWithTheStopAlone) {
  std::atomic<unsigned> left{0};
  std::atomic<int> result{0};
  Body longest([&](Body&) { left = os::sleep(std::numeric_limits<unsigned>::max()); });
  Body finest([&](Body&) { result = os::usleep(std::numeric_limits<unsigned long>::max()); });
  for (Body* body : {&longest, &finest}) {
    body->run();
    ASSERT_TRUE(eventually([&] { return body->started == 1; }));
    EXPECT_LT(msOf([&] { EXPECT_TRUE(body->stop(true)); }), 1000U);
  }
  EXPECT_GT(left, 4000000000U);
  EXPECT_EQ(result, -1);
}

TEST(Pauses, OfABodyThatEndsByItselfAreWhole) {
  std::atomic<int> result{-1};
  std::atomic<std::uint32_t> took{0};
  Body body([&](Body& self) {
    self.leave();
    took = msOf([&] { result = os::usleep(100000); });
  });
  body.run();
  ASSERT_TRUE(eventually([&] { return body.ended == 1; }));
  EXPECT_EQ(result, 0);
  EXPECT_GE(took, 100U);
}

TEST(Pauses, OfABodyThatStopsItselfAreWhole) {
  std::atomic<int> result{-1};
  Body body([&](Body& self) {
    self.stop(true);
    result = os::usleep(20000);
  });
  body.run();
  ASSERT_TRUE(eventually([&] { return body.ended == 1; }));
  EXPECT_EQ(result, 0);
}

TEST(Pauses, OfALeavingBodyEndWhenItIsAskedFromOutside) {
  Body body([&](Body& self) {
    self.leave();
    os::sleep(1000);
  });
  body.run();
  ASSERT_TRUE(eventually([&] { return body.started == 1 && !body.running(); }));
  EXPECT_LT(msOf([&] { EXPECT_TRUE(body.stop(true)); }), 1000U);
}

TEST(Pauses, OfTheNextRunAreWholeAgain) {
  std::atomic<int> result{-1};
  Body body([&](Body& self) {
    if (self.started == 1) untilStopped(self);
    if (self.started == 2) result = os::usleep(20000);
  });
  body.run();
  ASSERT_TRUE(eventually([&] { return body.started == 1; }));
  body.stop(false);
  body.run();
  ASSERT_TRUE(eventually([&] { return body.ended == 2; }));
  EXPECT_EQ(result, 0);
}

TEST(Files, CloseOnExec) {
  const TempRoot root;
  const int fd = os::open(root.path("/file").c_str(), O_WRONLY | O_CREAT);
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
  EXPECT_EQ(os::write(fd, "abc", 3), 3);
  EXPECT_EQ(os::lseek(fd, 1, SEEK_SET), 1);
  EXPECT_EQ(os::close(fd), 0);
  EXPECT_EQ(os::close(fd), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(os::open(root.path("/missing").c_str(), O_RDONLY), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST(Files, ReadsStartOverAfterASignal) {
  struct sigaction action {};
  action.sa_handler = [](int) {};  // without SA_RESTART
  sigaction(SIGALRM, &action, nullptr);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const itimerval often{{0, 5000}, {0, 5000}};
  const itimerval never{};
  setitimer(ITIMER_REAL, &often, nullptr);
  std::thread writer([&] {
    os::usleep(100000);
    EXPECT_EQ(os::write(ends[1], "x", 1), 1);
  });
  char byte = 0;
  EXPECT_EQ(os::read(ends[0], &byte, 1), 1);
  setitimer(ITIMER_REAL, &never, nullptr);
  writer.join();
  EXPECT_EQ(byte, 'x');
  close(ends[0]);
  close(ends[1]);
}

TEST(Commands, ReportHowTheyEnded) {
  EXPECT_EQ(os::system("exit 0"), 0);
  const int three = os::system("exit 3");
  EXPECT_TRUE(WIFEXITED(three));
  EXPECT_EQ(WEXITSTATUS(three), 3);
  const TempRoot root;
  const int killed = os::system(("exec " + root.script("kill -9 $$")).c_str());
  EXPECT_TRUE(WIFSIGNALED(killed));
  EXPECT_EQ(WTERMSIG(killed), SIGKILL);
  EXPECT_EQ(WEXITSTATUS(os::system("no-such-command-anywhere")), 127);
}

TEST(Commands, InheritTheStandardDescriptorsAlone) {
  for (int i = 0; i < 20; ++i) ASSERT_GE(dup(STDOUT_FILENO), 3);  // not closed on exec
  const TempRoot root;
  const std::string standard =
      root.script("for fd in 0 1 2; do [ -e /proc/$$/fd/$fd ] || exit 1; done");
  EXPECT_EQ(os::system(standard.c_str()), 0);
  // The shell that runs a script has the script open.
  const std::string others = root.script(
      "fd=3; while [ $fd -lt 60 ]; do\n"
      "[ -e /proc/$$/fd/$fd ] && [ ! /proc/$$/fd/$fd -ef $0 ] && exit 1\n"
      "fd=$((fd + 1)); done; exit 0");
  EXPECT_EQ(os::system(others.c_str()), 0);
}

TEST(Commands, StartWithNoSignalBlockedOrIgnored) {
  const TempRoot root;
  signal(SIGPIPE, SIG_IGN);
  signal(SIGHUP, SIG_IGN);
  const std::string command =
      root.script("exec grep -E 'SigBlk|SigIgn' /proc/self/status >" + root.path("/signals"));
  std::atomic<int> status{-1};
  Body body([&](Body&) { status = os::system(command.c_str()); });
  body.run();
  ASSERT_TRUE(eventually([&] { return body.ended == 1; }));
  EXPECT_EQ(status, 0);
  const std::string signals = readFile(root.path("/signals"));
  EXPECT_THAT(signals, ::testing::ContainsRegex("SigBlk:\t0+\n"));
  // The C library keeps two of the real-time signals, beyond 31, to itself.
  EXPECT_THAT(signals, ::testing::ContainsRegex("SigIgn:\t[0-9a-f]{8}[08]0{7}\n"));
}

TEST(Commands, LeaveNoZombie) {
  for (int i = 0; i < 20; ++i) ASSERT_EQ(os::system("exit 0"), 0);
  EXPECT_EQ(os::system("exit 0 &"), 0);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST(Commands, InTheBackgroundAreNotWaitedFor) {
  const TempRoot root;
  const std::string command = root.script("until [ -e " + root.path("/go") +
                                          " ]; do sleep 0.01; done; echo >" + root.path("/done")) +
                              " &";
  EXPECT_EQ(os::system(command.c_str()), 0);
  EXPECT_NE(access(root.path("/done").c_str(), F_OK), 0);
  writeFile(root.path("/go"), "");
  EXPECT_TRUE(eventually([&] { return access(root.path("/done").c_str(), F_OK) == 0; }));
}

TEST(Commands, SurviveSignalsThatInterruptTheWait) {
  const TempRoot root;
  const std::string command = root.script("sleep 0.2; exit 7");
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGALRM, &action, nullptr);
  const itimerval often{{0, 5000}, {0, 5000}};
  const itimerval never{};
  setitimer(ITIMER_REAL, &often, nullptr);
  const int status = os::system(command.c_str());
  setitimer(ITIMER_REAL, &never, nullptr);
  EXPECT_EQ(WEXITSTATUS(status), 7);
}

TEST(Commands, FromManyThreadsGetTheirOwnStatus) {
  atOnce(4, 10, [](int caller, int) {
    const std::string command = "exit " + std::to_string(caller + 10);
    EXPECT_EQ(WEXITSTATUS(os::system(command.c_str())), caller + 10);
  });
}

// What the daemon runs, with the values that it puts in at their extremes.
TEST(Commands, OfTheDaemonArePlain) {
  for (const char* command :
       {"/etc/init.d/ntpc &", "/sbin/updatedst &", "rtchk -reload", "ptcmd BTONE=1 &",
        "ptcmd BTONE=2147483647 &", "ptcmd BTONE=-2147483648 &", "/etc/init.d/smb.sh start",
        "/etc/init.d/smb.sh stop", "rm -rf /smb/camera/20260102"})
    EXPECT_TRUE(isPlainCommand(command)) << command;
}

TEST(Commands, ThatTheShellWouldReadOtherwiseAreRefused) {
  const TempRoot root;
  LogReader log(root);
  const std::string victim = root.path("/victim");
  const std::string touch = "touch " + victim;
  const std::string hostile[] = {
      "rm -rf /smb/camera/20260102; " + touch,
      "rm -rf /smb/camera/20260102\n" + touch,
      "rm -rf /smb/camera/20260102\r" + touch,
      "rm -rf /smb/camera/`" + touch + "`",
      "rm -rf /smb/camera/$(" + touch + ")",
      "rm -rf /smb/camera/${HOME}",
      "rm -rf /smb/camera/$HOME",
      "rm -rf /smb/camera/*",
      "rm -rf /smb/camera/2026010?",
      "rm -rf /smb/camera/[0-9]",
      "rm -rf /smb/camera/{a,b}",
      "rm -rf ~",
      "rm -rf /smb/camera/../../etc",
      "rm -rf ..",
      "true && " + touch,
      "true || " + touch,
      "true | " + touch,
      "true & " + touch,
      touch + " &&",
      touch + " & ",
      touch + "&",
      "&",
      "true >" + victim,
      "true <" + victim,
      "true 'quoted'",
      "true \"quoted\"",
      "true \\",
      "true #",
      "! true",
      "(true)",
      "true\ttab",
      "true \x01",
      "true \x7f",
      "true \xc3\xa4",
      "LD_PRELOAD=/tmp/evil.so true",
      "-c true",
      " true",
      "true ",
      "true  true",
      "",
  };
  for (const std::string& command : hostile) {
    errno = 0;
    EXPECT_EQ(os::system(command.c_str()), -1) << command;
    EXPECT_EQ(errno, EACCES) << command;
  }
  EXPECT_NE(access(victim.c_str(), F_OK), 0);
  EXPECT_TRUE(log.waitFor("2 unsafe command refused: rm -rf /smb/camera/20260102?" + touch));
}

TEST(Commands, WithoutAShellFail) {
  if (emulated()) GTEST_SKIP() << "the emulator does not hand the failed start on";
  const TempRoot root;
  Child child([&root] {
    if (chroot(root.path("").c_str()) != 0) return 77;
    _exit(os::system("exit 0") == -1 ? 0 : 1);  // a sanitizer's last look needs /proc
    return 0;
  });
  const int status = child.wait();
  if (status == 77) GTEST_SKIP() << "needs the right to change the root";
  EXPECT_EQ(status, 0);
}

}  // namespace
