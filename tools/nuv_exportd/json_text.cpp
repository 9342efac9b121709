#include "json_text.h"

namespace nuvexport {
namespace {

// Length of the valid UTF-8 sequence at `at`, or 0.
size_t Utf8Length(const char* s, size_t size, size_t at) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
  const unsigned char lead = byte(at);
  size_t length = 0;
  unsigned int low = 0x80;
  unsigned int high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;  // no surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (at + length > size) return 0;
  if (byte(at + 1) < low || byte(at + 1) > high) return 0;
  for (size_t i = 2; i < length; ++i) {
    if (byte(at + i) < 0x80 || byte(at + i) > 0xBF) return 0;
  }
  return length;
}

}  // namespace

void AppendJsonString(std::string& out, const char* bytes, size_t size) {
  static const char kHex[] = "0123456789abcdef";
  out.push_back('"');
  for (size_t i = 0; i < size;) {
    // Plain printable ASCII, most of a record, goes over in one piece.
    size_t plain = i;
    while (plain < size && bytes[plain] >= 0x20 && bytes[plain] < 0x7f &&
           bytes[plain] != '"' && bytes[plain] != '\\') {
      ++plain;
    }
    out.append(bytes + i, plain - i);
    i = plain;
    if (i == size) break;
    const unsigned char c = static_cast<unsigned char>(bytes[i]);
    if (c >= 0x80) {
      const size_t length = Utf8Length(bytes, size, i);
      if (length != 0) {
        out.append(bytes + i, length);
        i += length;
        continue;
      }
    }
    if (c == '"' || c == '\\') {
      out.push_back('\\');
      out.push_back(static_cast<char>(c));
    } else if (c == '\n') {
      out += "\\n";
    } else if (c < 0x20 || c >= 0x80 || c == 0x7f) {
      out += "\\u00";
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 15]);
    } else {
      out.push_back(static_cast<char>(c));
    }
    ++i;
  }
  out.push_back('"');
}

}  // namespace nuvexport
