// A real FTP server for tests of uploads, and what it has seen.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/linux/transfer.h"
#include "tests/platform/server.h"
#include "tests/platform/support.h"

class FtpTest : public testing::Test {
 protected:
  static constexpr char kUser[] = "cam";
  static constexpr char kPassword[] = "s3cret:w0rd";

  FtpTest();
  ~FtpTest() override;

  // Starts the server with options beyond those that each test needs.
  void start(const std::vector<std::string>& more = {});
  // Makes it do wrong what the lines say; see board/servers/ftp_server.
  void faults(const std::string& lines);
  // Writes section [Ftp] of the settings.
  void settings(const std::string& lines);
  // Makes certificates. Returns the options for the server to use the one that is named so, with
  // `more`.
  std::vector<std::string> tls(const std::string& name, const std::string& more = "") const;
  std::string certificate(const std::string& name) const;

  // Each returns what the call did.
  int open(const std::string& server = "127.0.0.1");
  static int upload(const std::string& name, const std::string& data, int option = 0);

  // Returns what the server has seen and said so far: "< USER cam", "> 331 ...", "connect".
  std::vector<std::string> seen() const;
  // Returns how many lines of it begin so.
  int count(const std::string& beginning) const;
  // Returns the content of an uploaded file; "absent" when there is none.
  std::string content(const std::string& name) const;
  std::string home() const;
  // Returns true iff the reason was logged for the server.
  bool logged(const std::string& reason, const std::string& server = "127.0.0.1");
  // Returns true iff nothing that was logged holds the password.
  bool passwordIsKept();

  TempRoot root_;
  LogReader log_{root_};
  std::unique_ptr<Server> server_;
  std::string everLogged_;
  Transfer::Limits usual_ = Transfer::limits();
};

// Bytes that are not like each other, nor like those of another seed.
std::string someBytes(std::size_t size, unsigned seed = 1);
