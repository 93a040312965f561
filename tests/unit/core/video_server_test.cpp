// The application object: start, run and end of the daemon.
#include "core/video_server.h"

#include <gtest/gtest.h>

#include <climits>

#include "capture/video_source.h"
#include "core/status_slots.h"
#include "events/event_manager.h"
#include "platform/audio.h"
#include "tests/fakes/fake_platform.h"

namespace {

class Server : public TVideoServer {
 public:
  using TVideoServer::audio_;
  using TVideoServer::video_;
};

class VideoServer : public testing::Test {
 protected:
  VideoServer() { fake.files.put("test.jpg", "a picture"); }

  // Runs the hooks as the frame does. Returns the exit status.
  int main(std::vector<const char*> arguments) {
    arguments_ = std::move(arguments);
    arguments_.insert(arguments_.begin(), "video_svr");
    return TApplication::main(static_cast<int>(arguments_.size()),
                              const_cast<char**>(arguments_.data()));
  }

  bool initial(std::vector<const char*> arguments) {
    arguments_ = std::move(arguments);
    arguments_.insert(arguments_.begin(), "video_svr");
    TApplication::argc = static_cast<int>(arguments_.size());
    TApplication::argv = const_cast<char**>(arguments_.data());
    return server.onInitial();
  }

  // Starts, ends and deletions of threads, and commands.
  std::vector<std::string> happened() {
    std::vector<std::string> result;
    for (const std::string& call : fake.calls())
      for (const char* kind : {"run(", "stop(", "end(", "delete(", "system(", "free_log", "usage"})
        if (call.compare(0, std::string(kind).size(), kind) == 0) result.push_back(call);
    return result;
  }

  int interval(const std::string& hours) {
    fake.ini.set("/etc/sys.conf", "System", "Sync Schedule", hours);
    return TVideoServer::getNtpInterval();
  }

