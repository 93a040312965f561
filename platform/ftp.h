// FTP: the server's settings and uploads to it.
#pragma once

#include <cstdint>

// The server and what goes there, as get_ftp_server() gives it. Texts end with 0.
struct TFtpServer {
  char server[129];  // host name or address
  char folder[129];  // where uploads go, below the login directory
  char user[66];     // empty: anonymous
  char password[68];
  std::int32_t port;
  std::int32_t fixedName;  // non-zero: every upload replaces the one before, under `fileName`
  char fileName[132];      // without extension
  std::int32_t option;     // for ftpTransfer()
  char prefix[68];         // of the file names
};

// Reads the settings, section "Ftp" of /etc/camera.conf (docs/configuration.md).
// 0 on success; otherwise non-zero, there is no server, and `*record` is unchanged: a text that
// can't be used, a folder that climbs for one, means no server, since uploads would end up
// elsewhere. Any thread.
int get_ftp_server(TFtpServer* record);

// Transfer options.
constexpr int kFtpPassive = 0;  // the camera opens the data connection
constexpr int kFtpActive = 1;   // the server does

// Uploads. A session belongs to the thread that opened it, one per thread. Each call ends early
// with an error when the body of the calling PThread was asked to stop from outside, and by itself
// at a server that does not answer (connecting 10 s, afterwards 20 s without any progress). The
// reason for a failure is logged, level 2 "ftp: %s: %s" with the server and the reason; a password
// never is.

// Connects and logs in, with TLS when the configuration says so; closes a session that is still
// open. Returns 0 or less than 0.
int ftpOpenSession(const char* server, int port, const char* user, const char* password);

// Stores `length` bytes as the file `name`, relative to the login directory: folders are made as
// needed, a file that exists is replaced. The data is sent from where it lies. A name with a
// control character or a part ".." is refused. `option`: kFtpPassive or kFtpActive. Returns 0 iff
// the server has acknowledged the whole file.
int ftpTransfer(const char* name, const char* data, long length, int option);

// Logs out and disconnects. Returns 0, or less than 0 when there was no session or no orderly end.
int ftpCloseSession();
