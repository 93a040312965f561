// Settings of one section of /etc/camera.conf as the deliveries read them: what can't be used is
// told and never half used.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr int kLastPort = 65535;

// TLS as the keys "Verify" and "CaFile" say.
struct TlsSettings {
  bool verify = true;
  char caFile[256] = "";  // empty: the system's authorities
};

class DeliverySettings {
 public:
  explicit DeliverySettings(const char* section) : section_(section) {}

  // Reads a text into `buffer`; an absent one is empty. Returns false, and empties the buffer, iff
  // the text is longer than `size` - 1 or holds a control character.
  // Logs 2 "%s: [%s] %s is longer than %zu bytes" or 2 "%s: [%s] %s holds a control character".
  bool text(const char* key, char* buffer, std::size_t size) const;

  // Returns the number of `key`, `fallback` when there is none, `wrong` when it is outside
  // `low`..`high`.
  // Logs 2 "%s: [%s] %s is not from %d to %d: %d".
  std::int32_t number(const char* key, int fallback, int low, int high, int wrong) const;
  std::int32_t number(const char* key, int fallback, int low, int high) const {
    return number(key, fallback, low, high, fallback);
  }

  // Returns false iff the file of authorities can't be used.
  // Logs as text(), or 2 "%s: [%s] CaFile is no file: %s".
  bool tls(TlsSettings* settings) const;

 private:
  const char* section_;
};
