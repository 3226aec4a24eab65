// Small stateless helpers shared by the device applications: number parsing with an explicit
// success flag, 64-bit byte order, string trimming and tests, and MAC address helpers. Callable
// from any thread.
#pragma once

#include "tavrincommon/network/MACAddress.h"
#include "tavrincommon/network/SimpleIp.h"

#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>

namespace tavrinCommon {

// Each gives (success, value): success when at least one character was converted (trailing text
// is allowed); the value is 0 on failure.
std::pair<bool, long> stringToLong(const char* text, int base);
// A 64-bit signed parse truncated to its low 32 bits: negative texts wrap.
std::pair<bool, uint32_t> stringToUInt32(const char* text, int base);
std::pair<bool, int64_t> stringToInt64(const char* text, int base);
std::pair<bool, uint64_t> stringToUint64(const char* text, int base);

// 64-bit host order to network order and back.
unsigned long long htonll(unsigned long long value);
long long htonll(long long value);
unsigned long long ntohll(unsigned long long value);
long long ntohll(long long value);
// Other 64-bit integer types (uint64_t is unsigned long on 64-bit hosts), which would otherwise
// be ambiguous between the overloads above.
template <typename T, typename = std::enable_if_t<std::is_integral<T>::value && sizeof(T) == 8 &&
                                                  !std::is_same<T, long long>::value &&
                                                  !std::is_same<T, unsigned long long>::value>>
T htonll(T value) {
  return static_cast<T>(htonll(static_cast<unsigned long long>(value)));
}
template <typename T, typename = std::enable_if_t<std::is_integral<T>::value && sizeof(T) == 8 &&
                                                  !std::is_same<T, long long>::value &&
                                                  !std::is_same<T, unsigned long long>::value>>
T ntohll(T value) {
  return static_cast<T>(ntohll(static_cast<unsigned long long>(value)));
}

// In place, character by character.
void toLower(std::string& text);
bool beginsWith(const std::string& text, const char* prefix);
bool endsWith(const std::string& text, const char* suffix);
// Without leading and trailing " \t\r\n".
std::string trimWhiteSpaces(const std::string& text);
// The byte if it is printable ASCII (32..126), else `replacement`.
char uint8ToCharacter(unsigned char value, char replacement);

// 01:00:5E and the low 23 bits of the group.
tavrinNetwork::MACAddress multicastIp2Mac(const tavrinNetwork::SimpleIp& group);
// Bytes 2..5, byte 2 most significant.
uint32_t getMacLower4Bytes(const tavrinNetwork::MACAddress& mac);
// Bytes 0..1, byte 0 most significant.
uint16_t getMacHigher2Bytes(const tavrinNetwork::MACAddress& mac);

}  // namespace tavrinCommon
