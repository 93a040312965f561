// Sending mails, by libcurl.
#include "platform/mail.h"

#include <curl/curl.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "platform/date_time.h"
#include "platform/linux/delivery_settings.h"
#include "platform/linux/mail_address.h"
#include "platform/linux/mail_text.h"
#include "platform/linux/printable.h"
#include "platform/linux/transfer.h"
#include "platform/log.h"

namespace {

constexpr char kFirstRefusal = '4';  // of the digits that a server's answer may begin with
constexpr std::size_t kReplyLength = 200;

bool isAlphanumeric(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

// Returns true iff all characters of `text` are letters, digits or among `others`.
bool isMadeOf(std::string_view text, std::string_view others) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [&](char c) {
    return isAlphanumeric(c) || others.find(c) != others.npos;
  });
}

// The name that the camera introduces itself with. Servers want one with a dot.
std::string ownName() {
  std::array<char, 65> name{};
  if (gethostname(name.data(), name.size() - 1) != 0 || !isMadeOf(name.data(), "-.") ||
      name[0] == '-' || name[0] == '.')
    return "camera.local";
  const std::string host = name.data();
  return host.find('.') == host.npos ? host + ".local" : host;
}

// Bytes that libcurl fetches: they stay where they are.
class Content {
 public:
  Content(const char* data, std::size_t size) : data_(data), size_(size) {}

  static std::size_t read(char* buffer, std::size_t size, std::size_t count, void* content) {
    auto& self = *static_cast<Content*>(content);
    const std::size_t length = std::min(size * count, self.size_ - self.place_);
    std::memcpy(buffer, self.data_ + self.place_, length);
    self.place_ += length;
    return length;
  }
  static int seek(void* content, curl_off_t offset, int origin) {
    auto& self = *static_cast<Content*>(content);
    if (origin != SEEK_SET || offset < 0 || static_cast<std::size_t>(offset) > self.size_)
      return CURL_SEEKFUNC_FAIL;
    self.place_ = static_cast<std::size_t>(offset);
    return CURL_SEEKFUNC_OK;
  }

 private:
  const char* data_;
  std::size_t size_;
  std::size_t place_ = 0;
};

// A list as libcurl wants it.
class List {
 public:
  List() = default;
  List(const List&) = delete;
  List& operator=(const List&) = delete;
  ~List() { curl_slist_free_all(list_); }

  void add(const std::string& text) { list_ = curl_slist_append(list_, text.c_str()); }
  curl_slist* get() const { return list_; }

 private:
  curl_slist* list_ = nullptr;
};

// What makes this mail one of its own.
std::string makeId() {
  std::array<unsigned char, 16> bytes{};
  if (getrandom(bytes.data(), bytes.size(), GRND_NONBLOCK) != static_cast<ssize_t>(bytes.size())) {
    // A board that has just started may have no random numbers yet; then the time tells mails
    // apart.
    const auto now = std::chrono::system_clock::now().time_since_epoch().count();
    std::memcpy(bytes.data(), &now, sizeof now);
  }
  std::string id;
  for (const unsigned char byte : bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    id += {kDigits[byte >> 4], kDigits[byte & 15]};
  }
  return id;
}

// One mail on its way.
class Mail {
 public:
  explicit Mail(const TMailInfo& info) : info_(info) {}
  ~Mail() { curl_mime_free(mime_); }
  Mail(const Mail&) = delete;
  Mail& operator=(const Mail&) = delete;

  // Each returns true iff all is well; otherwise reason() says why not.
  bool check();
  bool send();

  const std::string& reason() const { return reason_; }

 private:
  void setServer();
  void setLogin();
  void setEnvelope();
  void makeHeaders();
  void setText();
  bool setParts();
  void sayGoodbye();
  void explain(CURLcode code);
  bool fail(const std::string& reason) {
    reason_ = reason;
    return false;
  }
  static std::size_t onReply(char* line, std::size_t size, std::size_t count, void* mail);

  template <typename Value>
  void set(CURLoption option, Value value) {
    curl_easy_setopt(transfer_.easy(), option, value);
  }

