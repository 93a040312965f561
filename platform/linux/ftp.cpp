#include "platform/ftp.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "platform/linux/delivery_settings.h"
#include "platform/linux/transfer.h"
#include "platform/log.h"

namespace {

constexpr long kFarewellMs = 2000;
constexpr int kPlain = 0;
constexpr int kTls = 1;

bool hasControl(const char* text) {
  return std::any_of(text, text + std::strlen(text), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < ' ' || byte == 0x7f;
  });
}

// Returns the text with what does not belong into a line replaced.
std::string shown(const char* text) {
  std::string result = text;
  for (char& c : result) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < ' ' || byte == 0x7f) c = '?';
  }
  return result;
}

// Writes `name` percent-encoded, part by part, so that every byte of it is taken for nothing but a
// byte of a name. Returns false iff it is no name of a file below the login directory.
bool encodeName(const char* name, std::string* path) {
  if (hasControl(name)) return false;
  bool file = false;
  while (*name != '\0') {
    const std::size_t length = std::strcspn(name, "/");
    const std::string part(name, length);
    if (part == "..") return false;
    file = !part.empty() && part != ".";
    if (file) {
      char* const encoded = curl_easy_escape(nullptr, part.c_str(), static_cast<int>(length));
      if (encoded == nullptr) return false;
      *path += '/';
      *path += encoded;
      curl_free(encoded);
    }
    name += length + (name[length] == '/' ? 1 : 0);
    if (name[0] == '\0' && name[-1] == '/') file = false;
  }
  return file;
}

// Returns the address of the server's login directory, empty iff `server` is no host.
std::string makeUrl(const char* server, int port) {
  std::string host = server;
  if (host.find(':') != std::string::npos && host.front() != '[') host = "[" + host + "]";
  const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> url(curl_url(), curl_url_cleanup);
  char* text = nullptr;
  if (url == nullptr || curl_url_set(url.get(), CURLUPART_SCHEME, "ftp", 0) != CURLUE_OK ||
      curl_url_set(url.get(), CURLUPART_HOST, host.c_str(), 0) != CURLUE_OK ||
      curl_url_set(url.get(), CURLUPART_PORT, std::to_string(port).c_str(), 0) != CURLUE_OK ||
      curl_url_get(url.get(), CURLUPART_URL, &text, 0) != CURLUE_OK)
    return "";
  std::string result = text;
  curl_free(text);
  if (result.back() == '/') result.pop_back();
  return result;
}

// A login at one server.
class Session {
 public:
  Session(const char* server, const char* password) : server_(shown(server)), password_(password) {}

  int open(const char* server, int port, const char* user);
  int transfer(const char* name, const char* data, long length, int option);
  int close();

 private:
  static std::size_t onRead(char* buffer, std::size_t size, std::size_t count, void* self);
  static int onClose(void* self, curl_socket_t socket);
  int fail(const char* reason) const;
  bool retry(CURLcode result) const;

  CURL* easy() const { return transfer_.easy(); }

  const std::string server_;  // as the log shows it
  const std::string password_;
  std::string url_;
  const char* data_ = nullptr;
  std::size_t length_ = 0;
  std::size_t sent_ = 0;
  bool sending_ = false;
  Transfer transfer_;
};

int Session::fail(const char* reason) const {
  logEx(2, "ftp: %s: %s", server_.c_str(), reason);
  return -1;
}

