// JSON string literals for record bytes, which need not be UTF-8.
#ifndef NUV_TOOLS_EXPORTD_JSON_TEXT_H
#define NUV_TOOLS_EXPORTD_JSON_TEXT_H

#include <cstddef>
#include <string>

namespace nuvexport {

// Appends `bytes` as a quoted JSON string. Valid UTF-8 is kept as it is (control characters,
// quote and backslash escaped); a byte that is not part of valid UTF-8 becomes \u00XX, so
// every byte of a record survives as one character a reader can map back.
void AppendJsonString(std::string& out, const char* bytes, size_t size);

}  // namespace nuvexport

#endif
