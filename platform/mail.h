// Mail: its settings, its text, and sending.
#pragma once

#include <cstdint>

// A mail and how it is to be sent, as get_mail_info() fills it; the texts end with 0. All pointers:
// not owned, may be null; they are used during send_mail() alone.
struct TMailInfo {
  char server[129];  // host name or address
  std::int32_t port;
  std::int32_t security;  // kMailPlain, kMailStartTls or kMailTls
  char sender[129];       // the address that the mail comes from
  char receiver[129];     // addresses, separated by commas
  std::int32_t login;     // 0: without; then the three texts below mean nothing
  char user[66];
  char password[68];
  char method[32];      // of the login, "PLAIN" or "LOGIN" for instance; empty: what both can
  std::int32_t attach;  // 0: text alone, no picture

  struct TAttachment {
    long length;
    const char* type;  // content type, "image/jpeg"
    const char* data;
    const char* name;   // a path: its last part is the name that the receiver sees
  } attachment;         // none when there is no data or the length is below 1
  const char* body;     // UTF-8
  const char* subject;  // UTF-8
};

constexpr std::int32_t kMailPlain = 0;
constexpr std::int32_t kMailStartTls = 1;  // required, not just tried
constexpr std::int32_t kMailTls = 2;       // from the first byte on

// Reads the settings, section "Mail" of /etc/camera.conf (docs/configuration.md); clears the
// attachment, the body and the subject. 0 on success; otherwise non-zero, there is no server, and
// `*info` is unchanged. Any thread.
int get_mail_info(TMailInfo* info);

// Writes the text of a mail about what happened at `time` (seconds since 1970) into `text`, at most
// `size` bytes, terminator included: the camera's name and the local time.
// 0 on success; otherwise non-zero and `*text` is unchanged. Any thread.
int get_mail_body(char* text, long size, long time);

// Sends a mail and waits until the server has taken it for all receivers. Ends early when the body
// of the calling PThread was asked to stop from outside, and by itself at a server that does not
// answer (connecting 10 s, afterwards 20 s without any progress). Nothing leaves its own header
// line: control characters become blanks in the subject and "_" in the attachment's name; a server,
// sender or receiver that is no name or no address is refused before anything is sent. 0 on
// success; otherwise non-zero; the reason is logged, level 2 "mail: %s: %s" with the server and the
// reason; a password never is. Any thread.
int send_mail(const TMailInfo* info);
