// The settings of uploads.
#include "platform/ftp.h"
#include "platform/linux/credentials.h"
#include "platform/linux/delivery_settings.h"
#include "platform/storage.h"

namespace {

constexpr int kFtpPort = 21;

// Returns true iff recorders can use the parts of the names, which they take by slash(). One that
// they had to leave out would send the uploads elsewhere.
bool areUsable(const char* folder, const char* prefix) {
  constexpr int kFolderSlashes = 9;  // "pics/"
  constexpr int kPrefixSlashes = 5;  // "cam"
  char folderPart[128];
  char prefixPart[65];
  const bool good = slash(folder, folderPart, sizeof folderPart, kFolderSlashes) >= 0;
  return slash(prefix, prefixPart, sizeof prefixPart, kPrefixSlashes) >= 0 && good;
}

}  // namespace

int get_ftp_server(TFtpServer* record) {
  const DeliverySettings settings("Ftp");
  TFtpServer read{};
  // All are read, so that everything that is wrong is told at once.
  bool good = settings.text("Server", read.server, sizeof read.server);
  good = settings.text("Folder", read.folder, sizeof read.folder) && good;
  good = settings.text("User", read.user, sizeof read.user) && good;
  good = settings.text("Password", read.password, sizeof read.password) && good;
  good = settings.text("FileName", read.fileName, sizeof read.fileName) && good;
  good = settings.text("Prefix", read.prefix, sizeof read.prefix) && good;
  good = areUsable(read.folder, read.prefix) && good;
  read.port = settings.number("Port", kFtpPort, 1, kLastPort);
  read.fixedName = settings.number("FixedName", 0, 0, 1);
  read.option = settings.number("Active", kFtpPassive, kFtpPassive, kFtpActive);
  if (!good || read.server[0] == '\0') return -1;
  if (read.password[0] != '\0') checkCredentials();
  *record = read;
  return 0;
}
