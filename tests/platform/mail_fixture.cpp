#include "tests/platform/mail_fixture.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "platform/log.h"

namespace fs = std::filesystem;

namespace {

// Runs a shell command, which must succeed.
std::string mustRun(const std::string& command) {
  FILE* const output = popen(command.c_str(), "r");
  std::string text;
  for (int c = 0; (c = std::fgetc(output)) != EOF;) text += static_cast<char>(c);
  EXPECT_EQ(pclose(output), 0) << text;
  return text;
}

}  // namespace

MailTest::MailTest() {
  fs::create_directories(root_.path("/etc"));
  put(info_.server, "127.0.0.1");
  put(info_.sender, "camera@example.org");
  put(info_.receiver, "guard@example.org");
  info_.port = 1;
  info_.subject = "Motion";
  info_.body = "Somebody is at the door.\n";
}

void MailTest::serve(const std::vector<std::string>& options) {
  std::vector<std::string> arguments{"--mailbox",    root_.path("/mails"),
                                     "--log",        root_.path("/commands"),
                                     "--fault-file", root_.path("/fault")};
  arguments.insert(arguments.end(), options.begin(), options.end());
  server_ = std::make_unique<Server>("mail_server", arguments);
  info_.port = server_->port();
}

std::vector<std::string> MailTest::certificate() {
  const std::string cert = root_.path("/cert.pem");
  const std::string key = root_.path("/key.pem");
  const std::string command =
      "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 "
      "-subj /CN=test -addext subjectAltName=IP:127.0.0.1 -keyout " +
      key + " -out " + cert + " 2>/dev/null";
  EXPECT_EQ(std::system(command.c_str()), 0);
  return {cert, key};
}

void MailTest::fault(const std::string& word) {
  writeFile(root_.path("/fault.new"), word + "\n");
  fs::rename(root_.path("/fault.new"), root_.path("/fault"));
}

void MailTest::configure(const std::string& text) {
  writeFile(root_.path("/etc/camera.conf"), text);
  fs::permissions(root_.path("/etc/camera.conf"), fs::perms::owner_read | fs::perms::owner_write);
}

void MailTest::attach(const std::string& data, const char* type, const char* name) {
  data_ = data;
  info_.attachment = {static_cast<long>(data_.size()), type, data_.data(), name};
}

std::string MailTest::send() {
  free_log();  // so that none is folded
  log_.lines();
  const int result = send_mail(&info_);
  std::string reason;
  const std::string start = "2 mail: " + std::string(info_.server) + ": ";
  for (const std::string& line : log_.lines()) {
    if (line.compare(0, start.size(), start) == 0)
      reason = line.substr(start.size());
    else
      ADD_FAILURE() << "also logs " << line;
  }
  EXPECT_EQ(result != 0, !reason.empty());
  return reason;
}

std::string MailTest::file(int number, const char* extension) const {
  char name[32];
  std::snprintf(name, sizeof name, "/mails/%06d.%s", number, extension);
  return root_.path(name);
}

int MailTest::mails() const {
  int count = 0;
  while (fs::exists(file(count + 1, "eml"))) ++count;
  return count;
}

std::string MailTest::mail(int number) const { return readFile(file(number, "eml")); }
std::string MailTest::envelope(int number) const { return readFile(file(number, "json")); }

std::string MailTest::judged(int first, int last) const {
  std::string command = VS_SOURCE_DIR "/tests/mail_check";
  for (int number = first; number <= last; ++number) command += " " + file(number, "eml");
  return mustRun(command);
}

std::string MailTest::digest(const std::string& data) const {
  writeFile(root_.path("/data"), data);
  return mustRun("sha256sum " + root_.path("/data")).substr(0, 64);
}

std::string MailTest::commands() const { return readFile(root_.path("/commands")); }

int MailTest::timesIn(const std::string& whole, const std::string& text) const {
  int count = 0;
  for (std::size_t place = whole.find(text); place != whole.npos;
       place = whole.find(text, place + 1))
    ++count;
  return count;
}
