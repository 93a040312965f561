// A mail server on the loopback and mails to it.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/mail.h"
#include "tests/platform/server.h"
#include "tests/platform/support.h"

// The platform's own view: /etc/camera.conf, the log, and the record of a mail that needs nothing
// but a port to be sent.
class MailTest : public testing::Test {
 protected:
  MailTest();

  // Starts the server, with these options beside the usual ones, and has mails go there.
  void serve(const std::vector<std::string>& options = {});
  // Makes a certificate for 127.0.0.1, anew for each test. Returns its files, "CERT" and "KEY".
  std::vector<std::string> certificate();
  // The server misbehaves from the next connection on; "": no more.
  void fault(const std::string& word);
  void configure(const std::string& text);

  void attach(const std::string& data, const char* type, const char* name);
  // Sends the mail. Returns the reason for the failure as it was logged, "" when there was none.
  std::string send();

  // What arrived: number of mails, the n-th (from 1 on) as bytes, its envelope, and what a strict
  // parser makes of those from `first` to `last`, a line for each.
  int mails() const;
  std::string mail(int number) const;
  std::string envelope(int number) const;
  std::string judged(int first, int last) const;
  std::string judged(int number) const { return judged(number, number); }
  // SHA-256 in hexadecimal.
  std::string digest(const std::string& data) const;
  // The commands that the server got, a line for each, and how often a text is among them.
  std::string commands() const;
  int timesIn(const std::string& whole, const std::string& text) const;

  TempRoot root_;
  LogReader log_{root_};
  std::unique_ptr<Server> server_;
  std::string data_;
  TMailInfo info_{};

 private:
  std::string file(int number, const char* extension) const;
};

// Writes `text` into a text of the record.
template <std::size_t size>
void put(char (&field)[size], const std::string& text) {
  ASSERT_LT(text.size(), size);
  field[text.copy(field, size - 1)] = '\0';
}
