// The platform as unit tests see it: it records what is called, answers as scripted, and has a
// clock that moves only when something pauses.
//
//   FakePlatform fake;
//   fake.stopAfterPasses(10);
//   server.onRunning();
//   EXPECT_EQ(fake.callsWith("system("), ...);
//
// A thread's body runs on the test's own thread by runBody(). Pauses, waits for frames and limits
// of time move the clock; what is due by at() happens in between. The list of calls holds, in
// order:
//   system(rtchk -reload)             sbSetUserdata(video,14,1)     SendMessage(socmond,52,1,0)
//   log 2 get_flip() fail             log_event(515)                set_trigger_in_state(1)
//   set_channel(2)                    open(/a)  open2(/usb/b)       run(NAME)  stop(NAME,0)
//   end(NAME)  delete(NAME)           i2avi(1520)                   free_log()  usage(audio)
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/message.h"
#include "platform/thread.h"
#include "tests/fakes/fake_clock.h"
#include "tests/fakes/fake_delivery.h"
#include "tests/fakes/fake_files.h"
#include "tests/fakes/fake_overlays.h"
#include "tests/fakes/fake_recordings.h"
#include "tests/fakes/fake_stream.h"

// Everything a test scripts and asks. The newest object is the platform of the process; a test, or
// its fixture, makes one. Any thread, if not told otherwise.
class FakePlatform {
 public:
  FakePlatform();
  FakePlatform(const FakePlatform&) = delete;
  FakePlatform& operator=(const FakePlatform&) = delete;
  ~FakePlatform();

  // The platform of the process. Between tests, a spare one.
  static FakePlatform& the();

  // --- What was called.
  std::vector<std::string> calls() const;
  std::vector<std::string> takeCalls();  // and begins a new list
  std::vector<std::string> callsWith(const std::string& beginning) const;
  long count(const std::string& beginning) const;  // how many calls begin so
  long logged(const std::string& text) const;  // how many log lines, of any level, say just this
  bool called(const std::string& call) const;  // exactly this one
  void clearCalls() { takeCalls(); }
  // For long runs: nothing is kept, but onCall() still sees all.
  void keepCalls(bool on) { keepCalls_ = on; }
  void onCall(std::function<void(const std::string&)> callback);
  // Lengths of the pauses so far, in microseconds; begins anew with takeCalls().
  std::vector<long> pausesUs() const;
  // How often a call that only asks was made: "getIniInt", "get_trigger_in_state", "PeekMessage"...
  long asked(const std::string& function) const;

  // --- Failures. `function` by its name, "get_flip", "os::read", "open2", "SendMessage"...
  void fails(const std::string& function, long times = -1);  // -1: until works()
  void failsWith(const std::string& function, int error);    // the same, with this errno
  void works(const std::string& function);

  // --- Time.
  FakeClock clock;
  void stepWallClock(long seconds) { clock.stepWall(static_cast<std::int32_t>(seconds)); }
  // Local time "YYYY-MM-DD HH:MM:SS" of the zone in the environment.
  void setWallClock(const char* localTime);
  static void setTimeZone(const char* zone);  // for instance "CET-1CEST,M3.5.0,M10.5.0/3"
  // Lets time pass as a pause does, with what is due in between.
  void advance(double seconds);
  // Calls back once, `seconds` from now.
  void at(double seconds, std::function<void()> callback);
  // Called after every pause by os::sleep() or os::usleep(), with its length. Replaces the one
  // before.
  void onPause(std::function<void(long microseconds)> callback);

  // --- The end of loops: the body on this thread is asked to stop; without one, the process.
  void stopAfterPasses(long pauses);  // counted from now
  void stopAfter(double seconds);     // counted from now; the pause under way ends early
  void stopNow();

  // --- Threads. run() only notes the start; nothing runs by itself.
  // Runs the body on this thread, once. Returns true iff it was started again meanwhile, so that it
  // is to be run again. Aborts when the thread was not started. Only with the fake threads.
  bool runBody(PThread& thread);
  bool started(const PThread& thread) const;  // waits for runBody()
  // Called when a body leaves by itself: just before its running flag goes (false) and just after.
  void onLeave(std::function<void(bool gone)> callback) { onLeave_ = std::move(callback); }
  void leaving(bool gone) const {  // for the fake threads
    if (onLeave_) onLeave_(gone);
  }
  // The body of the thread called `name` does not end when it is asked to.
  void threadStuck(const std::string& name);
  bool stuck(const std::string& name) const;