  FakePlatform fake;
  std::vector<const char*> arguments_;
  Server server;
};

using Calls = std::vector<std::string>;

TEST_F(VideoServer, WithoutArgumentsItShowsBothUsagesAndEnds) {
  testing::internal::CaptureStdout();
  EXPECT_NE(main({}), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout().find("USAGE:\n\tvideo_svr [video options]"), 0u);
  EXPECT_EQ(fake.calls(), Calls{"usage(audio)"});
  EXPECT_EQ(server.video_, nullptr);
  EXPECT_EQ(server.audio_, nullptr);
}

TEST_F(VideoServer, ReleaseIsSafeAfterARefusedStart) {
  testing::internal::CaptureStdout();
  EXPECT_FALSE(initial({}));
  testing::internal::GetCapturedStdout();
  EXPECT_TRUE(server.onRelease());
  EXPECT_TRUE(fake.called("free_log()"));
}

TEST_F(VideoServer, MakesTheThreadsThatTheOptionsAskFor) {
  const struct {
    const char* option;
    bool video, audio;
  } cases[] = {
      {"-mb", true, true}, {"-mv", true, false}, {"-ma", false, true}, {"-r1", true, false}};
  for (const auto& one : cases) {
    EXPECT_TRUE(initial({one.option}));
    EXPECT_EQ(server.video_ != nullptr, one.video) << one.option;
    EXPECT_EQ(server.audio_ != nullptr, one.audio) << one.option;
    EXPECT_EQ(fake.count("run("), 0);
    EXPECT_TRUE(server.onRelease());
    EXPECT_EQ(server.video_, nullptr);
    EXPECT_EQ(server.audio_, nullptr);
  }
}

TEST_F(VideoServer, AudioStartsFirstAndVideoEndsFirst) {
  fake.stopAfterPasses(3);
  EXPECT_EQ(main({"-mb"}), 0);
  Calls expected = {"run(audio)",    "run(KVX-video)", "stop(KVX-video,0)",
                    "stop(audio,0)", "end(KVX-video)", "delete(KVX-video)",
                    "end(audio)",    "delete(audio)",  "free_log()"};
  Calls threads;
  for (const std::string& call : happened())
    if (call.find("KVX-video") != call.npos || call.find("audio") != call.npos ||
        call == "free_log()")
      threads.push_back(call);
  EXPECT_EQ(threads, expected);
}

TEST_F(VideoServer, TheEventsGoBeforeTheCaptureThreads) {
  fake.stopAfterPasses(3);
  main({"-mv"});
  const Calls calls = fake.calls();
  const auto last = [&](const std::string& call) {
    return std::find(calls.rbegin(), calls.rend(), call) - calls.rbegin();
  };
  // The last of these comes from the event manager's end.
  EXPECT_GT(last("set_trigger_in_state(0)"), last("stop(KVX-video,0)"));
  EXPECT_EQ(fake.count("set_trigger_in_state(0)"), 2);
}

TEST_F(VideoServer, WithoutVideoTheMainThreadOnlySleeps) {
  fake.ini.set("/etc/sys.conf", "System", "Sync Schedule", "0.001");
  fake.video.setSlot(kSlotConfigChanged, 1);
  fake.stopAfterPasses(100000);
  EXPECT_EQ(main({"-ma"}), 0);
  EXPECT_EQ(fake.pausesUs(), std::vector<long>(100000, 1000000));
  EXPECT_EQ(happened(),
            (Calls{"run(audio)", "stop(audio,0)", "end(audio)", "delete(audio)", "free_log()"}));
  EXPECT_TRUE(fake.video.slotWritten(kSlotConfigChanged));
  EXPECT_EQ(fake.asked("getIniInt"), 0);
  EXPECT_EQ(fake.asked("get_trigger_in_state"), 0);
}

TEST_F(VideoServer, AThreadWithoutACameraIsNeverRun) {
  fake.config("compression_type", 2);
  fake.stopAfterPasses(30);
  EXPECT_EQ(main({"-B520", "-mv"}), 0);
  EXPECT_EQ(fake.count("run(KVX-video)"), 0);
  EXPECT_EQ(fake.logged("BRM-520 must use CompressionType 0 or 1"), 1);
  EXPECT_GT(fake.asked("get_trigger_in_state"), 20);  // the house is kept all the same
}

TEST_F(VideoServer, AStopIsSeenAtTheNextPause) {
  fake.stopAfter(100.05);
  const auto start = fake.clock.monotonicUs();
  main({"-mb"});
  EXPECT_EQ(fake.clock.monotonicUs() - start, 100050000);
}

TEST_F(VideoServer, AThreadThatDoesNotEndIsLeftBehind) {
  EXPECT_TRUE(initial({"-mb"}));
  fake.threadStuck("KVX-video");
  TVideoSource* const stuck = server.video_;
  fake.stopAfterPasses(5);
  server.onRunning();
  fake.takeCalls();
  const auto start = fake.clock.monotonicUs();
  EXPECT_TRUE(server.onRelease());
  EXPECT_EQ(fake.logged("thread KVX-video does not end, left behind"), 1);
  EXPECT_EQ(fake.count("delete(KVX-video)"), 0);
  EXPECT_EQ(fake.count("delete(audio)"), 1);
  EXPECT_LE(fake.clock.monotonicUs() - start, 5000000);
  EXPECT_EQ(server.video_, nullptr);
  EXPECT_NE(stuck->camera(), nullptr);
  delete stuck;  // only a test may: there is no body
}

// The body that hangs may be inside the camera, which the capture thread owns.
TEST_F(VideoServer, TheCameraOutlivesAnEventThatIsLeftBehind) {
  EXPECT_TRUE(initial({"-mb"}));
  TVideoSource* const video = server.video_;
  fake.stopAfterPasses(5);
  server.onRunning();
  fake.takeCalls();
  TEventManager::leftBehind = true;
  EXPECT_TRUE(server.onRelease());
  EXPECT_EQ(fake.count("end(KVX-video)"), 1);
  EXPECT_EQ(fake.count("delete(KVX-video)"), 0);
  EXPECT_EQ(fake.count("delete(audio)"), 1);
  TEventManager::leftBehind = false;
  delete video;  // only a test may: there is no body
}

TEST_F(VideoServer, AnExceptionFromAThreadsConstructorPassesOn) {
  struct Thrower {
    explicit Thrower(int& made) {
      ++made;
      throw made;
    }
  };
  int made = 0;
  EXPECT_EQ((testCreate<Thrower>(false, made)), nullptr);
  EXPECT_THROW((testCreate<Thrower>(true, made)), int);
  EXPECT_EQ(made, 1);
}

TEST_F(VideoServer, TheTemplatesTakeNull) {
  PThread* const none = nullptr;
  EXPECT_EQ(testRun(none), nullptr);
  EXPECT_EQ(testStop(none), nullptr);
  EXPECT_EQ(testDestroy(none), nullptr);
}

TEST_F(VideoServer, TheTemplatesReturnTheirArgument) {
  TAudioArgs args(0, nullptr);
  auto* const thread = testCreate<TAudioSource>(true, args);
  EXPECT_EQ(testRun(thread), thread);
  EXPECT_EQ(testStop(thread), thread);
  testDestroy(thread);
  EXPECT_EQ(fake.calls(), (Calls{"run(audio)", "stop(audio,0)", "delete(audio)"}));
}

TEST_F(VideoServer, TheSyncIntervalComesInHours) {
  EXPECT_EQ(TVideoServer::getNtpInterval(), 1800);
  EXPECT_EQ(interval("1"), 3600);
  EXPECT_EQ(interval("0.25"), 900);
  EXPECT_EQ(interval("0.0003"), 1);  // 1.08 s
  EXPECT_EQ(interval("0.0002"), 0);  // 0.72 s
  EXPECT_EQ(interval("0"), 0);
  EXPECT_EQ(interval("-1.00001"), -3600);
}

TEST_F(VideoServer, TheSyncIntervalSaturates) {
  EXPECT_EQ(interval("1e300"), INT_MAX);
  EXPECT_EQ(interval("600000"), INT_MAX);
  EXPECT_EQ(interval("-1e300"), INT_MIN);
  EXPECT_EQ(interval("inf"), INT_MAX);
  EXPECT_EQ(interval("nan"), 0);
}

TEST_F(VideoServer, ASyncIntervalThatIsNoNumberIsTheDefault) {
  EXPECT_EQ(interval("often"), 1800);
  EXPECT_EQ(fake.count("log 2 /etc/sys.conf: [System] Sync Schedule is not a number"), 1);
}

}  // namespace
