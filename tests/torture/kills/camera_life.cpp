#include "tests/torture/kills/camera_life.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "core/status_slots.h"
#include "platform/stream_buffer.h"
#include "tests/torture/kills/processes.h"

namespace {

constexpr char kLog[] = "/var/log/camera/daemon.log";
constexpr char kConfig[] = "/etc/camera.conf";
constexpr char kHardwareSocket[] = "/run/camera/boardctl";
constexpr char kOutputs[][32] = {"/run/camera/io/output1", "/run/camera/io/output2"};

constexpr double kFirstPictureMs = 1000;
constexpr double kSettleMs = 1000;  // for which an encoder's input settles at each start
constexpr double kGivenUpMs = 10000;
constexpr double kHardwareMs = 60000;  // it loads many libraries
constexpr double kEndMs = 5000;
constexpr double kHardlyBegunMs = 500;  // until then a signal may meet a process without a handler
constexpr double kOutputMs = 2000;      // for the peer that drives them
constexpr double kStepMs = 20;
constexpr int kReaders = 2;
constexpr double kReaderMs = 400;
constexpr int kUsualFrames = 6;
constexpr int kGeometries = 60;  // a reader keeps what it has ever attached

std::int64_t wallUs() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return std::int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

std::string ownPath() { return std::filesystem::read_symlink("/proc/self/exe").string(); }

}  // namespace

CameraLife::CameraLife(const Options& options, const Pictures* pictures, Report* report)
    : options_(options),
      pictures_(pictures),
      report_(report),
      settings_(contentOf(kConfig)),
      moments_(options.seed),
      faults_(options.model, options.server, options.disk, &moments_),
      watch_(pictures),
      recordings_(pictures, &watch_, report),
      readers_(kReaders, Reader{-1, 0}) {
  startPeers();
}

CameraLife::~CameraLife() {
  for (const pid_t one : {daemon_, socmond_, hardware_})
    if (one > 0) killChild(one);
  for (const Reader& one : readers_)
    if (one.pid > 0) killChild(one.pid);
}

void CameraLife::startPeers() {
  startSocmond();
  if (!options_.model.empty() && hardware_ < 0) startHardware();
}

void CameraLife::startSocmond() {
  if (socmond_ < 0) socmond_ = start({"/home/socmond"}, kLog);
}

void CameraLife::startHardware() {
  unlink(kHardwareSocket);
  hardware_ = start({"/home/hardware", "--board", "/", "--model", options_.model}, kLog);
  watch_.mayLackHeaders(false);
  const double begun = nowMs();
  while (access(kHardwareSocket, F_OK) != 0) {
    if (nowMs() - begun > kHardwareMs) return report_->broken("the hardware does not start", "");
    sleepMs(1);
  }
}

// The drivers have nothing to say of the picture that they still had, nor of others, until there is
// hardware again.
void CameraLife::killHardware() {
  watch_.mayLackHeaders(true);
  killChild(hardware_);
  hardware_ = -1;
}

void CameraLife::writeEvents() const {
  const std::string section = "Erased = 0\nSchedule = always\n";
  std::string text = "[Main]\nMax = 4\n[1]\n" + section + "Source = 3\nInterval = 1\nUsb = 1\n" +
                     faults_.actions();
  if (options_.films) text += "[2]\n" + section + "Source = 6\nSmb = 1\nSmbDuration = 3600\n";
  text += "[3]\n" + section + "Source = 6\nUsb = 1\nOut1 = 1\nOut1Duration = 600\n";
  text += "[4]\n" + section + "Source = 5\nUsb = 1\nOut2 = 1\nOut2Duration = 2\nBuzzer = 1\n";
  writeContent("/etc/events.conf", text);
}

void CameraLife::configure() {
  if (options_.orderly) faults_.choose(options_.fault);
  if (!options_.orderly && geometry_ < kGeometries && moments_.chance(4)) ++geometry_;
  const int types = options_.model == "B520" ? 1 : 0;  // that the model starts with
  writeContent(kConfig,
               settings_ + "\n[Video]\nCompressionType = " + std::to_string(moments_.whole(types)) +
                   "\n[Buffers]\nVideoFrames = " + std::to_string(kUsualFrames + geometry_ % 2) +
                   "\n" + faults_.settings());
  writeEvents();
}

