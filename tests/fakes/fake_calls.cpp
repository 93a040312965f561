// The platform's calls for files, storage, configuration, input/output, messages, media and logs.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "platform/camera_config.h"
#include "platform/camera_io.h"
#include "platform/event_log.h"
#include "platform/ini_file.h"
#include "platform/linux/plain_command.h"
#include "platform/log.h"
#include "platform/media.h"
#include "platform/message.h"
#include "platform/os.h"
#include "platform/storage.h"
#include "tests/fakes/fake_platform.h"

namespace {
FakePlatform& fake() { return FakePlatform::the(); }
}  // namespace

namespace os {

int open(const char* path, int flags) {
  FakeScope scope;
  fake().record("open(" + std::string(path) + ")");
  return fake().failing("os::open") ? -1 : fake().files.open(path, flags);
}

long read(int fd, void* buffer, std::size_t size) {
  FakeScope scope;
  return fake().read(fd, buffer, size);
}

long write(int fd, const void* data, std::size_t size) {
  FakeScope scope;
  constexpr int kStandardError = 2;
  if (fd == kStandardError) {
    fake().record("stderr " + std::string(static_cast<const char*>(data), size));
    return static_cast<long>(size);
  }
  return fake().failing("os::write") ? -1 : fake().files.write(fd, data, size);
}

long lseek(int fd, long offset, int whence) {
  FakeScope scope;
  return fake().failing("os::lseek") ? -1 : fake().files.lseek(fd, offset, whence);
}

int ioctl(int fd, unsigned long request, void* argument) {
  FakeScope scope;
  return fake().ioctl(fd, request, argument);
}

int close(int fd) {
  FakeScope scope;
  return fake().files.close(fd);
}

int unlink(const char* path) {
  FakeScope scope;
  fake().record("unlink(" + std::string(path) + ")");
  if (fake().failing("os::unlink")) return -1;
  if (fake().recordings.exists(path)) return fake().recordings.remove(path);
  if (!fake().files.exists(path)) {
    errno = ENOENT;
    return -1;
  }
  fake().files.remove(path);
  return 0;
}

int fcntl(int fd, int command, long argument) {
  FakeScope scope;
  fake().record("fcntl(" + std::to_string(fd) + "," + std::to_string(command) + "," +
                std::to_string(argument) + ")");
  if (fake().failing("os::fcntl")) return -1;
  return command == F_GETFL ? fake().fileFlags.load() : 0;
}

int getpid() { return FakePlatform::kProcess; }

int onSignal(int signal, void (*handler)(int)) {
  FakeScope scope;
  fake().record("onSignal(" + std::to_string(signal) + ")");
  fake().handlers[signal] = handler;
  return 0;
}

int system(const char* command) {
  FakeScope scope;
  if (!isPlainCommand(command)) return -1;
  const int status = fake().command(command);
  constexpr std::size_t kRemove = sizeof "rm -rf " - 1;
  if (status == 0 && std::strncmp(command, "rm -rf ", kRemove) == 0)
    fake().recordings.removeTree(command + kRemove);
  return status;
}

}  // namespace os

// --- Storage

int get_usb_mount_state(int* state) {
  if (fake().failing("get_usb_mount_state")) return -1;
  *state = fake().usbState;
  return 0;
}

int get_smb_mount_state(int* state) {
  if (fake().failing("get_smb_mount_state")) return -1;
  *state = fake().smbState;
  return 0;
}

int get_free_space_percent(const char*) {
  return fake().failing("get_free_space_percent") ? 100 : fake().usedPercent.load();
}

namespace {
bool unsafe(const char* path) {
  for (const char* c = path; *c != '\0'; ++c)
    if (static_cast<unsigned char>(*c) < ' ' || *c == 0x7f) return true;
  const std::string parts = "/" + std::string(path) + "/";
  return parts.find("/../") != parts.npos;
}
}  // namespace

