#include "board/hardware/trace.h"

#include <cstring>

namespace {

template <typename Number>
std::string numbers(const std::vector<char>& bytes) {
  std::string text;
  for (std::size_t at = 0; at + sizeof(Number) <= bytes.size(); at += sizeof(Number)) {
    Number number;
    std::memcpy(&number, &bytes[at], sizeof number);
    text += (text.empty() ? "" : " ") + std::to_string(number);
  }
  return text;
}

std::string hexadecimal(const std::vector<char>& bytes) {
  std::string text;
  for (const char byte : bytes) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(byte));
    text += digits;
  }
  return text;
}

std::string quoted(const std::vector<char>& bytes) {
  std::string text = "\"";
  for (const char byte : bytes) {
    if (byte == '\0') return text + '"';
    text += byte == '\n' ? ' ' : byte;
  }
  return text + "\" without an end";
}

std::string describe(Argument kind, const std::vector<char>& bytes) {
  switch (kind) {
    case Argument::kWord:
      return numbers<std::int32_t>(bytes);
    case Argument::kHeader:
      return hexadecimal(bytes);
    case Argument::kColour:
      return numbers<std::int16_t>(bytes);
    case Argument::kPicture:
      return numbers<std::uint16_t>(bytes);
    case Argument::kWindow:
      return numbers<std::uint32_t>(bytes);
    case Argument::kText:
      return quoted(bytes);
    case Argument::kImage:
      return std::to_string(bytes.size()) + " bytes";
  }
  return "";
}

}  // namespace

std::string errorName(int error) {
  const char* const name = strerrorname_np(error);
  return name != nullptr ? name : std::to_string(error);
}

std::string describeRequest(const Request* request, unsigned number,
                            const std::vector<char>& before, int result,
                            const std::vector<char>& after) {
  char unknown[16];
  std::snprintf(unknown, sizeof unknown, "0x%08X", number);
  std::string line = request != nullptr ? request->name : unknown;
  const bool isOut = request != nullptr && request->argument == Argument::kHeader;
  if (request != nullptr && !isOut) line += " " + describe(request->argument, before);
  // Unsigned, because a chip may answer any number, also the one without a counterpart.
  const int error = static_cast<int>(0U - static_cast<unsigned>(result));
  line += " -> " + (result < 0 ? errorName(error) : std::to_string(result));
  if (request != nullptr && result >= 0 && (isOut || after != before))
    line += ", " + describe(request->argument, after);
  return line;
}

bool Trace::open(const std::string& path) {
  std::unique_ptr<std::FILE, Closer> file(std::fopen(path.c_str(), "we"));
  if (!file) return false;
  const std::lock_guard<std::mutex> lock(mutex_);
  file_ = std::move(file);
  return true;
}

void Trace::close() {
  const std::lock_guard<std::mutex> lock(mutex_);
  file_.reset();
}

bool Trace::isOpen() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return file_ != nullptr;
}

void Trace::add(const std::string& line) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!file_) return;
  std::fputs((line + '\n').c_str(), file_.get());
  std::fflush(file_.get());
}