  // --- Streams.
  FakeStream video{"video"};
  FakeStream video2{"video2"};
  FakeStream audio{"audio"};

  // --- Files and storage.
  FakeFiles files;
  FakeRecordings recordings;  // AVI and raw files, and their folders
  void diskFull() { files.spaceLeft(0); }
  void usbMounted(bool on = true) { usbState = on; }
  void usbUnmounted() { usbState = 0; }
  void smbMounted(bool on = true) { smbState = on; }
  void smbUnmounted() { smbState = 0; }
  std::atomic<int> usbState{1};
  std::atomic<int> smbState{0};
  std::atomic<int> usedPercent{10};

  // --- FTP and mail.
  FakeDelivery delivery;

  // --- Configuration, messages, commands.
  FakeIni ini;
  void config(const std::string& key, const std::string& value);  // "flip": get_flip()
  void config(const std::string& key, int value) { config(key, std::to_string(value)); }
  FakeOverlays overlays;
  std::atomic<int> triggerIn{0};
  std::atomic<int> triggerOut{0};
  std::atomic<int> triggerOut2{0};
  std::atomic<int> privacy{0};
  void postMessage(const TMessage& message);  // waits for PeekMessage()
  void postMessageOfType(int type);
  void onCommand(std::function<int(const std::string&)> callback);  // gives the status
  static constexpr int kProcess = 4711;                             // what os::getpid() says
  std::map<int, void (*)(int)> handlers;                            // of os::onSignal(), by signal
  void onIoctl(std::function<int(int fd, unsigned long request, void* argument)> callback);
  // Reads of every descriptor, once there is one; otherwise they are those of the files.
  void onRead(std::function<long(int fd, char* buffer, std::size_t size)> callback);
  std::atomic<int> fileFlags{0};  // what os::fcntl(F_GETFL) says

  // --- For the platform functions.
  void record(const std::string& call);
  bool failing(const char* function);                   // counts the call
  bool pause(std::int64_t microseconds, bool counted);  // true iff it ended early
  bool findConfig(const char* key, std::string* value) const;
  bool takeMessage(TMessage* message);
  int command(const std::string& command);
  int ioctl(int fd, unsigned long request, void* argument);
  long read(int fd, void* buffer, std::size_t size);

 private:
  friend class FakeThreads;
  bool moveClock(std::int64_t microseconds);  // true iff it ended early
  bool pauseInRealTime(std::int64_t microseconds);
  bool runDue(std::int64_t until);
  bool nothingDueUntil(std::int64_t end) const;
  void checkEndless();
  void countAsked(const char* function);

  FakePlatform* before_;
  mutable std::mutex lock_;
  std::vector<std::string> calls_;
  std::vector<long> pausesUs_;
  // How often each function was asked, by the address of its name. Without a lock, because it is
  // counted on every call.
  struct Asked {
    std::atomic<const char*> function{nullptr};
    std::atomic<long> times{0};
  };
  std::array<Asked, 256> asked_;
  std::atomic<bool> keepCalls_{true};
  std::atomic<bool> watched_{false};  // by onCall_
  std::function<void(const std::string&)> onCall_;
  struct Failure {
    long times;
    int error;
  };
  std::map<std::string, Failure, std::less<>> failures_;
  std::atomic<bool> anyFailure_{false};
  std::multimap<std::int64_t, std::function<void()>> due_;
  std::shared_ptr<const std::function<void(long)>> onPause_;
  std::function<void(bool)> onLeave_;
  std::int64_t stopAtUs_ = -1;
  long stopAfterPauses_ = -1;
  long pausesAfterStop_ = 0;
  std::map<std::string, std::string> config_;
  std::deque<TMessage> messages_;
  std::atomic<bool> anyMessage_{false};
  std::vector<std::string> stuck_;
  std::function<int(const std::string&)> onCommand_;
  std::function<int(int, unsigned long, void*)> onIoctl_;
  std::shared_ptr<const std::function<long(int, char*, std::size_t)>> onRead_;
};

// Marks what the fake itself does on this thread, so that its allocations are not the daemon's.
class FakeScope {
 public:
  FakeScope() { ++depth_; }
  ~FakeScope() { --depth_; }
  FakeScope(const FakeScope&) = delete;
  FakeScope& operator=(const FakeScope&) = delete;
  static bool inside() { return depth_ > 0; }

 private:
  static thread_local int depth_;
};
