// camctl: how people and scripts talk to a running camera, through what it shares with every
// process.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/linux/root.h"
#include "platform/stream_buffer.h"
#include "tools/camctl/boards.h"
#include "tools/camctl/commands.h"

namespace {

constexpr char kExamples[] = R"(Examples:
  camctl status                      everything that the camera shares
  camctl watch --for 10              ten lines, one a second
  camctl set brightness 60           applied between two frames
  camctl trigger web1                fire the first web event
  camctl grab now.jpg                store the next picture
  camctl dump | ffplay -             look at the stream
  camctl repair /smb/camera          recordings that a power cut has left behind

Exit status: 0 done; 1 failed; 2 wrong command line; 3 no camera runs; 4 the camera delivers no
picture.
See also: man camctl)";

struct Options {
  std::string board;
  bool json = false;
  long seconds = 0;
  long eventsFrom = -1;
  long frames = 0;
  std::string setting;
  int value = 0;
  std::string trigger;
  std::string state;  // "on" or "off"
  std::string file;
  std::string format;
  std::string path;
};

using Command = std::function<int()>;

CLI::Validator oneOf(const std::vector<std::string>& words) {
  return CLI::IsMember(words).description("");
}

void addReading(CLI::App& app, Options& o, Command& command) {
  CLI::App* watch = app.add_subcommand("watch", "a line a second: frames, bytes, losses, events");
  watch->add_option("--for", o.seconds, "end after so many seconds")
      ->check(CLI::Range(1L, long{INT_MAX}).description(""))
      ->type_name("SECONDS");
  watch->add_option("--events-from", o.eventsFrom, "show the event log from this byte on")
      ->check(CLI::Range(0L, long{INT_MAX}).description(""))
      ->type_name("BYTE");
  watch->callback([&] { command = [&] { return runWatch(o.seconds, o.eventsFrom); }; });

  CLI::App* grab = app.add_subcommand("grab", "store a picture");
  grab->add_option("FILE", o.file, "\"-\" is standard output")->required()->type_name("");
  grab->callback([&] { command = [&] { return runGrab(o.file); }; });

  CLI::App* dump = app.add_subcommand("dump", "write the stream to standard output");
  static const std::map<std::string, DumpFormat> formats = {
      {"mjpeg", DumpFormat::kMjpeg}, {"mpeg4", DumpFormat::kMpeg4}, {"raw", DumpFormat::kRaw}};
  dump->add_option(
          "FORMAT,--format", o.format,
          "mjpeg: JPEG pictures; mpeg4: the stream from a key picture on; usually what the "
          "camera delivers of the two; raw: every frame after its record")
      ->check(oneOf({"mjpeg", "mpeg4", "raw"}))
      ->type_name("mjpeg|mpeg4|raw");
  dump->add_option("--frames", o.frames, "end after so many pictures (raw: frames)")
      ->check(CLI::Range(1L, long{INT_MAX}).description(""))
      ->type_name("COUNT");
  dump->callback([&] {
    command = [&] {
      return runDump(o.format.empty() ? DumpFormat::kAny : formats.at(o.format), o.frames);
    };
  });
}

void addSettings(CLI::App& app, Options& o, Command& command) {
  CLI::App* get = app.add_subcommand("get", "show one setting, or all");
  get->add_option("NAME", o.setting)->type_name("");
  get->callback([&] { command = [&] { return runGet(o.setting); }; });

  CLI::App* set = app.add_subcommand("set", "change a setting");
  set->add_option("NAME", o.setting, "see \"camctl get\"")->required()->type_name("");
  set->add_option("VALUE", o.value, "0 or more")
      ->required()
      ->check(CLI::Range(0, INT_MAX).description(""))
      ->type_name("");
  set->callback([&] { command = [&] { return runSet(o.setting, o.value); }; });
}

