#include "common/jsonscan.h"

#include <jansson.h>
#include <locale.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>

#include "common/jsonutil.h"

namespace {

constexpr int kMaxDepth = JSON_PARSER_MAX_DEPTH;
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the word-wise string skip reads bytes low first");

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

int HexValue(char c) {
  if (IsDigit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The four hex digits at p (end not before p + 4), or -1.
int32_t Hex4(const char* p) {
  int32_t value = 0;
  for (int i = 0; i < 4; ++i) {
    const int digit = HexValue(p[i]);
    if (digit < 0) return -1;
    value = value * 16 + digit;
  }
  return value;
}

// Length of the valid UTF-8 sequence at p that starts with a byte of 0x80 or more, or 0.
size_t Utf8Length(const unsigned char* p, const unsigned char* end) {
  const unsigned char u = *p;
  size_t n = 0;
  uint32_t value = 0;
  if (u >= 0xC2 && u <= 0xDF) {
    n = 2, value = u & 0x1F;
  } else if (u >= 0xE0 && u <= 0xEF) {
    n = 3, value = u & 0x0F;
  } else if (u >= 0xF0 && u <= 0xF4) {
    n = 4, value = u & 0x07;
  } else {
    return 0;
  }
  if (static_cast<size_t>(end - p) < n) return 0;
  for (size_t i = 1; i < n; ++i) {
    if (p[i] < 0x80 || p[i] > 0xBF) return 0;
    value = (value << 6) | (p[i] & 0x3F);
  }
  const bool overlong = (n == 3 && value < 0x800) || (n == 4 && value < 0x10000);
  if (value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF) || overlong) return 0;
  return n;
}

size_t EncodeUtf8(int32_t cp, char* out) {
  if (cp < 0x80) {
    out[0] = static_cast<char>(cp);
    return 1;
  }
  if (cp < 0x800) {
    out[0] = static_cast<char>(0xC0 | (cp >> 6));
    out[1] = static_cast<char>(0x80 | (cp & 0x3F));
    return 2;
  }
  if (cp < 0x10000) {
    out[0] = static_cast<char>(0xE0 | (cp >> 12));
    out[1] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out[2] = static_cast<char>(0x80 | (cp & 0x3F));
    return 3;
  }
  out[0] = static_cast<char>(0xF0 | (cp >> 18));
  out[1] = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
  out[2] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
  out[3] = static_cast<char>(0x80 | (cp & 0x3F));
  return 4;
}

// Feeds the decoded bytes of an already validated string body to sink(bytes, n), in runs,
// until the body ends or sink returns false.
template <typename Sink>
void Decode(const char* p, const char* end, Sink sink) {
  while (p < end) {
    const char* run = p;
    while (p < end && *p != '\\') ++p;
    if (p > run && !sink(run, static_cast<size_t>(p - run))) return;
    if (p == end) return;
    const char c = p[1];
    p += 2;
    char bytes[4];
    size_t n = 1;
    switch (c) {
      case 'b': bytes[0] = '\b'; break;
      case 'f': bytes[0] = '\f'; break;
      case 'n': bytes[0] = '\n'; break;
      case 'r': bytes[0] = '\r'; break;
      case 't': bytes[0] = '\t'; break;
      case 'u': {
        int32_t cp = Hex4(p);
        p += 4;
        if (cp >= 0xD800 && cp <= 0xDBFF) {
          cp = ((cp - 0xD800) << 10) + (Hex4(p + 2) - 0xDC00) + 0x10000;
          p += 6;
        }
        n = EncodeUtf8(cp, bytes);
        break;
      }
      default: bytes[0] = c; break;  // '"', '\\', '/'
    }
    if (!sink(bytes, n)) return;
  }
}

// strtod as Jansson calls it, whatever the process's locale: "." is the decimal point.
bool RealOverflows(const char* begin, const char* end) {
  static const locale_t cLocale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(0));
  const size_t size = static_cast<size_t>(end - begin);
  char small[64];
  std::unique_ptr<char[]> large;
  char* text = small;
  if (size >= sizeof small) {
    large.reset(new (std::nothrow) char[size + 1]);
    if (!large) return true;
    text = large.get();
  }
  std::memcpy(text, begin, size);
  text[size] = '\0';
  errno = 0;
  const double value = cLocale != static_cast<locale_t>(0) ? strtod_l(text, nullptr, cLocale)
                                                          : std::strtod(text, nullptr);
  return (value == HUGE_VAL || value == -HUGE_VAL) && errno == ERANGE;
}

}  // namespace

// The scan itself: an explicit stack of open containers instead of recursion, so the depth
// costs bits, not stack frames. Only the first kMaxSteps levels carry the paths that reach them.
class JsonScan::Parser {
 public:
  Parser(JsonScan& scan, const char* text, size_t size)
      : scan_(scan), paths_(scan.paths_), p_(text), end_(text + size) {}

