// One server at a time by libcurl, in a way that a thread of the daemon can afford: it stops when
// asked to, gives up on a server that says nothing, and tells why in words fit for the log.
#pragma once

#include <curl/curl.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

// A libcurl handle with the connection that it keeps between its runs. Belongs to the thread that
// made it.
class Transfer {
 public:
  // How long a server may take. Tests shorten them, before any transfer.
  struct Limits {
    long connectMs = 10000;  // name, connection, TLS and login
    long stallMs = 20000;    // without a byte in either direction
    long farewellMs = 2000;  // for an orderly end
  };
  static Limits& limits();

  // Sets what is common: no signals, no proxy, the time limits, TLS 1.2 or better with the
  // certificate checked against the system's authorities.
  Transfer();
  // Cuts a connection that is still there, without a farewell that could take long.
  ~Transfer();
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  // For curl_easy_setopt(); null when libcurl has no memory. The error buffer and the functions for
  // progress, opening and closing sockets are taken.
  CURL* easy() const { return easy_; }

  // TLS: `verify` false accepts any certificate; `caFile` of authorities, empty: the system's.
  void setTls(bool verify, const char* caFile);

  // For protocols of which libcurl does the handshakes of TLS without ever looking up: from now on
  // a second thread looks while one runs.
  void guardHandshakes() { guarded_ = true; }

  // Does what the handle is set to. Looks at least every 100 ms whether the calling thread is to
  // stop. `limitMs`: ends it in any case; 0: no such limit. Returns CURLE_OK,
  // CURLE_ABORTED_BY_CALLBACK when the thread was asked to stop, CURLE_OPERATION_TIMEDOUT or
  // libcurl's own code.
  CURLcode run(long limitMs = 0);

  // As run(), to say goodbye: on the connection that is there, within Limits::farewellMs. Without
  // one it returns CURLE_COULDNT_CONNECT.
  CURLcode runFarewell();

  // To be called by a function that gives libcurl the data of an upload, when it gives the last:
  // then the end of the data connection makes this wait for the server's answer. libcurl would wait
  // for it without ever looking up.
  void gaveAll() { gaveAll_ = true; }

  // Returns why the last run failed: one line without control characters, and without `secret`
  // (empty: there is none) even if the server repeats it.
  std::string reason(const char* secret) const;

 private:
  static int onProgress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t);
  static curl_socket_t onOpen(void* self, curlsocktype purpose, curl_sockaddr* address);
  static int onReady(void* self, curl_socket_t socket, curlsocktype purpose);
  static int onClose(void* self, curl_socket_t socket);
  void setOptions();
  CURLcode drive();
  CURLcode driveGuarded();
  void endData(curl_socket_t socket);
  bool mustEnd();  // and notes why
  void cut();

  CURL* easy_;
  CURLM* multi_;
  std::mutex socketsMutex_;             // for the guard, which reads them on its own thread
  std::vector<curl_socket_t> sockets_;  // that are open
  bool guarded_ = false;
  bool reconnects_ = true;
  bool gaveAll_ = false;
  CURLcode result_ = CURLE_OK;
  CURLcode ended_ = CURLE_OK;  // why the run was ended from here
  std::int64_t activeUs_ = 0;  // when the server last gave or took anything
  std::int64_t deadlineUs_ = 0;
  char error_[CURL_ERROR_SIZE] = "";
};
