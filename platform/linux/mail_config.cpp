// The settings of mail, and the text that it begins with.
#include <cstring>
#include <string>

#include "platform/camera_config.h"
#include "platform/date_time.h"
#include "platform/linux/credentials.h"
#include "platform/linux/delivery_settings.h"
#include "platform/linux/ini_value.h"
#include "platform/linux/mail_text.h"
#include "platform/mail.h"

namespace {

constexpr std::size_t kLineSize = 256;  // longer than any line of the file
constexpr int kSmtpPort = 25;

}  // namespace

int get_mail_info(TMailInfo* info) {
  const DeliverySettings settings("Mail");
  TMailInfo read{};
  settings.text("Server", read.server, sizeof read.server);
  if (read.server[0] == '\0') return -1;
  read.port = settings.number("Port", kSmtpPort, 1, kLastPort);
  // Any wrong value: it was not plain text that was asked for.
  read.security = settings.number("Security", kMailPlain, kMailPlain, kMailTls, kMailStartTls);
  settings.text("Sender", read.sender, sizeof read.sender);
  settings.text("Receiver", read.receiver, sizeof read.receiver);
  read.login = settings.number("Login", 0, 0, 1);
  settings.text("User", read.user, sizeof read.user);
  settings.text("Password", read.password, sizeof read.password);
  settings.text("Method", read.method, sizeof read.method);
  read.attach = settings.number("Attach", 1, 0, 1);
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
  // Characters that are none become longer by being replaced, so that no fixed piece would do.
  const std::string body =
      (name.empty() ? "" : "Camera: " + name + "\n") + "Time: " + moment.getTimeString() + "\n";
  if (static_cast<long>(body.size()) >= size) return -1;
  std::memcpy(text, body.c_str(), body.size() + 1);
  return 0;
}