  bool Run() {
    uint32_t capture = 0;  // paths that end at the value about to be read
    uint32_t descend = 0;  // paths that go on into it
    for (size_t i = 0; i < paths_.count_; ++i) {
      if (paths_.steps_[i] != 0) descend |= 1u << i;
    }
    for (;;) {
      // A value.
      SkipSpace();
      if (open_ + 1 > kMaxDepth || p_ == end_) return false;
      Found value{};
      const char c = *p_;
      if (c == '{' || c == '[') {
        value.kind = c == '{' ? kObject : kArray;
        Note(capture, value);
        ++p_;
        Push(c == '{', c == '{' ? descend : 0);
        SkipSpace();
        if (p_ < end_ && *p_ == (c == '{' ? '}' : ']')) {
          ++p_;
          --open_;
        } else if (c == '{') {
          if (!Member(capture, descend)) return false;
          continue;
        } else {
          capture = descend = 0;
          continue;
        }
      } else {
        if (!Scalar(value)) return false;
        Note(capture, value);
      }
      // After a value: the next member or element, or the end of containers.
      for (;;) {
        SkipSpace();
        if (open_ == 0) return p_ == end_;
        if (p_ == end_) return false;
        const bool object = IsObject(open_ - 1);
        if (*p_ == ',') {
          ++p_;
          if (object) {
            SkipSpace();
            if (!Member(capture, descend)) return false;
          } else {
            capture = descend = 0;
          }
          break;
        }
        if (*p_ != (object ? '}' : ']')) return false;
        ++p_;
        --open_;
      }
    }
  }

 private:
  void SkipSpace() {
    while (p_ < end_ && IsSpace(*p_)) ++p_;
  }

  void Push(bool object, uint32_t mask) {
    const int at = open_++;
    if (object) {
      objects_[at / 64] |= uint64_t{1} << (at % 64);
    } else {
      objects_[at / 64] &= ~(uint64_t{1} << (at % 64));
    }
    if (at < static_cast<int>(JsonPaths::kMaxSteps)) masks_[at] = mask;
  }

  bool IsObject(int at) const { return (objects_[at / 64] >> (at % 64)) & 1; }

  void Note(uint32_t capture, const Found& value) {
    for (; capture != 0; capture &= capture - 1) scan_.found_[__builtin_ctz(capture)] = value;
  }

  // A member's key and colon, at p_; sets which paths end at its value and which go on.
  bool Member(uint32_t& capture, uint32_t& descend) {
    Found key{};
    if (p_ == end_ || *p_ != '"' || !String(key)) return false;
    const int level = open_ - 1;
    const uint32_t reaching = level < static_cast<int>(JsonPaths::kMaxSteps) ? masks_[level] : 0;
    uint32_t match = 0;
    if (reaching != 0) {
      const size_t size = static_cast<size_t>(key.end - key.begin);
      // An escaped key's decoded size and first byte are not known yet: it meets every text.
      uint32_t texts = key.escaped ? ~uint32_t{0}
                                   : paths_.candidates_[level][JsonPaths::Bucket(key.begin, size)];
      for (; texts != 0; texts &= texts - 1) {
        const size_t t = static_cast<size_t>(__builtin_ctz(texts));
        if (t >= paths_.textCount_[level]) break;
        const JsonPaths::Text& text = paths_.texts_[level][t];
        if ((text.paths & reaching) != 0 && KeyEquals(key, text.piece)) {
          match = text.paths & reaching;
          break;
        }
      }
    }
    // A later member of the same name replaces the earlier one whole, in Jansson's tree too.
    capture = descend = 0;
    for (uint32_t left = match; left != 0; left &= left - 1) {
      const int i = __builtin_ctz(left);
      scan_.found_[i].kind = kNone;
      (paths_.steps_[i] == level + 1 ? capture : descend) |= 1u << i;
    }
    SkipSpace();
    if (p_ == end_ || *p_ != ':') return false;
    ++p_;
    return true;
  }

  static bool KeyEquals(const Found& key, const JsonPaths::Piece& piece) {
    if (!key.escaped) {
      if (static_cast<size_t>(key.end - key.begin) != piece.size) return false;
      // Keys are a few bytes: a loop beats a call.
      for (size_t i = 0; i < piece.size; ++i) {
        if (key.begin[i] != piece.at[i]) return false;
      }
      return true;
    }
    size_t at = 0;
    bool equal = true;
    Decode(key.begin, key.end, [&](const char* bytes, size_t n) {
      equal = at + n <= piece.size && std::memcmp(piece.at + at, bytes, n) == 0;
      at += n;
      return equal;
    });
    return equal && at == piece.size;
  }

