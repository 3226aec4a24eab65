// Test helper: frames of the TCP control protocol built and read by hand, with little-endian
// fields written byte by byte (an encoder independent of the library's), and connect data that
// counts its destruction. Header-only; no state shared between threads.
#pragma once

#include "tavrincommon/connector/CustomConnectData.h"

#include <cstdint>
#include <string>

namespace tavrinTesting {

struct Bytes {
  std::string data;
  Bytes& u8(uint8_t v) {
    data.push_back(static_cast<char>(v));
    return *this;
  }
  Bytes& u16(uint16_t v) { return u8(v & 0xFF).u8(v >> 8); }
  Bytes& u32(uint32_t v) { return u16(v & 0xFFFF).u16(v >> 16); }
};

// Start delimiter, length, type, info, payload, end delimiter.
inline std::string frame(uint8_t type, uint32_t info, const std::string& payload = {}) {
  Bytes b;
  b.u8(0xA5).u32(static_cast<uint32_t>(payload.size() + 6)).u8(type).u32(info);
  b.data += payload;
  b.u8(0x5A);
  return b.data;
}

inline uint32_t readU32(const std::string& s, size_t at) {
  uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = (v << 8) | static_cast<uint8_t>(s[at + static_cast<size_t>(i)]);
  return v;
}
inline uint16_t readU16(const std::string& s, size_t at) {
  return static_cast<uint16_t>(static_cast<uint8_t>(s[at]) | (static_cast<uint8_t>(s[at + 1]) << 8));
}

struct CountedTag : tavrinConnector::CustomConnectData {
  explicit CountedTag(int* destroyed_) : destroyed(destroyed_) {}
  ~CountedTag() override { ++*destroyed; }
  int* destroyed;
};

}  // namespace tavrinTesting
