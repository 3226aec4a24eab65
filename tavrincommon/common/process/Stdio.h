// What a child's standard stream is connected to, as the caller of Command chooses it.
// A plain enumeration; no thread rule.
#pragma once

#include <cstdint>

namespace tavrinCommon {
namespace process {

enum class Stdio : int32_t {
  Inherit = 0,  // the parent's own stream
  Null = 1,     // the null device
  Piped = 2,    // a pipe whose other end the Process keeps
};

}  // namespace process
}  // namespace tavrinCommon
