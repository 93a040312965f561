// Addresses and texts of mails: whatever stands in the configuration, no line breaks out of its
// header.
#include "platform/linux/mail_address.h"
#include "platform/linux/mail_text.h"

#include "tests/fuzz/fuzz.h"

namespace {

// Lines of ASCII, none longer than `longest`. `first`: bytes that stand ahead of the first one.
// `folded`: all others begin with a blank, so that they go on with it.
void requireLines(const std::string& text, std::size_t longest, std::size_t first, bool folded) {
  std::size_t begin = 0;
  for (std::size_t end; begin <= text.size(); begin = end + 2) {
    end = std::min(text.find("\r\n", begin), text.size());
    const std::string line = text.substr(begin, end - begin);
    require(line.size() + (begin == 0 ? first : 0) <= longest, "lines are short");
    for (const char c : line) require(c == '\t' || (c >= ' ' && c < 0x7f), "lines are plain");
    require(!folded || begin == 0 || line[0] == ' ', "a header is one header");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::string valid = mailUtf8(text.c_str());
  require(mailUtf8(valid.c_str()) == valid, "what is UTF-8 stays");
  requireLines(mailSubject(valid), 76, sizeof "Subject: " - 1, true);
  requireLines(mailDisposition(text.c_str()), 84, 0, true);
  requireLines(mailQuotedPrintable(valid), 76, 0, false);

  std::vector<std::string> addresses;
  std::string problem;
  if (parseMailAddresses(text, &addresses, &problem)) {
    require(!addresses.empty(), "a list that is good holds something");
    for (const std::string& address : addresses) {
      require(isMailAddress(address), "what was taken is an address");
      for (const char c : address)
        require(c > ' ' && c < 0x7f && c != '<' && c != '>' && c != '"' && c != '\\' && c != '(',
                "an address needs no quoting");
    }
  } else {
    require(!problem.empty(), "a list that is not good says why");
  }
  return 0;
}
