// Uploads by FTP, with libcurl.
#include "platform/ftp.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "platform/linux/delivery_settings.h"
#include "platform/linux/printable.h"
#include "platform/linux/transfer.h"
#include "platform/log.h"

namespace {

constexpr int kPlain = 0;
constexpr int kTls = 1;
constexpr long kServiceClosing = 421;  // the reply that ends a session

struct CurlText {
  void operator()(char* text) const { curl_free(text); }
};
struct CurlUrl {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

// Appends `part` of a name, percent-encoded: each of its bytes is a byte of a name and no more.
void appendPart(const std::string& part, std::string* path) {
  const std::unique_ptr<char, CurlText> encoded(
      curl_easy_escape(nullptr, part.c_str(), static_cast<int>(part.size())));
  *path += '/';
  if (encoded != nullptr) *path += encoded.get();
}

// Writes `name` as it stands in an address. Returns false iff it is no name of a file below the
// login directory.
bool encodeName(const std::string& name, std::string* path) {
  if (name.empty() || name.back() == '/' || hasControl(name)) return false;
  for (std::size_t begin = 0; begin < name.size();) {
    const std::size_t end = std::min(name.find('/', begin), name.size());
    const std::string part = name.substr(begin, end - begin);
    const bool last = end == name.size();
    if (part == ".." || (part == "." && last)) return false;
    if (!part.empty() && part != ".") appendPart(part, path);
    begin = end + 1;
  }
  return true;
}

// Returns the address of the server's login directory, without the slash at the end; empty iff
// `server` is no name or address, or `port` no port.
std::string makeUrl(const std::string& server, int port) {
  const bool bare = server.find(':') != server.npos && server.front() != '[';  // IPv6
  const std::string host = bare ? "[" + server + "]" : server;
  const std::unique_ptr<CURLU, CurlUrl> url(curl_url());
  char* text = nullptr;
  if (hasControl(server) || curl_url_set(url.get(), CURLUPART_SCHEME, "ftp", 0) != CURLUE_OK ||
      curl_url_set(url.get(), CURLUPART_HOST, host.c_str(), 0) != CURLUE_OK ||
      curl_url_set(url.get(), CURLUPART_PORT, std::to_string(port).c_str(), 0) != CURLUE_OK ||
      curl_url_get(url.get(), CURLUPART_URL, &text, 0) != CURLUE_OK)
    return "";
  const std::unique_ptr<char, CurlText> owner(text);
  const std::string result = text;
  return result.substr(0, result.find_last_not_of('/') + 1);
}

// A login at one server.
class Session {
 public:
  Session(const char* server, const char* password)
      : server_(printable(server)), password_(password) {}
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Each returns 0, or -1 after having logged why not.
  int open(const char* server, int port, const char* user);
  int transfer(const char* name, const char* data, long length, int option);
  int close();

 private:
  bool setTls();
  bool useActive(int option);
  CURLcode send();
  bool sessionWasOver(CURLcode result) const;
  int fail(const std::string& reason) const;
  static std::size_t onRead(char* buffer, std::size_t size, std::size_t count, void* self);

  template <typename Value>
  void set(CURLoption option, Value value) {
    curl_easy_setopt(transfer_.easy(), option, value);
  }