  const TMailInfo& info_;
  std::vector<std::string> receivers_;
  TlsSettings tls_;
  std::vector<std::string> headers_;
  std::string text_;  // quoted-printable; without an attachment the whole mail
  std::string reason_;
  std::string refusal_;  // the first line of what the server says last, when it refuses

  List envelope_;
  List headerList_;
  List textHeaders_;
  List attachmentHeaders_;
  curl_mime* mime_ = nullptr;
  Content content_{nullptr, 0};
  Transfer transfer_;  // goes first: libcurl looks at the others until then
};

bool Mail::check() {
  if (!isMadeOf(info_.server, "-._:")) return fail("no name or address of a server");
  if (info_.port < 1 || info_.port > kLastPort)
    return fail("no port: " + std::to_string(info_.port));
  if (!isMailAddress(info_.sender)) return fail("sender is no address: " + printable(info_.sender));
  if (!parseMailAddresses(info_.receiver, &receivers_, &reason_)) return false;
  if (info_.login != 0 && info_.user[0] == '\0') return fail("a login without a user");
  if (info_.login != 0 && info_.method[0] != '\0' && !isMadeOf(info_.method, "-_"))
    return fail("no method of a login: " + printable(info_.method));
  if (!DeliverySettings("Mail").tls(&tls_)) return fail("the settings can't be used");
  return true;
}

void Mail::setServer() {
  const std::string server = info_.server;
  const bool bare = server.find(':') != server.npos;  // an address of IPv6
  const std::string url = std::string(info_.security == kMailTls ? "smtps://" : "smtp://") +
                          (bare ? "[" + server + "]" : server) + ":" + std::to_string(info_.port) +
                          "/" + ownName();
  set(CURLOPT_URL, url.c_str());
  set(CURLOPT_PROTOCOLS_STR, "smtp,smtps");
  if (info_.security == kMailPlain) return;
  set(CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_ALL));
  transfer_.setTls(tls_.verify, tls_.caFile);
}

void Mail::setLogin() {
  if (info_.login == 0) return;
  set(CURLOPT_USERNAME, info_.user);
  set(CURLOPT_PASSWORD, info_.password);
  if (info_.method[0] != '\0')
    set(CURLOPT_LOGIN_OPTIONS, (std::string("AUTH=") + info_.method).c_str());
}

void Mail::setEnvelope() {
  for (const std::string& receiver : receivers_) envelope_.add("<" + receiver + ">");
  set(CURLOPT_MAIL_FROM, (std::string("<") + info_.sender + ">").c_str());
  set(CURLOPT_MAIL_RCPT, envelope_.get());
}

void Mail::makeHeaders() {
  const std::string sender = info_.sender;
  const std::string subject = mailSubject(mailUtf8(info_.subject));
  std::string to;
  for (const std::string& receiver : receivers_) to += (to.empty() ? "" : ",\r\n ") + receiver;
  TDateTime now;
  now.set();
  headers_ = {mailDate(now.seconds()), "From: " + sender, "To: " + to,
              "Message-ID: <" + makeId() + sender.substr(sender.find('@')) + ">",
              "MIME-Version: 1.0"};
  if (!subject.empty()) headers_.push_back("Subject: " + subject);
}

// A mail that is nothing but text: libcurl would make a mail of parts of it.
void Mail::setText() {
  headers_.emplace_back("Content-Type: text/plain; charset=utf-8");
  headers_.emplace_back("Content-Transfer-Encoding: quoted-printable");
  std::string mail;
  for (const std::string& header : headers_) mail += header + "\r\n";
  text_ = mail + "\r\n" + text_;
  content_ = Content(text_.data(), text_.size());
  set(CURLOPT_UPLOAD, 1L);
  set(CURLOPT_READFUNCTION, Content::read);
  set(CURLOPT_READDATA, &content_);
  set(CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(text_.size()));
}