void CameraLife::startDaemon() {
  begun_ = nowMs();
  begunWallUs_ = wallUs();
  if (hardware_ > 0) hardwareWaited_ = waitedForProcessor(hardware_);
  if (options_.model.empty()) {
    const std::string picture = "-n" + Pictures::name(moments_.whole(pictures_->count() - 1));
    daemon_ = start({"/home/video_svr", picture, "-f2", "-mv"}, kLog);
  } else {
    daemon_ =
        start({"/home/video_svr", "-" + options_.model, "-mv"}, kLog, "/home/libvs_drivers.so");
  }
}

void CameraLife::startReader(Reader* reader) {
  if (reader->pid > 0) {
    report_->count("kills-of-readers");
    const int status = killChild(reader->pid);
    if (WIFEXITED(status))
      report_->broken("a reader has seen no whole frame", std::to_string(status));
  }
  reader->pid = start({ownPath(), pictures_ != nullptr ? "--reader" : "--stream-reader"}, kLog);
  reader->until = nowMs() + moments_.upTo(kReaderMs);
}

void CameraLife::replaceReaders() {
  if (options_.orderly) return;
  for (Reader& one : readers_)
    if (nowMs() >= one.until) startReader(&one);
}

void CameraLife::something() {
  const int what = moments_.whole(options_.orderly ? 29 : 39);
  if (what == 0) sbSetUserdata(sbVideo(), kSlotConfigChanged, 1);
  if (what == 1 || what == 2) sbSetUserdata(sbVideo(), kSlotWebTrigger1, 25);
  if (what == 3 || what == 4) sbSetUserdata(sbVideo(), kSlotWebTrigger2, 26);
  if (what == 8 && options_.model == "B520") sbSetUserdata(sbVideo(), kSlotMode, moments_.whole(3));
  if (what == 5 && !struck_) {
    faults_.strike();
    if (faults_.hardwareDies() && hardware_ > 0) {
      killHardware();
    }
    struck_ = true;
  }
  if (options_.orderly) return;
  if (what == 6) {
    report_->count("kills-of-peers");
    killChild(socmond_);
    socmond_ = -1;
    startSocmond();
  }
  if (what == 7 && hardware_ > 0 && moments_.chance(30)) {
    report_->count("kills-of-peers");
    killHardware();
  }
}

void CameraLife::lead(double ms) {
  const double end = begun_ + ms;
  for (double now = nowMs(); now < end; now = nowMs()) {
    sleepMs(std::min(kStepMs, end - now));
    replaceReaders();
    if (end - nowMs() > 0) something();
  }
}

// What it was to be: it depends on what the camera does, and when.
double CameraLife::moment() {
  const int kind = moments_.whole(9);
  const double longest = options_.films ? 8000 : 5000;
  if (options_.orderly) return moments_.upTo(kind < 2 ? 100 : kind < 4 ? 1000 : longest);
  if (kind < 3) return moments_.upTo(40);
  if (kind < 6) return moments_.upTo(400);
  if (kind < 8) return moments_.upTo(1500);
  return moments_.upTo(longest);
}

// What the machine, and not the camera, made this life wait since `begun`. These come one after the
// other: the daemon's threads start each other, a picture is the hardware's work first, and the
// trial's own reader sees it last.
double CameraLife::patience(double begun) const {
  double waited = hiccups_.since(begun);
  for (const auto& one : waitedForProcessor(daemon_)) waited += one.second;
  if (hardware_ > 0) waited += longestWait(hardware_, hardwareWaited_);
  return waited;
}

// For whoever looks for the reason.
void CameraLife::sayWhatItDoes() const {
  constexpr std::size_t kSome = 2000;
  const std::string log = contentOf(kLog);
  std::printf("no picture %s, %s\n%s\n", options_.model.c_str(), contentOf(kConfig).c_str(),
              log.substr(log.size() > kSome ? log.size() - kSome : 0).c_str());
  std::error_code error;
  const std::string tasks = "/proc/" + std::to_string(daemon_) + "/task";
  for (const auto& one : std::filesystem::directory_iterator(tasks, error)) {
    const std::string task = one.path().string();
    std::printf("%s%s\n", contentOf(task + "/comm").c_str(), contentOf(task + "/stack").c_str());
  }
}

