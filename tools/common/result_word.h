// Operator-facing wording of the library's 32-bit result words.
#ifndef NUV_TOOLS_RESULT_WORD_H
#define NUV_TOOLS_RESULT_WORD_H

#include <cstdint>
#include <string>

namespace nuvtools {

// The word as operators see it in logs: "0x84CE0004" (upper-case hex, 8 digits).
std::string ResultWord(uint32_t result);

// A few words on what the result means, e.g. "burying point invalid"; "success" for 0, the
// bus's own meaning for its failures (BusResultMeaning) and "unknown result" for anything else.
const char* ResultMeaning(uint32_t result);

// The meaning of a failure of the message bus itself (0x4E43....), e.g. "nobody serves the
// topic"; null for any other value.
const char* BusResultMeaning(uint32_t result);

// "0x84CE0004 (burying point invalid)"
std::string DescribeResult(uint32_t result);

}  // namespace nuvtools

#endif