bool Mail::setParts() {
  for (const std::string& header : headers_) headerList_.add(header);
  textHeaders_.add("Content-Transfer-Encoding: quoted-printable");
  attachmentHeaders_.add(mailDisposition(info_.attachment.name));
  const char* const type = info_.attachment.type;
  const bool typeIsGood = type != nullptr && isMadeOf(type, "/-+._");
  const auto length = static_cast<std::size_t>(info_.attachment.length);
  content_ = Content(info_.attachment.data, length);

  mime_ = curl_mime_init(transfer_.easy());
  curl_mimepart* const text = curl_mime_addpart(mime_);
  curl_mimepart* const attachment = curl_mime_addpart(mime_);
  set(CURLOPT_HTTPHEADER, headerList_.get());
  set(CURLOPT_MIMEPOST, mime_);
  return curl_mime_type(text, "text/plain; charset=utf-8") == CURLE_OK &&
         curl_mime_headers(text, textHeaders_.get(), 0) == CURLE_OK &&
         curl_mime_data(text, text_.data(), text_.size()) == CURLE_OK &&
         curl_mime_type(attachment, typeIsGood ? type : "application/octet-stream") == CURLE_OK &&
         curl_mime_headers(attachment, attachmentHeaders_.get(), 0) == CURLE_OK &&
         curl_mime_encoder(attachment, "base64") == CURLE_OK &&
         curl_mime_data_cb(attachment, info_.attachment.length, Content::read, Content::seek,
                           nullptr, &content_) == CURLE_OK;
}

bool Mail::send() {
  if (transfer_.easy() == nullptr) return fail(curl_easy_strerror(CURLE_OUT_OF_MEMORY));
  setServer();
  setLogin();
  setEnvelope();
  set(CURLOPT_HEADERFUNCTION, onReply);
  set(CURLOPT_HEADERDATA, this);
  makeHeaders();
  text_ = mailQuotedPrintable(mailUtf8(info_.body));
  if (info_.attachment.data == nullptr || info_.attachment.length < 1)
    setText();
  else if (!setParts())
    return fail(curl_easy_strerror(CURLE_OUT_OF_MEMORY));
  const CURLcode code = transfer_.run();
  if (code == CURLE_OK)
    sayGoodbye();
  else
    explain(code);
  return code == CURLE_OK;
}

// The mail has been taken: whatever comes of this, and whatever the server says to it, is no
// matter.
void Mail::sayGoodbye() {
  set(CURLOPT_MAIL_RCPT, nullptr);
  set(CURLOPT_MIMEPOST, nullptr);
  set(CURLOPT_UPLOAD, 0L);
  set(CURLOPT_NOBODY, 1L);
  set(CURLOPT_CUSTOMREQUEST, "QUIT");
  transfer_.runFarewell();
}

// What the server says is the best reason there is. But not of a login: it may repeat what it got.
void Mail::explain(CURLcode code) {
  const char* const secret = info_.login != 0 ? info_.password : "";
  reason_ = transfer_.reason(secret);
  if (code == CURLE_ABORTED_BY_CALLBACK || code == CURLE_OPERATION_TIMEDOUT ||
      code == CURLE_LOGIN_DENIED || refusal_.empty())
    return;
  if (*secret == '\0' || refusal_.find(secret) == refusal_.npos)
    reason_ = "the server refuses: " + refusal_;
}

// The farewell, which the library sends by itself after a refusal, says nothing about the mail.
std::size_t Mail::onReply(char* line, std::size_t size, std::size_t count, void* mail) {
  const std::string reply(line, std::min(size * count, kReplyLength));
  std::string& refusal = static_cast<Mail*>(mail)->refusal_;
  if (reply[0] < kFirstRefusal && reply.compare(0, 3, "221") != 0) refusal.clear();
  if (reply[0] >= kFirstRefusal && refusal.empty())
    refusal = printable(reply.substr(0, reply.find_first_of("\r\n")));
  return size * count;
}

}  // namespace

int send_mail(const TMailInfo* info) {
  Mail mail(*info);
  if (mail.check() && mail.send()) return 0;
  logEx(2, "mail: %s: %s", printable(info->server).c_str(), mail.reason().c_str());
  return -1;
}