int open2(const char* path, int flags) {
  FakeScope scope;
  fake().record("open2(" + std::string(path) + ")");
  if (unsafe(path)) {
    errno = EINVAL;
    return logEx(2, "unsafe path refused: %s", path);
  }
  return fake().failing("open2") ? -1 : fake().files.open(path, flags);
}

int slash(const char* source, char* destination, int capacity, int how) {
  FakeScope scope;
  if (capacity > 0) destination[0] = '\0';
  if (unsafe(source)) return logEx(2, "unsafe path refused: %s", source);
  std::string text = source;
  if (!text.empty()) {
    if ((how & 3) != 0)
      text.erase(
          0, text.find_first_not_of('/') == text.npos ? text.size() : text.find_first_not_of('/'));
    if ((how & 12) != 0) text.erase(text.find_last_not_of('/') + 1);
    if ((how & 2) != 0) text.insert(0, 1, '/');
    if ((how & 8) != 0 && (text.empty() || text.back() != '/')) text += '/';
  }
  if (static_cast<int>(text.size()) >= capacity) return logEx(2, "path too long: %s", source);
  std::memcpy(destination, text.c_str(), text.size() + 1);
  return static_cast<int>(text.size());
}

// --- Ini files

namespace {

// Reads a number as the real platform does. Returns false when it is none.
bool number(const std::string& text, double* value) {
  char* end = nullptr;
  const bool hex = text.find("0x") != text.npos || text.find("0X") != text.npos;
  *value = hex ? static_cast<double>(std::strtoll(text.c_str(), &end, 16))
               : std::strtod(text.c_str(), &end);
  return end != text.c_str() && *end == '\0';
}

void notANumber(const char* file, const char* section, const char* key, const std::string& value) {
  logEx(2, "%s: [%s] %s is not a number: %s", file, section, key, value.c_str());
}

}  // namespace

int getIniInt(const char* file, const char* section, const char* key, int fallback) {
  FakeScope scope;
  std::string text;
  if (fake().failing("getIniInt") || !fake().ini.find(file, section, key, &text)) return fallback;
  double value = 0;
  if (!number(text, &value) || text.find('.') != text.npos) {
    notANumber(file, section, key, text);
    return fallback;
  }
  if (value > std::numeric_limits<int>::max()) return std::numeric_limits<int>::max();
  if (value < std::numeric_limits<int>::min()) return std::numeric_limits<int>::min();
  return static_cast<int>(value);
}

double getInidouble(const char* file, const char* section, const char* key, double fallback) {
  FakeScope scope;
  std::string text;
  if (fake().failing("getInidouble") || !fake().ini.find(file, section, key, &text))
    return fallback;
  double value = 0;
  if (number(text, &value)) return value;
  notANumber(file, section, key, text);
  return fallback;
}

int getIniStr(const char* file, const char* section, const char* key, char* buffer, int size,
              const char* fallback) {
  FakeScope scope;
  std::string text = fallback;
  if (!fake().failing("getIniStr")) fake().ini.find(file, section, key, &text);
  if (size <= 0) return 0;
  return static_cast<int>(text.copy(buffer, static_cast<std::size_t>(size - 1))) +
         (buffer[std::min(text.size(), static_cast<std::size_t>(size - 1))] = '\0');
}

int getIniSection(const char* file, int limit) {
  FakeScope scope;
  return fake().ini.sectionUpTo(file, limit);
}

int getIniKey(const char* file, const char* section, const char* prefix, int from) {
  FakeScope scope;
  return fake().ini.keyFrom(file, section, prefix, from);
}

// --- The configuration database

namespace {

// `function` is "get_" and the key.
int getter(const char* function, int* value) {
  FakeScope scope;
  const char* const key = function + 4;
  std::string text;
  if (fake().failing(function) || !fake().findConfig(key, &text)) return -1;
  *value = std::atoi(text.c_str());
  return 0;
}

}  // namespace

