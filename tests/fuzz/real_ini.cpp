#include "tests/fuzz/real_ini.h"

#include <sys/stat.h>

#include <cerrno>
#include <map>

#include "tests/fakes/fake_platform.h"

// What the platform's own source is compiled to here.
int realIniInt(const char* file, const char* section, const char* key, int fallback);
double realInidouble(const char* file, const char* section, const char* key, double fallback);
int realIniStr(const char* file, const char* section, const char* key, char* buffer, int size,
               const char* fallback);
int realIniSection(const char* file, int limit);
int realIniKey(const char* file, const char* section, const char* prefix, int from);

// What the daemon calls, in the fake platform.
extern "C" {
int wrapIniInt(const char*, const char*, const char*, int) asm("__wrap__Z9getIniIntPKcS0_S0_i");
double wrapInidouble(const char*, const char*, const char*,
                     double) asm("__wrap__Z12getInidoublePKcS0_S0_d");
int wrapIniStr(const char*, const char*, const char*, char*, int,
               const char*) asm("__wrap__Z9getIniStrPKcS0_S0_PciS0_");
int wrapIniSection(const char*, int) asm("__wrap__Z13getIniSectionPKci");
int wrapIniKey(const char*, const char*, const char*, int) asm("__wrap__Z9getIniKeyPKcS0_S0_i");

int wrapIniInt(const char* file, const char* section, const char* key, int fallback) {
  return realIniInt(file, section, key, fallback);
}
double wrapInidouble(const char* file, const char* section, const char* key, double fallback) {
  return realInidouble(file, section, key, fallback);
}
int wrapIniStr(const char* file, const char* section, const char* key, char* buffer, int size,
               const char* fallback) {
  return realIniStr(file, section, key, buffer, size, fallback);
}
int wrapIniSection(const char* file, int limit) { return realIniSection(file, limit); }
int wrapIniKey(const char* file, const char* section, const char* prefix, int from) {
  return realIniKey(file, section, prefix, from);
}

int __real_stat64(const char* path, struct stat* status);
int __wrap_stat64(const char* path, struct stat* status);
int __wrap_fstat64(int fd, struct stat* status);
}

namespace {

struct Text {
  ino_t inode;  // a new one with each content, and long ago
  std::size_t size;
};
std::map<std::string, Text, std::less<>> texts;
Text asked;  // for last
long changes = 0;

void describe(struct stat* status) {
  *status = {};
  status->st_mode = S_IFREG | 0640;
  status->st_ino = asked.inode;
  status->st_size = static_cast<off_t>(asked.size);
}

}  // namespace

void real_ini::put(const std::string& path, const std::string& text) {
  FakePlatform::the().files.put(path, text);
  texts[path] = {static_cast<ino_t>(++changes), text.size()};
}

void real_ini::clear() { texts.clear(); }

int __wrap_stat64(const char* path, struct stat* status) {
  const auto found = texts.find(std::string_view(path));
  if (found == texts.end()) {
    if (texts.empty()) return __real_stat64(path, status);
    errno = ENOENT;
    return -1;
  }
  asked = found->second;
  describe(status);
  return 0;
}

// Asked for what has just been opened.
int __wrap_fstat64(int /*fd*/, struct stat* status) {
  describe(status);
  return 0;
}