void CameraLife::awaitFirstPicture() {
  double first = watch_.firstAfter(begunWallUs_);
  const double settling = options_.model == "K310" ? kSettleMs : 0;
  // A life that ends earlier says nothing about it.
  if (first == 0 && nowMs() - begun_ - settling < kFirstPictureMs) return;
  if (hardware_ < 0 && !options_.model.empty()) return;
  while (first == 0 && nowMs() - begun_ < kGivenUpMs) {
    sleepMs(1);
    first = watch_.firstAfter(begunWallUs_);
  }
  const double took = first == 0 ? kGivenUpMs : first - begun_ - settling;
  report_->count("first-pictures");
  report_->count("first-picture-sum-ms", static_cast<long>(took));
  report_->most("first-picture-most-ms", static_cast<long>(took));
  if (took <= kFirstPictureMs) return;
  const double waited = patience(begun_);
  if (first == 0) sayWhatItDoes();
  report_->count("first-pictures-late");
  std::printf("first picture after %.0f ms, of which the machine had %.0f\n", took, waited);
  if (took - waited > kFirstPictureMs)
    report_->broken("the first picture is late",
                    std::to_string(took) + " ms, the machine's part " + std::to_string(waited));
}

void CameraLife::live() {
  configure();
  startPeers();
  const double ms = moment();
  struck_ = false;
  startDaemon();
  lead(ms);
  if (!options_.orderly) awaitFirstPicture();
  options_.orderly ? endIt() : killIt();
  if (const std::string wrong = events_.look(); !wrong.empty())
    report_->broken("the event log", wrong);
  report_->count("lives");
}

void CameraLife::killIt() {
  if (moments_.chance(20)) {  // in the middle of its end
    kill(daemon_, SIGTERM);
    sleepMs(moments_.upTo(30));
  }
  const double waited = patience(begun_);
  int status = killChild(daemon_);
  daemon_ = -1;
  const bool itself = WIFEXITED(status) || (WIFSIGNALED(status) && WTERMSIG(status) != SIGKILL &&
                                            WTERMSIG(status) != SIGTERM);
  if (itself && status != 0) report_->broken("the daemon ended by itself", std::to_string(status));
  report_->count("kills-of-daemons");
  recordings_.look({false, false, waited, "killed"});
}

void CameraLife::endIt() {
  const double begun = nowMs();
  kill(daemon_, SIGTERM);
  int status = 0;
  report_->count("exits");
  report_->count("exits, " + (struck_ || faults_.name() == "servers silent" ||
                                      faults_.name() == "command hangs" || faults_.diskIsFull()
                                  ? faults_.name()
                                  : std::string("nothing")));
  if (!ended(daemon_, kEndMs + kGivenUpMs, &status)) {
    report_->broken("it does not end", faults_.name());
    status = killChild(daemon_);
  }
  daemon_ = -1;
  judgeEnd(begun, status);
  judgeOutputs();
  // Neither the watchdog closes files, nor does anybody on a share that hangs.
  const bool closed = status == 0 && !(struck_ && faults_.shareHangs());
  recordings_.look({closed, faults_.spoilRecordings(), kGivenUpMs, faults_.name()});
  faults_.heal();
}

void CameraLife::judgeEnd(double begun, int status) {
  const double took = nowMs() - begun;
  const std::string how = std::to_string(took) + " ms, status " + std::to_string(status) + ", " +
                          faults_.name() + (struck_ ? "" : ", not yet");
  report_->most("exit-most-ms", static_cast<long>(took));
  if (took - hiccups_.since(begun) > kEndMs) report_->broken("the end is late", how);
  const bool early = begun - begun_ < kHardlyBegunMs + hiccups_.since(begun_);
  if (status == 0 || (WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM && early)) return;
  const bool watchdog = WIFEXITED(status) && WEXITSTATUS(status) == 1;
  if (watchdog) report_->count("exits-by-the-watchdog");
  if (!watchdog || !struck_ || !faults_.mayHoldTheDaemon())
    report_->broken("an end out of order", how);
}

void CameraLife::judgeOutputs() {
  const double begun = nowMs();
  const auto areOff = [] {
    return std::all_of(std::begin(kOutputs), std::end(kOutputs),
                       [](const char* one) { return contentOf(one).substr(0, 1) == "0"; });
  };
  while (!areOff() && nowMs() - begun < kOutputMs + hiccups_.since(begun)) sleepMs(1);
  if (areOff()) return;
  report_->broken("an output is on", faults_.name());
  for (const char* one : kOutputs) writeContent(one, "0\n");
}

void CameraLife::leave() {
  recordings_.look({false, false, kGivenUpMs, "after all"});
  watch_.stop();
  report_->count("frames", watch_.frames());
  // Drivers that fail give what they like.
  if (watch_.errors() > 0 && !options_.orderly)
    report_->broken("a frame is not whole", watch_.complaint());
  report_->count("event-lines", events_.lines());
}
