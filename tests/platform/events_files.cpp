// Events files as the real reader of settings files sees them: the sections of each
// tests/data/events/NAME.conf, as NAME.expected tells what is built from them.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "events/event_config.h"
#include "events/event_manager.h"
#include "platform/ini_file.h"
#include "tests/platform/support.h"

namespace {

// The objects that a section stands for, in the words of the .expected files.
std::string tell(const TEventConfig& config) {
  static const char* const kinds[] = {"TMotion1Event",  "TMotion2Event",  "TInputEvent",
                                      "TIntervalEvent", "TScheduleEvent", "TCgiEvent",
                                      "TCgiEvent"};
  std::ostringstream out;
  out << kinds[config.source] << " \"" << config.schedule << "\" \"" << config.schedule2 << "\" "
      << config.period << " ms";
  if (config.source == TEventConfig::kWeb1 || config.source == TEventConfig::kWeb2) {
    out << ", slot " << (config.source == TEventConfig::kWeb1 ? 25 : 26);
  }
  out << "\n";
  if (config.out1) {
    out << "  output 0, " << config.out1Duration << " s\n";
  }
  if (config.out2) {
    out << "  output 1, " << config.out2Duration << " s\n";
  }
  if (config.buzzer) {
    out << "  buzzer " << config.buzzerTone << "\n";
  }
  if (config.access) {
    out << "  access\n";
  }
  if (config.mail) {
    out << "  mail, 0 s\n";
  }
  if (config.usb) {
    out << "  record USB, 0 s\n";
  }
  if (config.ftp) {
    out << "  upload, " << config.ftpDuration << " s\n";
  }
  if (config.smb) {
    out << "  record Samba, " << config.smbDuration << " s\n";
  }
  return out.str();
}

std::string tellSections() {
  const char* const file = TEventManager::inf;
  std::string text;
  TEventConfig config;
  for (int n = getIniSection(file, getIniInt(file, "Main", "Max", 10)); n > 0;
       n = getIniSection(file, n - 1)) {
    text += readEventConfig(file, n, &config) ? tell(config) : "";
  }
  return text;
}

// What an .expected file says of the sections, and what the reader is to log about them.
struct Expected {
  explicit Expected(const std::string& path) {
    std::istringstream in(readFile(path));
    const std::string started = ", started";
    for (std::string line; std::getline(in, line);) {
      if (line.compare(0, 6, "log 2 ") == 0) {
        log.push_back(line.substr(4));
      } else if (line.compare(0, 6, "log 3 ") != 0 && line.compare(0, 11, "registered:") != 0) {
        const auto place = line.find(started);
        sections += line.substr(0, place) + "\n";
      }
    }
  }
  std::string sections;
  std::vector<std::string> log;
};

class EventsFiles : public testing::TestWithParam<const char*> {
 protected:
  EventsFiles() : log(root) { std::filesystem::create_directories(root.path("/etc")); }
  // Without what the reader says of lines that it can't use.
  static std::vector<std::string> aboutValues(std::vector<std::string> lines) {
    const auto unused = [](const std::string& line) {
      return line.find("is ignored") != line.npos;
    };
    lines.erase(std::remove_if(lines.begin(), lines.end(), unused), lines.end());
    return lines;
  }
  void put(const std::string& text) { writeFile(root.path(TEventManager::inf), text); }

  TempRoot root;
  LogReader log;
};

TEST_P(EventsFiles, SectionsAreReadAsExpected) {
  const std::string name = std::string(VS_TEST_DATA "/events/") + GetParam();
  const Expected expected(name + ".expected");
  put(readFile(name + ".conf"));
  EXPECT_EQ(expected.sections, tellSections());
  EXPECT_EQ(expected.log, aboutValues(log.lines()));
}

INSTANTIATE_TEST_SUITE_P(Golden, EventsFiles,
                         testing::Values("binary", "empty", "everything", "half-written", "limits",
                                         "wrong-types"),
                         [](const auto& file) {
                           std::string name = file.param;
                           for (char& c : name) {
                             c = c == '-' ? '_' : c;
                           }
                           return name;
                         });

class OddEventsFiles : public EventsFiles {};

TEST_F(OddEventsFiles, MissingFileHoldsNoSectionAndIsNoMessage) {
  EXPECT_EQ("", tellSections());
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(OddEventsFiles, LinesOf100KilobytesCostThemselvesAlone) {
  const std::string tooLong(100000, 'x');
  put("[1]\nErased=0\nSource=4\nSchedule=" + tooLong + "\nSchedule2=night\nAccess=1\n" + tooLong +
      "\n[2]\nErased=0\nSource=2\nSchedule=office\n" + tooLong + "=1\nBuzzer=1\n");
  EXPECT_EQ(
      "TInputEvent \"office\" \"Never\" 100 ms\n  buzzer 0\n"
      "TScheduleEvent \"Never\" \"night\" 200 ms\n  access\n",
      tellSections());
}

}  // namespace
