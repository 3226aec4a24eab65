// Test helper: whether the tests run under user-mode emulation (the 32-bit ARM build under
// qemu-arm), where an emulated program cannot start another emulated program directly and
// posix_spawn does not report exec failures.
#pragma once

#include <cstdlib>
#include <string>

namespace tavrinTesting {

inline bool underEmulation() { return std::getenv("TAVRIN_UNDER_EMULATION") != nullptr; }

// The command that runs a program of the target, followed by a blank ("" when native).
inline std::string targetEmulatorPrefix() {
  const char* emulator = std::getenv("TAVRIN_TARGET_EMULATOR");
  return emulator && *emulator ? std::string(emulator) + " " : std::string();
}

}  // namespace tavrinTesting