  bool Scalar(Found& value) {
    const char c = *p_;
    if (c == '"') return String(value);
    if (c == '-' || IsDigit(c)) return Number(value);
    if (!IsLetter(c)) return false;
    const char* word = p_;
    while (p_ < end_ && IsLetter(*p_)) ++p_;
    const size_t size = static_cast<size_t>(p_ - word);
    auto is = [&](const char* literal) {
      return size == std::strlen(literal) && std::memcmp(word, literal, size) == 0;
    };
    value.kind = is("true") ? kTrue : is("false") ? kFalse : is("null") ? kNull : kNone;
    return value.kind != kNone;
  }

  // Skips, eight bytes at a time, what needs no look: printable ASCII other than '"' and '\\'.
  void SkipPlain() {
    constexpr uint64_t kOnes = 0x0101010101010101ull;
    constexpr uint64_t kHighs = 0x8080808080808080ull;
    auto hasZero = [](uint64_t v) { return (v - kOnes) & ~v & kHighs; };
    while (end_ - p_ >= 8) {
      uint64_t w;
      std::memcpy(&w, p_, sizeof w);
      // The lowest flagged byte is always a real stop: false flags only follow a real one.
      const uint64_t stop = ((w - kOnes * 0x20) & ~w & kHighs) | hasZero(w ^ (kOnes * '"')) |
                            hasZero(w ^ (kOnes * '\\')) | (w & kHighs);
      if (stop != 0) {
        p_ += __builtin_ctzll(stop) / 8;
        return;
      }
      p_ += 8;
    }
  }

  // A string at p_ (its opening quote), validated as Jansson's lexer does.
  bool String(Found& value) {
    value.kind = kString;
    value.begin = ++p_;
    while (p_ < end_) {
      SkipPlain();
      if (p_ == end_) break;
      const unsigned char u = static_cast<unsigned char>(*p_);
      if (u == '"') {
        value.end = p_++;
        return true;
      }
      if (u < 0x20) return false;
      if (u == '\\') {
        value.escaped = true;
        if (!Escape()) return false;
      } else if (u >= 0x80) {
        const size_t n = Utf8Length(reinterpret_cast<const unsigned char*>(p_),
                                    reinterpret_cast<const unsigned char*>(end_));
        if (n == 0) return false;
        p_ += n;
      } else {
        ++p_;
      }
    }
    return false;
  }

  // An escape at p_; \u0000 and lone or reversed surrogates are refused.
  bool Escape() {
    if (end_ - p_ < 2) return false;
    const char c = p_[1];
    if (c != 'u') {
      p_ += 2;
      return std::strchr("\"\\/bfnrt", c) != nullptr && c != '\0';
    }
    if (end_ - p_ < 6) return false;
    const int32_t cp = Hex4(p_ + 2);
    p_ += 6;
    if (cp <= 0 || (cp >= 0xDC00 && cp <= 0xDFFF)) return false;
    if (cp >= 0xD800 && cp <= 0xDBFF) {
      if (end_ - p_ < 6 || p_[0] != '\\' || p_[1] != 'u') return false;
      const int32_t low = Hex4(p_ + 2);
      p_ += 6;
      return low >= 0xDC00 && low <= 0xDFFF;
    }
    return true;
  }

  bool Number(Found& value) {
    const char* begin = p_;
    const bool negative = *p_ == '-';
    if (negative) ++p_;
    if (p_ == end_) return false;
    if (*p_ == '0') {
      ++p_;
      if (p_ < end_ && IsDigit(*p_)) return false;
    } else if (IsDigit(*p_)) {
      while (p_ < end_ && IsDigit(*p_)) ++p_;
    } else {
      return false;
    }
    const char* digitsEnd = p_;
    if (p_ == end_ || (*p_ != '.' && *p_ != 'e' && *p_ != 'E')) {
      // strtoll's range: one more below zero than above.
      const uint64_t limit = negative ? uint64_t{1} << 63 : (uint64_t{1} << 63) - 1;
      uint64_t magnitude = 0;
      for (const char* d = begin + (negative ? 1 : 0); d < digitsEnd; ++d) {
        const uint64_t digit = static_cast<uint64_t>(*d - '0');
        if (magnitude > (limit - digit) / 10) return false;
        magnitude = magnitude * 10 + digit;
      }
      value.kind = kInteger;
      value.integer = negative ? static_cast<int64_t>(0 - magnitude) : static_cast<int64_t>(magnitude);
      return true;
    }
    if (*p_ == '.') {
      ++p_;
      if (p_ == end_ || !IsDigit(*p_)) return false;
      while (p_ < end_ && IsDigit(*p_)) ++p_;
    }
    if (p_ < end_ && (*p_ == 'e' || *p_ == 'E')) {
      ++p_;
      if (p_ < end_ && (*p_ == '+' || *p_ == '-')) ++p_;
      if (p_ == end_ || !IsDigit(*p_)) return false;
      while (p_ < end_ && IsDigit(*p_)) ++p_;
    }
    value.kind = kReal;
    return !RealOverflows(begin, p_);
  }

