#include "platform/linux/transfer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>
#include <mutex>

#include "platform/linux/clock.h"
#include "platform/linux/printable.h"
#include "platform/linux/stop_guard.h"
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
  if (easy_ != nullptr) setOptions();
}

void Transfer::setOptions() {
  const Limits& limit = limits();
  curl_easy_setopt(easy_, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy_, CURLOPT_QUICK_EXIT, 1L);  // a name server that hangs holds nobody
  curl_easy_setopt(easy_, CURLOPT_PROXY, "");       // none from the environment either
  curl_easy_setopt(easy_, CURLOPT_CONNECTTIMEOUT_MS, limit.connectMs);
  curl_easy_setopt(easy_, CURLOPT_ACCEPTTIMEOUT_MS, limit.connectMs);
  curl_easy_setopt(easy_, CURLOPT_SERVER_RESPONSE_TIMEOUT, (limit.stallMs + 999) / 1000);
  curl_easy_setopt(easy_, CURLOPT_MAXAGE_CONN, kKeepConnectionS);
  curl_easy_setopt(easy_, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(easy_, CURLOPT_TCP_KEEPIDLE, kKeepAliveS);
  curl_easy_setopt(easy_, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  curl_easy_setopt(easy_, CURLOPT_ERRORBUFFER, error_);
  curl_easy_setopt(easy_, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(easy_, CURLOPT_XFERINFOFUNCTION, onProgress);
  curl_easy_setopt(easy_, CURLOPT_XFERINFODATA, this);
  curl_easy_setopt(easy_, CURLOPT_OPENSOCKETFUNCTION, onOpen);
  curl_easy_setopt(easy_, CURLOPT_OPENSOCKETDATA, this);
  curl_easy_setopt(easy_, CURLOPT_SOCKOPTFUNCTION, onReady);
  curl_easy_setopt(easy_, CURLOPT_CLOSESOCKETFUNCTION, onClose);
  curl_easy_setopt(easy_, CURLOPT_CLOSESOCKETDATA, this);
}

Transfer::~Transfer() {
  cut();
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
  gaveAll_ = false;
  activeUs_ = monotonicUs();
  deadlineUs_ = limitMs > 0 ? activeUs_ + limitMs * 1000 : std::numeric_limits<std::int64_t>::max();
  if (easy_ == nullptr || multi_ == nullptr || curl_multi_add_handle(multi_, easy_) != CURLM_OK)
    return result_ = CURLE_OUT_OF_MEMORY;
  result_ = guarded_ ? driveGuarded() : drive();
  if (ended_ != CURLE_OK) {
    result_ = ended_;
    cut();
  }
  curl_multi_remove_handle(multi_, easy_);
  return result_;
}

CURLcode Transfer::runFarewell() {
  reconnects_ = false;
  return run(limits().farewellMs);
}

CURLcode Transfer::driveGuarded() {
  const StopGuard guard(deadlineUs_, [this] { cut(); });
  const CURLcode result = drive();
  if (result != CURLE_OK) mustEnd();  // what the guard has cut off failed for that reason
  return result;
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

curl_socket_t Transfer::onOpen(void* self, curlsocktype, curl_sockaddr* address) {
  auto& me = *static_cast<Transfer*>(self);
  if (!me.reconnects_) return CURL_SOCKET_BAD;
  const int fd = socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
  const std::lock_guard<std::mutex> lock(me.socketsMutex_);
  if (fd >= 0) me.sockets_.push_back(fd);
  return fd;
}

// libcurl does this too, but goes on when it fails, and then waits without looking up.
int Transfer::onReady(void* /*self*/, curl_socket_t socket, curlsocktype) {
  const int flags = fcntl(socket, F_GETFL);
  const bool done = flags >= 0 && fcntl(socket, F_SETFL, flags | O_NONBLOCK) == 0;
  return done ? CURL_SOCKOPT_OK : CURL_SOCKOPT_ERROR;
}

int Transfer::onClose(void* self, curl_socket_t socket) {
  auto& me = *static_cast<Transfer*>(self);
  {
    const std::lock_guard<std::mutex> lock(me.socketsMutex_);
    auto& all = me.sockets_;
    all.erase(std::remove(all.begin(), all.end(), socket), all.end());
  }
  if (me.gaveAll_ && me.ended_ == CURLE_OK && me.sockets_.size() == 1) me.endData(socket);
  return close(socket);
}

// Ends the data without closing the connection, and waits for the server's answer on the other one.
// What comes meanwhile, tickets of TLS, is taken: closing a socket with something to read breaks
// the connection, and the server loses what it has not yet read.
void Transfer::endData(curl_socket_t socket) {
  gaveAll_ = false;
  activeUs_ = monotonicUs();
  shutdown(socket, SHUT_WR);
  pollfd waited[] = {{sockets_.front(), POLLIN, 0}, {socket, POLLIN, 0}};
  while (!mustEnd()) {
    poll(waited, std::size(waited), kStepMs);
    if (waited[0].revents != 0) return;
    char ignored[512];
    if (waited[1].revents != 0 && recv(socket, ignored, sizeof ignored, MSG_DONTWAIT) <= 0)
      waited[1].fd = -1;
  }
  cut();
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

// Whatever libcurl still has to say fails at once then, so that it waits for no answer.
void Transfer::cut() {
  const std::lock_guard<std::mutex> lock(socketsMutex_);
  for (const curl_socket_t socket : sockets_) shutdown(socket, SHUT_RDWR);
}

std::string Transfer::reason(const char* secret) const {
  if (ended_ == CURLE_ABORTED_BY_CALLBACK) return "asked to stop";
  if (ended_ == CURLE_OPERATION_TIMEDOUT) return "the server does not answer";
  const bool repeated = *secret != '\0' && std::strstr(error_, secret) != nullptr;
  return error_[0] == '\0' || repeated ? curl_easy_strerror(result_) : printable(error_);
}
