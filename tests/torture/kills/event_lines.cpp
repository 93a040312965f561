#include "tests/torture/kills/event_lines.h"

#include <regex>
#include <sstream>

#include "tests/torture/kills/processes.h"

namespace {

constexpr char kLog[] = "/var/log/camera/events.log";

}  // namespace

std::string EventLines::look() {
  const std::string all = contentOf(kLog);
  std::string wrong;
  if (all.size() < at_) {  // it was full, and has been put aside
    wrong = judge(contentOf(std::string(kLog) + ".1").substr(at_));
    at_ = 0;
  }
  if (wrong.empty()) wrong = judge(all.substr(at_));
  at_ = all.size();
  return wrong;
}

std::string EventLines::judge(const std::string& text) {
  static const std::regex line("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ \\d{3} [a-zA-Z].*");
  if (!text.empty() && text.back() != '\n') return "it ends in the middle of a line";
  std::istringstream lines(text);
  for (std::string one; std::getline(lines, one); ++lines_)
    if (!std::regex_match(one, line)) return "a line: " + one;
  return "";
}
