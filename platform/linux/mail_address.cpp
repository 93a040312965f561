#include "platform/linux/mail_address.h"

#include <algorithm>

namespace {

// What servers must take: RFC 5321, 4.5.3.1.
constexpr std::size_t kLongestLocalPart = 64;
constexpr std::size_t kLongestDomain = 255;

bool isAlphanumeric(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool isLocal(char c) {
  return isAlphanumeric(c) ||
         (c != '\0' && std::string_view("!#$%&'*+-/=?^_`{|}~").find(c) != std::string_view::npos);
}

// Underscores are in no host's name, but in those of many local networks.
bool isDomain(char c) { return isAlphanumeric(c) || c == '-' || c == '_'; }

// Returns true iff `text` is made of one or more words of allowed characters with dots between.
template <typename Allowed>
bool isDotted(std::string_view text, Allowed allowed) {
  char before = '.';
  for (const char c : text) {
    if (c == '.' ? before == '.' : !allowed(c)) return false;
    before = c;
  }
  return before != '.';
}

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == text.npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace

bool isMailAddress(std::string_view text) {
  const auto at = text.find('@');
  if (at == text.npos) return false;
  const std::string_view local = text.substr(0, at);
  const std::string_view domain = text.substr(at + 1);
  return local.size() <= kLongestLocalPart && isDotted(local, isLocal) &&
         domain.size() <= kLongestDomain && isDotted(domain, isDomain) && domain.front() != '-' &&
         domain.back() != '-';
}

bool parseMailAddresses(std::string_view list, std::vector<std::string>* addresses,
                        std::string* problem) {
  addresses->clear();
  for (std::size_t place = 0; place <= list.size();) {
    const std::size_t end = std::min(list.find(',', place), list.size());
    const std::string_view address = trimmed(list.substr(place, end - place));
    place = end + 1;
    if (address.empty()) continue;
    if (!isMailAddress(address)) {
      *problem = "receiver is no address: " + std::string(address);
      return false;
    }
    addresses->emplace_back(address);
  }
  *problem = "no receiver";
  return !addresses->empty();
}