void addSignals(CLI::App& app, Options& o, Command& command) {
  static const std::map<std::string, Trigger> triggers = {
      {"web1", Trigger::kWeb1}, {"web2", Trigger::kWeb2}, {"input", Trigger::kInput}};
  CLI::App* trigger = app.add_subcommand("trigger", "fire an event from outside");
  trigger->add_option("WHAT", o.trigger)
      ->required()
      ->check(oneOf({"web1", "web2", "input"}))
      ->type_name("web1|web2|input");
  trigger->callback([&] { command = [&] { return runTrigger(triggers.at(o.trigger)); }; });

  const auto addSwitch = [&](const char* name, const char* what, int (*run)(bool)) {
    CLI::App* sub = app.add_subcommand(name, what);
    sub->add_option("STATE", o.state)->required()->check(oneOf({"on", "off"}))->type_name("on|off");
    sub->callback([&command, &o, run] { command = [&o, run] { return run(o.state == "on"); }; });
  };
  addSwitch("input", "set the digital input", runInput);
  addSwitch("privacy", "switch the privacy mode", runPrivacy);

  app.add_subcommand("reload", "let the camera read its events file again")->callback([&] {
    command = [] { return runReload(); };
  });
}

// Returns true iff `*root` is the camera to talk to; otherwise `*result` is the exit code and the
// reason was said.
bool findCamera(const std::string& board, std::string* root, int* pid, int* result) {
  if (!board.empty()) {
    char resolved[PATH_MAX];
    *root = realpath(board.c_str(), resolved) != nullptr ? resolved : board;
  } else {
    const std::vector<std::string> cameras = runningCameras();
    if (cameras.size() > 1) {
      std::fputs("camctl: several cameras run here, say which by --board:\n", stderr);
      for (const std::string& camera : cameras) {
        std::fprintf(stderr, "  %s\n", camera.empty() ? "/" : camera.c_str());
      }
      *result = kExitUsage;
      return false;
    }
    if (!cameras.empty()) *root = cameras.front();
  }
  if (*root == "/") root->clear();
  *pid = cameraAt(*root);
  if (*pid > 0) return true;
  if (*pid < 0) {
    std::fprintf(stderr, "camctl: %s/dev/shm/camera/video: %s\n", root->c_str(),
                 std::strerror(errno));
    *result = kExitFailed;
    return false;
  }
  *result = kExitNoCamera;
  return false;
}

void sayNoCamera(const std::string& root) {
  if (root.empty()) {
    std::fputs("camctl: no camera runs here\n", stderr);
  } else {
    std::fprintf(stderr, "camctl: no camera runs in %s\n", root.c_str());
  }
}

int run(int argc, char** argv) {
  CLI::App app{"Talks to a running camera.", "camctl"};
  app.footer(kExamples);
  app.require_subcommand(1);
  app.fallthrough();
  Options options;
  Command command;
  app.add_option("--board", options.board, "the board's folder; needless where one camera runs")
      ->type_name("FOLDER");
  CLI::App* status = app.add_subcommand("status", "show everything that the camera shares");
  status->add_flag("--json", options.json, "for programs");
  addReading(app, options, command);
  addSettings(app, options, command);
  addSignals(app, options, command);
  CLI::App* repair = app.add_subcommand(
      "repair", "make recordings whole that were cut off; needs no running camera");
  repair->add_option("PATH", options.path, "a file, or a folder with all below it")
      ->required()
      ->type_name("");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);  // help
    std::fprintf(stderr, "camctl: %s\n\"camctl --help\" shows how it is used\n", error.what());
    return kExitUsage;
  }

  if (repair->parsed()) return runRepair(options.path);
  std::string root;
  int pid = 0;
  int result = kExitOk;
  const bool found = findCamera(options.board, &root, &pid, &result);
  if (!found && result != kExitNoCamera) return result;
  setPlatformRoot(root);
  if (!found) {
    if (status->parsed() && options.json) runStatus(root, 0, true);
    sayNoCamera(root);
    return result;
  }
  if (sbVideo() == nullptr) {
    std::fputs("camctl: the camera's stream buffer can't be attached\n", stderr);
    return kExitFailed;
  }
  return status->parsed() ? runStatus(root, pid, options.json) : command();
}

}  // namespace

// A lack of memory is the only exception that gets as far as here.
int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "camctl: %s\n", error.what());
  }
  return kExitFailed;
}