int Session::open(const char* server, int port, const char* user) {
  const DeliverySettings settings("Ftp");
  TlsSettings tls;
  // Any value but 0: it was not a plain session that was asked for.
  const bool secure = settings.number("Security", kPlain, kPlain, kTls, kTls) != kPlain;
  if (!settings.tls(&tls)) return fail("the settings can't be used");
  url_ = makeUrl(server, port);
  if (url_.empty()) return fail("no name or address of a server");
  if (hasControl(user) || hasControl(password_.c_str()))
    return fail("a control character in user or password");
  if (easy() == nullptr) return fail(curl_easy_strerror(CURLE_OUT_OF_MEMORY));
  curl_easy_setopt(easy(), CURLOPT_PROTOCOLS_STR, "ftp");
  curl_easy_setopt(easy(), CURLOPT_USERNAME, *user == '\0' ? "anonymous" : user);
  curl_easy_setopt(easy(), CURLOPT_PASSWORD, password_.c_str());
  if (secure) {
    curl_easy_setopt(easy(), CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_ALL));
    curl_easy_setopt(easy(), CURLOPT_FTPSSLAUTH, static_cast<long>(CURLFTPAUTH_TLS));
    transfer_.setTls(tls.verify, tls.caFile);
  }
  curl_easy_setopt(easy(), CURLOPT_FTP_CREATE_MISSING_DIRS,
                   static_cast<long>(CURLFTP_CREATE_DIR_RETRY));
  curl_easy_setopt(easy(), CURLOPT_READFUNCTION, onRead);
  curl_easy_setopt(easy(), CURLOPT_READDATA, this);
  curl_easy_setopt(easy(), CURLOPT_CLOSESOCKETFUNCTION, onClose);
  curl_easy_setopt(easy(), CURLOPT_CLOSESOCKETDATA, this);
  curl_easy_setopt(easy(), CURLOPT_URL, (url_ + "/").c_str());
  curl_easy_setopt(easy(), CURLOPT_NOBODY, 1L);
  return transfer_.run() == CURLE_OK ? 0 : fail(transfer_.reason(password_.c_str()));
}

int Session::transfer(const char* name, const char* data, long length, int option) {
  std::string path;
  if (!encodeName(name, &path)) return fail(("no name of a file: " + shown(name)).c_str());
  if (length < 0) return fail("a length below 0");
  data_ = data;
  length_ = static_cast<std::size_t>(length);
  curl_easy_setopt(easy(), CURLOPT_URL, (url_ + path).c_str());
  curl_easy_setopt(easy(), CURLOPT_NOBODY, 0L);
  curl_easy_setopt(easy(), CURLOPT_UPLOAD, 1L);
  curl_easy_setopt(easy(), CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(length));
  curl_easy_setopt(easy(), CURLOPT_FTPPORT, option == kFtpActive ? "-" : nullptr);
  sending_ = true;
  sent_ = 0;
  CURLcode result = transfer_.run();
  if (retry(result)) {
    sent_ = 0;
    result = transfer_.run();
  }
  sending_ = false;
  return result == CURLE_OK ? 0 : fail(transfer_.reason(password_.c_str()));
}

// A server may end a session that had nothing to do for a while: then logging in again is all that
// it takes. Such an end shows before the first byte, on a connection that was there before.
bool Session::retry(CURLcode result) const {
  long connects = 1;
  long reply = 0;
  curl_easy_getinfo(easy(), CURLINFO_NUM_CONNECTS, &connects);
  curl_easy_getinfo(easy(), CURLINFO_RESPONSE_CODE, &reply);
  if (connects != 0 || sent_ != 0) return false;
  constexpr long kClosing = 421;
  return reply == kClosing || result == CURLE_SEND_ERROR || result == CURLE_RECV_ERROR ||
         result == CURLE_GOT_NOTHING;
}

int Session::close() {
  curl_slist* const farewell = curl_slist_append(nullptr, "QUIT");
  curl_easy_setopt(easy(), CURLOPT_URL, (url_ + "/").c_str());
  curl_easy_setopt(easy(), CURLOPT_UPLOAD, 0L);
  curl_easy_setopt(easy(), CURLOPT_NOBODY, 1L);
  curl_easy_setopt(easy(), CURLOPT_QUOTE, farewell);
  const CURLcode result = transfer_.run(kFarewellMs);
  curl_easy_setopt(easy(), CURLOPT_QUOTE, nullptr);
  curl_slist_free_all(farewell);
  return result == CURLE_OK ? 0 : fail(transfer_.reason(password_.c_str()));
}

std::size_t Session::onRead(char* buffer, std::size_t size, std::size_t count, void* self) {
  auto* const session = static_cast<Session*>(self);
  const std::size_t length = std::min(size * count, session->length_ - session->sent_);
  if (length > 0) std::memcpy(buffer, session->data_ + session->sent_, length);
  session->sent_ += length;
  return length;
}

// The end of the data connection is the end of the file, and the server's answer to it follows.
int Session::onClose(void* self, curl_socket_t socket) {
  auto* const session = static_cast<Session*>(self);
  const int result = ::close(socket);
  if (session->sending_ && session->sent_ == session->length_) session->transfer_.awaitReply();
  return result;
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
  logEx(2, "ftp: %s: %s", "-", "no session");
  return -1;
}

int ftpCloseSession() {
  const std::unique_ptr<Session> closed = std::move(session);
  return closed == nullptr ? -1 : closed->close();
}
