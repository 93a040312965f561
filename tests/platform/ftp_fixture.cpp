#include "tests/platform/ftp_fixture.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/ftp.h"
#include "platform/log.h"

namespace fs = std::filesystem;

FtpTest::FtpTest() {
  fs::create_directories(root_.path("/etc"));
  fs::create_directories(root_.path("/server/cam"));
  writeFile(root_.path("/server.users"),
            std::string(kUser) + ":" + kPassword + ":cam\nopen::cam\n");
  chmod(root_.path("/server.users").c_str(), 0600);
}

FtpTest::~FtpTest() {
  Transfer::limits() = usual_;
  ftpCloseSession();
}

void FtpTest::start(const std::vector<std::string>& more) {
  std::vector<std::string> options = {
      "--root", root_.path("/server"),     "--users",  root_.path("/server.users"),
      "--log",  root_.path("/server.log"), "--faults", root_.path("/server.faults")};
  options.insert(options.end(), more.begin(), more.end());
  server_ = std::make_unique<Server>("ftp_server", options);
  ASSERT_NE(server_->port(), 0);
}

void FtpTest::faults(const std::string& lines) {
  writeFile(root_.path("/server.new"), lines + "\n");
  fs::rename(root_.path("/server.new"), root_.path("/server.faults"));
}

void FtpTest::settings(const std::string& lines) {
  writeFile(root_.path("/etc/camera.conf"), "[Ftp]\n" + lines);
}

std::vector<std::string> FtpTest::tls(const std::string& name, const std::string& more) const {
  const std::string folder = root_.path("/certificates");
  EXPECT_EQ(std::system((VS_SOURCE_DIR "/board/servers/certificates " + folder).c_str()), 0);
  std::vector<std::string> options = {"--tls", folder + "/" + name + ".pem",
                                      folder + "/" + name + ".key"};
  if (!more.empty()) options.push_back(more);
  return options;
}

std::string FtpTest::certificate(const std::string& name) const {
  return root_.path("/certificates/" + name + ".pem");
}

int FtpTest::open(const std::string& server) {
  return ftpOpenSession(server.c_str(), server_->port(), kUser, kPassword);
}

int FtpTest::upload(const std::string& name, const std::string& data, int option) {
  return ftpTransfer(name.c_str(), data.data(), static_cast<long>(data.size()), option);
}

std::vector<std::string> FtpTest::seen() const {
  std::ifstream file(root_.path("/server.log"));
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  return lines;
}

int FtpTest::count(const std::string& beginning) const {
  int result = 0;
  for (const std::string& line : seen())
    if (line.compare(0, beginning.size(), beginning) == 0) ++result;
  return result;
}

std::string FtpTest::home() const { return root_.path("/server/cam/"); }

std::string FtpTest::content(const std::string& name) const {
  return fs::exists(home() + name) ? readFile(home() + name) : "absent";
}

bool FtpTest::logged(const std::string& reason, const std::string& server) {
  free_log();  // so that a line that repeats comes again
  bool found = false;
  for (const std::string& line : log_.lines()) {
    everLogged_ += line + "\n";
    found = found || line == "2 ftp: " + server + ": " + reason;
  }
  if (!found) ADD_FAILURE() << "logged so far:\n" << everLogged_;
  return found;
}

bool FtpTest::passwordIsKept() {
  for (const std::string& line : log_.lines()) everLogged_ += line + "\n";
  return everLogged_.find(kPassword) == everLogged_.npos;
}

std::string someBytes(std::size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  for (char& byte : bytes) {
    seed = seed * 1664525 + 1013904223;
    byte = static_cast<char>(seed >> 24);
  }
  return bytes;
}
