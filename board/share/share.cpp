#include "board/share/share.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace {

// A server that does not answer for so long is taken as gone. A camera can't wait for more: it
// holds pictures for a few seconds.
constexpr int kTimeOutMs = 3000;

// The errors that are about a file. All others are about the connection or the server as a whole.
bool isAboutFile(int error) {
  constexpr std::array kErrors = {ENOENT,  EEXIST, EACCES, EPERM,        ENOSPC, EDQUOT,
                                  ENOTDIR, EISDIR, EINVAL, ENOTEMPTY,    EBUSY,  ETXTBSY,
                                  EROFS,   EFBIG,  EMFILE, ENAMETOOLONG, ELOOP,  ENOTSUP};
  return std::find(kErrors.begin(), kErrors.end(), error) != kErrors.end();
}

// Writes `text` where libsmbclient wants it; what does not fit would only be a wrong login.
void put(const std::string& text, char* out, int size) {
  if (size > 0) std::snprintf(out, static_cast<std::size_t>(size), "%s", text.c_str());
}

}  // namespace

bool ShareSettings::read(std::istream& from) {
  std::string number;
  for (std::string* const line : {&server, &number, &share, &user, &password, &domain})
    if (!std::getline(from, *line)) return false;
  const auto end = number.data() + number.size();
  const auto result = std::from_chars(number.data(), end, port);
  return result.ec == std::errc() && result.ptr == end && port >= 1 && port <= 65535 &&
         !server.empty() && server.find_first_of("/@:") == server.npos && !share.empty() &&
         share.find_first_of("/\\") == share.npos;
}

void Share::giveCredentials(SMBCCTX* context, const char*, const char*, char* domain,
                            int domainSize, char* user, int userSize, char* password,
                            int passwordSize) {
  const auto& settings = static_cast<const Share*>(smbc_getOptionUserData(context))->settings_;
  if (!settings.domain.empty()) put(settings.domain, domain, domainSize);
  put(settings.user, user, userSize);
  put(settings.password, password, passwordSize);
}

int Share::connect() {
  SMBCCTX* const context = smbc_new_context();
  if (context == nullptr) return ENOMEM;
  smbc_setDebug(context, 0);
  smbc_setTimeout(context, kTimeOutMs);
  smbc_setOptionUserData(context, this);
  smbc_setFunctionAuthDataWithContext(context, &Share::giveCredentials);
  // Without an account nothing is tried: it would only delay the verdict.
  smbc_setOptionNoAutoAnonymousLogin(context, settings_.user.empty() ? 0 : 1);
  if (smbc_init_context(context) == nullptr) return errno;
  smbc_set_context(context);
  struct stat status {};
  const int folder = smbc_opendir(url("/").c_str());
  if (folder < 0 || smbc_stat(url("/").c_str(), &status) != 0) return errno;
  smbc_closedir(folder);
  return 0;
}

std::string Share::url(const char* path) const {
  std::string url = "smb://" + settings_.server + ":" + std::to_string(settings_.port) + "/";
  for (const char c : settings_.share + path) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '-' && c <= '9');
    if (plain) {
      url += c;
      continue;
    }
    char escaped[4];
    std::snprintf(escaped, sizeof escaped, "%%%02X", static_cast<unsigned char>(c));
    url += escaped;
  }
  return url;
}

long Share::answer(long result) {
  if (result >= 0) return result;
  const int error = errno != 0 ? errno : EIO;
  if (!isAboutFile(error) && !lost_) {
    lost_ = true;
    std::fprintf(stderr, "the server is gone: %s\n", std::strerror(error));
  }
  return -error;
}
