#include "platform/linux/transfer.h"

#include <poll.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>
#include <limits>
#include <mutex>

#include "platform/linux/clock.h"
#include "platform/linux/printable.h"
#include "platform/linux/thread_access.h"

namespace {

constexpr int kStepMs = 50;               // between looks at whether to stop
constexpr long kKeepConnectionS = 86400;  // idle for longer than any recording
constexpr long kKeepAliveS = 60;          // shorter than routers remember a silent connection

void initOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

}  // namespace

Transfer::Limits& Transfer::limits() {
  static Limits theLimits;
  return theLimits;
}

Transfer::Transfer() {
  initOnce();
  easy_ = curl_easy_init();
  multi_ = curl_multi_init();
  if (easy_ == nullptr) return;
  curl_easy_setopt(easy_, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy_, CURLOPT_QUICK_EXIT, 1L);  // a name server that hangs holds nobody
  curl_easy_setopt(easy_, CURLOPT_PROXY, "");       // none from the environment either
  curl_easy_setopt(easy_, CURLOPT_CONNECTTIMEOUT_MS, limits().connectMs);
  curl_easy_setopt(easy_, CURLOPT_ACCEPTTIMEOUT_MS, limits().connectMs);
  curl_easy_setopt(easy_, CURLOPT_SERVER_RESPONSE_TIMEOUT, (limits().stallMs + 999) / 1000);
  curl_easy_setopt(easy_, CURLOPT_MAXAGE_CONN, kKeepConnectionS);
  curl_easy_setopt(easy_, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(easy_, CURLOPT_TCP_KEEPIDLE, kKeepAliveS);
  curl_easy_setopt(easy_, CURLOPT_ERRORBUFFER, error_);
  curl_easy_setopt(easy_, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(easy_, CURLOPT_XFERINFOFUNCTION, onProgress);
  curl_easy_setopt(easy_, CURLOPT_XFERINFODATA, this);
  curl_easy_setopt(easy_, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
}

Transfer::~Transfer() {
  cut();
  forget();
  curl_easy_cleanup(easy_);
  curl_multi_cleanup(multi_);
}

void Transfer::setTls(bool verify, const char* caFile) {
  curl_easy_setopt(easy_, CURLOPT_SSL_VERIFYPEER, verify ? 1L : 0L);
  curl_easy_setopt(easy_, CURLOPT_SSL_VERIFYHOST, verify ? 2L : 0L);
  if (*caFile == '\0') return;
  curl_easy_setopt(easy_, CURLOPT_CAINFO, caFile);
  curl_easy_setopt(easy_, CURLOPT_CAPATH, nullptr);  // nobody but those
}

CURLcode Transfer::run(long limitMs) {
  error_[0] = '\0';
  ended_ = CURLE_OK;
  activeUs_ = monotonicUs();
  deadlineUs_ = limitMs > 0 ? activeUs_ + limitMs * 1000 : std::numeric_limits<std::int64_t>::max();
  forget();
  if (easy_ == nullptr || multi_ == nullptr || curl_multi_add_handle(multi_, easy_) != CURLM_OK)
    return result_ = CURLE_OUT_OF_MEMORY;
  result_ = drive();
  if (ended_ != CURLE_OK) {
    result_ = ended_;
    forget();
  }
  return result_;
}

// Breaks off what is under way. A handle whose transfer is over stays until the next one: without
// it libcurl does not tell the connection.
void Transfer::forget() {
  if (easy_ != nullptr && multi_ != nullptr) curl_multi_remove_handle(multi_, easy_);
}

bool Transfer::connected() const { return connection() != CURL_SOCKET_BAD; }

curl_socket_t Transfer::connection() const {
  curl_socket_t fd = CURL_SOCKET_BAD;
  if (easy_ != nullptr) curl_easy_getinfo(easy_, CURLINFO_ACTIVESOCKET, &fd);
  return fd;
}

CURLcode Transfer::drive() {
  for (;;) {
    int running = 0;
    if (curl_multi_perform(multi_, &running) != CURLM_OK) return CURLE_OUT_OF_MEMORY;
    if (running == 0) break;
    if (mustEnd()) return ended_;
    int active = 0;
    if (curl_multi_poll(multi_, nullptr, 0, kStepMs, &active) != CURLM_OK)
      return CURLE_OUT_OF_MEMORY;
    if (active > 0) activeUs_ = monotonicUs();
  }
  int left = 0;
  const CURLMsg* const message = curl_multi_info_read(multi_, &left);
  return message != nullptr && message->msg == CURLMSG_DONE ? message->data.result
                                                            : CURLE_FAILED_INIT;
}

void Transfer::awaitReply() {
  const curl_socket_t fd = connection();
  if (fd == CURL_SOCKET_BAD) return;
  activeUs_ = monotonicUs();
  pollfd waited{fd, POLLIN, 0};
  while (poll(&waited, 1, kStepMs) <= 0) {
    if (!mustEnd()) continue;
    shutdown(fd, SHUT_RDWR);
    return;
  }
}

// libcurl waits for a few replies by itself, calling this once a second.
int Transfer::onProgress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return static_cast<Transfer*>(self)->mustEnd() ? 1 : 0;
}

bool Transfer::mustEnd() {
  if (ended_ != CURLE_OK) return true;
  if (ThreadAccess::stopAsked()) {
    ended_ = CURLE_ABORTED_BY_CALLBACK;
  } else {
    const std::int64_t now = monotonicUs();
    if (now >= deadlineUs_ || now - activeUs_ >= limits().stallMs * 1000)
      ended_ = CURLE_OPERATION_TIMEDOUT;
  }
  return ended_ != CURLE_OK;
}

// A farewell on a connection that is cut fails at once, so that libcurl does not wait for it.
void Transfer::cut() {
  const curl_socket_t fd = connection();
  if (fd != CURL_SOCKET_BAD) shutdown(fd, SHUT_RDWR);
}

std::string Transfer::reason(const char* secret) const {
  if (ended_ == CURLE_ABORTED_BY_CALLBACK) return "asked to stop";
  if (ended_ == CURLE_OPERATION_TIMEDOUT) return "the server does not answer";
  const bool repeated = *secret != '\0' && std::strstr(error_, secret) != nullptr;
  return error_[0] == '\0' || repeated ? curl_easy_strerror(result_) : printable(error_);
}