int get_resolution(int* value) { return getter("get_resolution", value); }
int get_compress_rate(int* value) { return getter("get_compress_rate", value); }
int get_compression_type(int* value) { return getter("get_compression_type", value); }
int get_ip_ratio(int* value) { return getter("get_ip_ratio", value); }
int get_video_source(int* value) { return getter("get_video_source", value); }
int get_brightness(int* value) { return getter("get_brightness", value); }
int get_contrast(int* value) { return getter("get_contrast", value); }
int get_saturation(int* value) { return getter("get_saturation", value); }
int get_hue(int* value) { return getter("get_hue", value); }
int get_flip(int* value) { return getter("get_flip", value); }
int get_mirror(int* value) { return getter("get_mirror", value); }
int get_exposure(int* value) { return getter("get_exposure", value); }
int get_max_exposure(int* value) { return getter("get_max_exposure", value); }
int get_flickness(int* value) { return getter("get_flickness", value); }
int get_white_balance(int* value) { return getter("get_white_balance", value); }
int get_noise_reduction(int* value) { return getter("get_noise_reduction", value); }
int get_backlight_comp(int* value) { return getter("get_backlight_comp", value); }

int get_frame_rate(char* text, int size) {
  FakeScope scope;
  std::string value;
  if (fake().failing("get_frame_rate") || !fake().findConfig("frame_rate", &value)) return -1;
  std::snprintf(text, static_cast<std::size_t>(size), "%s", value.c_str());
  return 0;
}

int set_channel(int channel) {
  FakeScope scope;
  fake().record("set_channel(" + std::to_string(channel) + ")");
  return fake().failing("set_channel") ? -1 : 0;
}

// --- Input and output

namespace {

int ioState(const char* function, const std::atomic<int>& value, int* state) {
  if (fake().failing(function)) return -1;
  *state = value;
  return 0;
}

}  // namespace

int get_trigger_in_state(int* state) {
  return ioState("get_trigger_in_state", fake().triggerIn, state);
}
int get_trigger_out_state(int* state) {
  return ioState("get_trigger_out_state", fake().triggerOut, state);
}
int get_trigger_out_state2(int* state) {
  return ioState("get_trigger_out_state2", fake().triggerOut2, state);
}
int get_pt_privacy_state(int* state) {
  return ioState("get_pt_privacy_state", fake().privacy, state);
}

int set_trigger_in_state(int used) {
  FakeScope scope;
  fake().record("set_trigger_in_state(" + std::to_string(used) + ")");
  return fake().failing("set_trigger_in_state") ? -1 : 0;
}

// --- Messages, media and logs

int SendMessage(const char* process, int id, int argument1, int argument2, int type) {
  FakeScope scope;
  std::string call = "SendMessage(" + std::string(process) + "," + std::to_string(id) + "," +
                     std::to_string(argument1) + "," + std::to_string(argument2);
  if (type != 0) call += "," + std::to_string(type);
  fake().record(call + ")");
  return fake().failing("SendMessage") ? -1 : 0;
}

int PeekMessage(TMessage* message) {
  FakeScope scope;
  return fake().failing("PeekMessage") || !fake().takeMessage(message) ? -1 : 0;
}

// "AVI:" and the data, so that a test sees what went in.
long i2avi(const char* data, long length, char* buffer, long capacity) {
  FakeScope scope;
  constexpr long kHead = 4;
  fake().record("i2avi(" + std::to_string(length) + ")");
  if (fake().failing("i2avi") || length < 0 || length + kHead > capacity) return -1;
  std::memcpy(buffer, "AVI:", kHead);
  std::memcpy(buffer + kHead, data, static_cast<std::size_t>(length));
  return length + kHead;
}

void log_event(int id) {
  FakeScope scope;
  fake().record("log_event(" + std::to_string(id) + ")");
}

int logEx(int level, const char* format, ...) {
  FakeScope scope;
  char line[1024];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  fake().record("log " + std::to_string(level) + " " + line);
  return -1;
}

void free_log() { fake().record("free_log()"); }
