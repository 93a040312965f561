// Little-endian integers in byte buffers: the only way in which the project reads or writes them.
#pragma once

#include <cstdint>

// Reads the 16-bit little-endian integer at `bytes`, which need not be aligned.
inline std::uint16_t loadLe16(const void* bytes) {
  const auto* b = static_cast<const unsigned char*>(bytes);
  return static_cast<std::uint16_t>(b[0] | b[1] << 8);
}

// Writes `value` at `bytes`, which need not be aligned, as a 16-bit little-endian integer.
inline void storeLe16(void* bytes, std::uint16_t value) {
  auto* b = static_cast<unsigned char*>(bytes);
  b[0] = static_cast<unsigned char>(value);
  b[1] = static_cast<unsigned char>(value >> 8);
}

// Reads the 32-bit little-endian integer at `bytes`, which need not be aligned.
inline std::uint32_t loadLe32(const void* bytes) {
  const auto* b = static_cast<const unsigned char*>(bytes);
  return std::uint32_t{b[0]} | std::uint32_t{b[1]} << 8 | std::uint32_t{b[2]} << 16 |
         std::uint32_t{b[3]} << 24;
}

// Writes `value` at `bytes`, which need not be aligned, as a 32-bit little-endian integer.
inline void storeLe32(void* bytes, std::uint32_t value) {
  auto* b = static_cast<unsigned char*>(bytes);
  b[0] = static_cast<unsigned char>(value);
  b[1] = static_cast<unsigned char>(value >> 8);
  b[2] = static_cast<unsigned char>(value >> 16);
  b[3] = static_cast<unsigned char>(value >> 24);
}
