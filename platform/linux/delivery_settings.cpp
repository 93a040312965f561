#include "platform/linux/delivery_settings.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "platform/camera_config.h"
#include "platform/ini_file.h"
#include "platform/linux/ini_value.h"
#include "platform/linux/printable.h"
#include "platform/log.h"

bool DeliverySettings::text(const char* key, char* buffer, std::size_t size) const {
  char whole[1024];  // longer than any line, so that none is cut
  buffer[0] = '\0';
  if (!iniText(kCameraConfig, section_, key, whole, sizeof whole)) return true;
  const std::size_t length = std::strlen(whole);
  if (std::any_of(whole, whole + length, isControl)) {
    logEx(2, "%s: [%s] %s holds a control character", kCameraConfig, section_, key);
    return false;
  }
  if (length >= size) {
    logEx(2, "%s: [%s] %s is longer than %zu bytes", kCameraConfig, section_, key, size - 1);
    return false;
  }
  std::memcpy(buffer, whole, length + 1);
  return true;
}

std::int32_t DeliverySettings::number(const char* key, int fallback, int low, int high,
                                      int wrong) const {
  const int value = getIniInt(kCameraConfig, section_, key, fallback);
  if (value >= low && value <= high) return value;
  logEx(2, "%s: [%s] %s is not from %d to %d: %d", kCameraConfig, section_, key, low, high, value);
  return wrong;
}

bool DeliverySettings::tls(TlsSettings* settings) const {
  settings->verify = number("Verify", 1, 0, 1) != 0;
  if (!text("CaFile", settings->caFile, sizeof settings->caFile)) return false;
  // Reading a pipe would never end. What is not there is for libcurl to tell.
  struct stat status {};
  if (stat(settings->caFile, &status) != 0 || S_ISREG(status.st_mode)) return true;
  logEx(2, "%s: [%s] CaFile is no file: %s", kCameraConfig, section_, settings->caFile);
  return false;
}
