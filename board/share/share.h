// A share of a Samba server, reached through libsmbclient.
#pragma once

#include <libsmbclient.h>

#include <istream>
#include <string>

// What is needed to reach a share.
struct ShareSettings {
  std::string server;
  int port = 445;
  std::string share;
  std::string user;
  std::string password;
  std::string domain;

  // Reads them, a line each in the order above. Returns false when one is missing or wrong.
  bool read(std::istream& from);
};

// The connection. There is one in a process: libsmbclient's file calls (smbc_open() and so on) use
// it. Bound to one thread.
class Share {
 public:
  explicit Share(ShareSettings settings) : settings_(std::move(settings)) {}
  Share(const Share&) = delete;
  Share& operator=(const Share&) = delete;

  // Logs in. Returns 0, or an error number.
  int connect();

  // Returns what libsmbclient calls the file or folder `path` of the share, which begins with "/".
  std::string url(const char* path) const;

  // Turns a result of libsmbclient into that of a file system: the result, or the negative error
  // number. Remembers when the error tells that the connection is lost; what was open is useless
  // from then on.
  long answer(long result);
  bool isLost() const { return lost_; }

 private:
  static void giveCredentials(SMBCCTX* context, const char* server, const char* share, char* domain,
                              int domainSize, char* user, int userSize, char* password,
                              int passwordSize);

  ShareSettings settings_;
  bool lost_ = false;
};
