#include "platform/ftp.h"

#include "platform/linux/credentials.h"
#include "platform/linux/delivery_settings.h"

int get_ftp_server(TFtpServer* record) {
  constexpr int kFtpPort = 21;
  constexpr int kLastPort = 65535;
  const DeliverySettings settings("Ftp");
  TFtpServer read{};
  // All are read, so that everything that is wrong is told at once.
  bool good = settings.text("Server", read.server, sizeof read.server);
  good = settings.text("Folder", read.folder, sizeof read.folder) && good;
  good = settings.text("User", read.user, sizeof read.user) && good;
  good = settings.text("Password", read.password, sizeof read.password) && good;
  good = settings.text("FileName", read.fileName, sizeof read.fileName) && good;
  good = settings.text("Prefix", read.prefix, sizeof read.prefix) && good;
  read.port = settings.number("Port", kFtpPort, 1, kLastPort);
  read.fixedName = settings.number("FixedName", 0, 0, 1);
  read.option = settings.number("Active", kFtpPassive, kFtpPassive, kFtpActive);
  if (!good || read.server[0] == '\0') return -1;
  if (read.password[0] != '\0') checkCredentials();
  *record = read;
  return 0;
}
