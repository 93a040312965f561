// The settings of mail, and the text that it begins with.
#include <cstdio>
#include <cstring>

#include "platform/camera_config.h"
#include "platform/date_time.h"
#include "platform/ini_file.h"
#include "platform/linux/credentials.h"
#include "platform/linux/ini_value.h"
#include "platform/linux/mail_text.h"
#include "platform/log.h"
#include "platform/mail.h"

namespace {

constexpr std::size_t kLineSize = 256;  // longer than any line of the file
constexpr int kSmtpPort = 25;
constexpr int kLastPort = 65535;

// Reads a text; one that does not fit counts as none: half an address would be another one.
template <std::size_t size>
void readText(const char* key, char (&text)[size]) {
  char line[kLineSize];
  if (!iniText(kCameraConfig, "Mail", key, line, sizeof line)) return;
  if (std::strlen(line) < size)
    std::strcpy(text, line);
  else
    logEx(2, "%s: [Mail] %s is longer than %zu bytes", kCameraConfig, key, size - 1);
}

int readNumber(const char* key, int fallback, int first, int last) {
  const int value = getIniInt(kCameraConfig, "Mail", key, fallback);
  if (value >= first && value <= last) return value;
  logEx(2, "%s: [Mail] %s is not from %d to %d: %d", kCameraConfig, key, first, last, value);
  return fallback;
}

}  // namespace

int get_mail_info(TMailInfo* info) {
  TMailInfo read{};
  readText("Server", read.server);
  if (read.server[0] == '\0') return -1;
  read.port = readNumber("Port", kSmtpPort, 1, kLastPort);
  read.security = readNumber("Security", kMailPlain, kMailPlain, kMailTls);
  readText("Sender", read.sender);
  readText("Receiver", read.receiver);
  read.login = getIniInt(kCameraConfig, "Mail", "Login", 0);
  readText("User", read.user);
  readText("Password", read.password);
  readText("Method", read.method);
  read.attach = getIniInt(kCameraConfig, "Mail", "Attach", 1);
  if (read.password[0] != '\0') checkCredentials();
  *info = read;
  return 0;
}

int get_mail_body(char* text, long size, long time) {
  char line[kLineSize] = "";
  iniText(kCameraConfig, "Camera", "Name", line, sizeof line);
  const std::string name = mailUtf8(line);
  TDateTime moment;
  moment.set(time, 0);
  char body[2 * kLineSize];
  const int length = std::snprintf(body, sizeof body, "%s%s%sTime: %s\n",
                                   name.empty() ? "" : "Camera: ", name.c_str(),
                                   name.empty() ? "" : "\n", moment.getTimeString().c_str());
  if (length >= size) return -1;
  std::memcpy(text, body, static_cast<std::size_t>(length) + 1);
  return 0;
}