  const std::string server_;  // as the log shows it
  const std::string password_;
  std::string url_;             // of the login directory
  const char* data_ = nullptr;  // the upload, not owned
  std::size_t length_ = 0;
  std::size_t sent_ = 0;
  bool secure_ = false;
  bool told_ = false;
  Transfer transfer_;  // goes first: libcurl calls back until then
};

int Session::fail(const std::string& reason) const {
  logEx(2, "ftp: %s: %s", server_.c_str(), reason.c_str());
  return -1;
}

bool Session::setTls() {
  const DeliverySettings settings("Ftp");
  TlsSettings tls;
  if (!settings.tls(&tls)) return false;
  // Intended: what is neither counts as TLS, since it was not a plain session that was asked for.
  if (settings.number("Security", kPlain, kPlain, kTls, kTls) == kPlain) return true;
  secure_ = true;
  set(CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_ALL));  // the data too
  set(CURLOPT_FTPSSLAUTH, static_cast<long>(CURLFTPAUTH_TLS));
  transfer_.setTls(tls.verify, tls.caFile);
  transfer_.guardHandshakes();
  return true;
}

int Session::open(const char* server, int port, const char* user) {
  url_ = makeUrl(server, port);
  if (url_.empty()) return fail("no name, address or port of a server");
  if (hasControl(user) || hasControl(password_))
    return fail("a control character in the user's name or password");
  if (transfer_.easy() == nullptr) return fail(curl_easy_strerror(CURLE_OUT_OF_MEMORY));
  if (!setTls()) return fail("the settings can't be used");
  set(CURLOPT_PROTOCOLS_STR, "ftp");
  set(CURLOPT_USERNAME, *user == '\0' ? "anonymous" : user);
  set(CURLOPT_PASSWORD, password_.c_str());
  set(CURLOPT_FTP_CREATE_MISSING_DIRS, static_cast<long>(CURLFTP_CREATE_DIR_RETRY));
  set(CURLOPT_READFUNCTION, onRead);
  set(CURLOPT_READDATA, this);
  set(CURLOPT_URL, (url_ + "/").c_str());
  set(CURLOPT_NOBODY, 1L);  // nothing but the login
  return transfer_.run() == CURLE_OK ? 0 : fail(transfer_.reason(password_.c_str()));
}

int Session::transfer(const char* name, const char* data, long length, int option) {
  std::string path;
  if (!encodeName(name, &path)) return fail("no name of a file: " + printable(name));
  if (length < 0) return fail("a file of less than 0 bytes");
  data_ = data;
  length_ = static_cast<std::size_t>(length);
  set(CURLOPT_URL, (url_ + path).c_str());
  set(CURLOPT_NOBODY, 0L);
  set(CURLOPT_UPLOAD, 1L);
  set(CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(length));
  set(CURLOPT_FTPPORT, useActive(option) ? "-" : nullptr);
  CURLcode result = send();
  if (sessionWasOver(result)) result = send();
  return result == CURLE_OK ? 0 : fail(transfer_.reason(password_.c_str()));
}

// Some versions of libcurl, 7.88 for one, send data in the clear when the server opened the
// connection, whatever they were told. Not with us.
bool Session::useActive(int option) {
  if (option != kFtpActive || !secure_) return option == kFtpActive;
  if (!told_) fail("with TLS the data connections are passive");
  told_ = true;
  return false;
}

CURLcode Session::send() {
  sent_ = 0;
  return transfer_.run();
}

// A server may end a session that had nothing to do for a while: logging in again is all that it
// takes then. Such an end shows ahead of the first byte, on a connection that was there before.
bool Session::sessionWasOver(CURLcode result) const {
  long connects = 0;
  long reply = 0;
  curl_easy_getinfo(transfer_.easy(), CURLINFO_NUM_CONNECTS, &connects);
  curl_easy_getinfo(transfer_.easy(), CURLINFO_RESPONSE_CODE, &reply);
  if (result == CURLE_OK || connects != 0 || sent_ != 0) return false;
  return reply == kServiceClosing || result == CURLE_SEND_ERROR || result == CURLE_RECV_ERROR ||
         result == CURLE_GOT_NOTHING;
}

int Session::close() {
  const std::unique_ptr<curl_slist, void (*)(curl_slist*)> farewell(
      curl_slist_append(nullptr, "QUIT"), curl_slist_free_all);
  // The root and no change of folder: nothing is to follow the farewell.
  set(CURLOPT_URL, (url_ + "/%2F").c_str());
  set(CURLOPT_FTP_FILEMETHOD, static_cast<long>(CURLFTPMETHOD_NOCWD));
  set(CURLOPT_UPLOAD, 0L);
  set(CURLOPT_NOBODY, 1L);
  set(CURLOPT_QUOTE, farewell.get());
  const CURLcode result = transfer_.runFarewell();
  if (result == CURLE_COULDNT_CONNECT) return fail("the connection is lost");
  return result == CURLE_OK ? 0 : fail(transfer_.reason(password_.c_str()));
}

// The one copy that is made of the data: into libcurl's own buffer, from which it is sent.
std::size_t Session::onRead(char* buffer, std::size_t size, std::size_t count, void* self) {
  auto& me = *static_cast<Session*>(self);
  const std::size_t length = std::min(size * count, me.length_ - me.sent_);
  if (length > 0) std::memcpy(buffer, me.data_ + me.sent_, length);
  me.sent_ += length;
  if (me.sent_ == me.length_) me.transfer_.gaveAll();
  return length;
}

thread_local std::unique_ptr<Session> session;

}  // namespace

int ftpOpenSession(const char* server, int port, const char* user, const char* password) {
  session.reset();
  auto opened = std::make_unique<Session>(server, password);
  if (opened->open(server, port, user) != 0) return -1;
  session = std::move(opened);
  return 0;
}

int ftpTransfer(const char* name, const char* data, long length, int option) {
  if (session != nullptr) return session->transfer(name, data, length, option);
  logEx(2, "ftp: no session for %s", printable(name).c_str());
  return -1;
}

int ftpCloseSession() {
  const std::unique_ptr<Session> closed = std::move(session);
  return closed == nullptr ? -1 : closed->close();
}