  JsonScan& scan_;
  const JsonPaths& paths_;
  const char* p_;
  const char* const end_;
  int open_ = 0;
  uint64_t objects_[(kMaxDepth + 63) / 64] = {};
  uint32_t masks_[JsonPaths::kMaxSteps] = {};
};

JsonPaths::JsonPaths(const char* const* paths, size_t count)
    : paths_(paths), count_(count < kMaxPaths ? count : kMaxPaths) {
  for (size_t i = 0; i < count_; ++i) {
    const char* p = paths_[i];
    size_t steps = 0;
    bool fits = true;
    while (*p != '\0') {
      const char* slash = std::strchr(p, '/');
      const size_t size = slash != nullptr ? static_cast<size_t>(slash - p) : std::strlen(p);
      if (size > 0) {
        if (steps == kMaxSteps) fits = false;
        if (fits) pieces_[i][steps++] = Piece{p, static_cast<uint32_t>(size)};
      }
      p += size + (slash != nullptr ? 1 : 0);
    }
    steps_[i] = fits ? static_cast<uint8_t>(steps) : 0;
  }
  for (size_t step = 0; step < kMaxSteps; ++step) {
    textCount_[step] = 0;
    for (size_t i = 0; i < count_; ++i) {
      if (step >= steps_[i]) continue;
      const Piece& piece = pieces_[i][step];
      size_t t = 0;
      while (t < textCount_[step] && !(texts_[step][t].piece.size == piece.size &&
                                       std::memcmp(texts_[step][t].piece.at, piece.at,
                                                   piece.size) == 0)) {
        ++t;
      }
      if (t == textCount_[step]) texts_[step][textCount_[step]++] = Text{piece, 0};
      texts_[step][t].paths |= 1u << i;
    }
    std::fill(std::begin(candidates_[step]), std::end(candidates_[step]), 0u);
    for (size_t t = 0; t < textCount_[step]; ++t) {
      const Piece& piece = texts_[step][t].piece;
      candidates_[step][Bucket(piece.at, piece.size)] |= 1u << t;
    }
  }
}

int JsonPaths::Slot(const char* path) const {
  for (size_t i = 0; i < count_; ++i) {
    if (paths_[i] == path) return static_cast<int>(i);
  }
  for (size_t i = 0; i < count_; ++i) {
    if (std::strcmp(paths_[i], path) == 0) return static_cast<int>(i);
  }
  return -1;
}

JsonScan::JsonScan(const JsonPaths& paths) : paths_(paths) {
  for (size_t i = 0; i < paths_.count_; ++i) found_[i].kind = kNone;
}

int JsonScan::Scan(const char* text, size_t size) {
  for (size_t i = 0; i < paths_.count_; ++i) found_[i] = Found{};
  Parser parser(*this, text == nullptr ? "" : text, text == nullptr ? 0 : size);
  if (parser.Run()) {
    return JsonUtil::kOk;
  }
  for (size_t i = 0; i < paths_.count_; ++i) found_[i] = Found{};
  return JsonUtil::kLoadFailed;
}

const JsonScan::Found* JsonScan::At(const char* path) const {
  const int slot = paths_.Slot(path);
  return slot < 0 || found_[slot].kind == kNone ? nullptr : &found_[slot];
}

JsonScan::Kind JsonScan::KindAt(const char* path) const {
  const Found* f = At(path);
  return f == nullptr ? kNone : f->kind;
}

int JsonScan::GetString(const char* path, std::string& out) const {
  const Found* f = At(path);
  if (f == nullptr) return JsonUtil::kNotFound;
  if (f->kind != kString) return JsonUtil::kWrongType;
  if (!f->escaped) {
    const size_t size = static_cast<size_t>(f->end - f->begin);
    out.assign(f->begin, size < JsonUtil::kStringLimit ? size : JsonUtil::kStringLimit);
    return JsonUtil::kOk;
  }
  out.clear();
  Decode(f->begin, f->end, [&out](const char* bytes, size_t n) {
    out.append(bytes, n);
    return out.size() < JsonUtil::kStringLimit;
  });
  if (out.size() > JsonUtil::kStringLimit) out.resize(JsonUtil::kStringLimit);
  return JsonUtil::kOk;
}

int JsonScan::GetInteger(const char* path, int* out) const {
  const Found* f = At(path);
  if (f == nullptr) return JsonUtil::kNotFound;
  if (f->kind != kInteger) return JsonUtil::kWrongType;
  if (out != nullptr) {
    *out = static_cast<int>(static_cast<unsigned int>(f->integer));
  }
  return JsonUtil::kOk;
}
