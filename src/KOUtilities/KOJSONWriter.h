// The JSON writer behind KOJSONSerialization, for the few places that write a text of their own
// shape in one pass (an event record) rather than a value. Internal to the SDK.
#pragma once

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "kovantis/KOValue.h"

// One pass over each value: runs of characters that need no escaping are copied whole, UTF-8 is
// checked in the same scan, numbers are formatted with std::to_chars. The text is the same as the
// compact form of the common JSON writers: control characters other than \b \t \n \f \r as \u00XX
// (upper-case hex), "/" and non-ASCII characters as they are, reals always with a fraction or an
// exponent ("2.0", "1e30", "1.5e-7").

// What a byte asks of the string writer: 0 copy, 1 escape, 2 starts a multi-byte sequence, 3 never
// valid in UTF-8.
inline constexpr std::array<std::uint8_t, 256> kJSONByteClass = [] {
  std::array<std::uint8_t, 256> table{};
  for (int c = 0; c < 0x20; ++c) table[c] = 1;
  table['"'] = 1;
  table['\\'] = 1;
  for (int c = 0x80; c < 0x100; ++c) table[c] = 3;
  for (int c = 0xC2; c <= 0xF4; ++c) table[c] = 2;
  return table;
}();

// The length of the well-formed sequence at p (2 to 4 bytes), or 0 when it is not one: no
// overlong forms, no surrogates, nothing past U+10FFFF.
inline std::size_t utf8SequenceLength(const unsigned char* p, const unsigned char* end) {
  const unsigned char lead = p[0];
  const auto avail = static_cast<std::size_t>(end - p);
  auto cont = [&](std::size_t i) { return i < avail && (p[i] & 0xC0) == 0x80; };
  if (lead < 0xE0) return cont(1) ? 2 : 0;
  if (lead < 0xF0) {
    if (avail < 3 || !cont(1) || !cont(2)) return 0;
    if (lead == 0xE0 && p[1] < 0xA0) return 0;   // overlong
    if (lead == 0xED && p[1] >= 0xA0) return 0;  // surrogate
    return 3;
  }
  if (avail < 4 || !cont(1) || !cont(2) || !cont(3)) return 0;
  if (lead == 0xF0 && p[1] < 0x90) return 0;   // overlong
  if (lead == 0xF4 && p[1] >= 0x90) return 0;  // past U+10FFFF
  return 4;
}

// Appends to a string through a cursor: the string grows in steps and is cut to length at the
// end, so writing a character is a store rather than a call into the string's growth path.
class KOJSONOutput {
 public:
  explicit KOJSONOutput(std::string& out) : out_(out), length_(out.size()) {}
  /// Writes over `out` from its start, its present size taken as room, and leaves that size as it
  /// is (the text is the first length() bytes): a buffer used again and again is not zero-filled
  /// each time it grows back.
  struct Reuse {};
  KOJSONOutput(std::string& out, Reuse) : out_(out), length_(0), room_(out.size()), reuse_(true) {}
  ~KOJSONOutput() {
    if (!reuse_) out_.resize(length_);
  }
  std::size_t length() const { return length_; }
  KOJSONOutput(const KOJSONOutput&) = delete;
  KOJSONOutput& operator=(const KOJSONOutput&) = delete;

  char* grab(std::size_t n) {
    if (room_ < n) [[unlikely]]
      grow(n);
    char* at = out_.data() + length_;
    length_ += n;
    room_ -= n;
    return at;
  }
  void push_back(char c) { *grab(1) = c; }
  void append(const char* text, std::size_t n) { std::memcpy(grab(n), text, n); }
  void append(std::string_view text) { append(text.data(), text.size()); }
  void append(std::size_t n, char c) { std::memset(grab(n), c, n); }
  // Gives back what a grab took beyond what was used.
  void giveBack(std::size_t n) {
    length_ -= n;
    room_ += n;
  }

 private:
  [[gnu::noinline]] void grow(std::size_t n) {
    out_.resize(std::max(out_.capacity(), std::max(out_.size() * 2, length_ + n + 64)));
    room_ = out_.size() - length_;
  }

  std::string& out_;
  std::size_t length_;
  std::size_t room_ = 0;
  bool reuse_ = false;
};

class KOJSONWriter {
 public:
  explicit KOJSONWriter(std::string& out, int maxDepth = KOValue::kMaxNestingDepth) : out_(out), maxDepth_(maxDepth) {}
  /// Writes over a reused buffer (see KOJSONOutput::Reuse); the text is its first length() bytes.
  KOJSONWriter(std::string& out, KOJSONOutput::Reuse reuse) : out_(out, reuse), maxDepth_(KOValue::kMaxNestingDepth) {}
  std::size_t length() const { return out_.length(); }

  /// Text that needs no escaping, as it is.
  void raw(std::string_view text) { out_.append(text); }

  bool wroteNul() const { return wroteNul_; }

  // False when the text is not valid UTF-8; what was appended of it stays (the caller cuts back).
  bool string(std::string_view text) {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const auto* end = p + text.size();
    out_.push_back('"');
    while (p < end) {
      const unsigned char* run = p;
      while (p < end && kJSONByteClass[*p] == 0) ++p;
      if (p != run) out_.append(reinterpret_cast<const char*>(run), static_cast<std::size_t>(p - run));
      if (p == end) break;
      switch (kJSONByteClass[*p]) {
        case 1:
          escape(*p++);
          break;
        case 2: {
          const std::size_t n = utf8SequenceLength(p, end);
          if (n == 0) return false;
          out_.append(reinterpret_cast<const char*>(p), n);
          p += n;
          break;
        }
        default:
          return false;
      }
    }
    out_.push_back('"');
    return true;
  }

  void integer(std::int64_t i) {
    char* at = out_.grab(24);
    out_.giveBack(static_cast<std::size_t>(at + 24 - std::to_chars(at, at + 24, i).ptr));
  }

  void real(double d) {
    if (!std::isfinite(d)) throw KOTypeError("invalid number in JSON write (NaN or infinity)");
    if (d == 0) {
      out_.append(std::signbit(d) ? "-0.0" : "0.0");
      return;
    }
    if (shortDecimal(d)) return;
    // The shortest digits that read back as the same double, laid out as described above.
    char sci[32];
    const char* sciEnd = std::to_chars(sci, sci + sizeof sci, d, std::chars_format::scientific).ptr;
    const char* p = sci;
    if (*p == '-') {
      out_.push_back('-');
      ++p;
    }
    char digits[24];
    int length = 0;
    for (; p < sciEnd && *p != 'e'; ++p) {
      if (*p != '.') digits[length++] = *p;
    }
    int exponent = 0;
    std::from_chars(p + 1 + (p[1] == '+' ? 1 : 0), sciEnd, exponent);
    const int kk = exponent + 1;  // 10^(kk-1) <= |d| < 10^kk
    const int k = kk - length;    // the exponent of the last digit
    if (k >= 0 && kk <= 21) {
      out_.append(digits, static_cast<std::size_t>(length));
      out_.append(static_cast<std::size_t>(k), '0');
      out_.append(".0");
    } else if (kk > 0 && kk <= 21) {
      out_.append(digits, static_cast<std::size_t>(kk));
      out_.push_back('.');
      out_.append(digits + kk, static_cast<std::size_t>(length - kk));
    } else if (kk > -6 && kk <= 0) {
      out_.append("0.");
      out_.append(static_cast<std::size_t>(-kk), '0');
      out_.append(digits, static_cast<std::size_t>(length));
    } else {
      out_.push_back(digits[0]);
      if (length > 1) {
        out_.push_back('.');
        out_.append(digits + 1, static_cast<std::size_t>(length - 1));
      }
      out_.push_back('e');
      integer(kk - 1);
    }
  }

  void value(const KOValue& v, int depth) {
    using Kind = KOValue::Kind;
    switch (v.kind()) {
      case Kind::Nil:
      case Kind::Null:
        out_.append("null");
        return;
      case Kind::Bool:
        out_.append(v.boolValue() ? "true" : "false");
        return;
      case Kind::Integer:
        integer(v.intValue());
        return;
      case Kind::Real:
        real(v.doubleValue());
        return;
      case Kind::String:
        if (!string(v.stringValue())) throw KOTypeError("string is not valid UTF-8");
        return;
      case Kind::Date:
      case Kind::Data:
      case Kind::URL:
        throw KOTypeError(std::string("invalid type in JSON write (") + KOValue::kindName(v.kind()) + ")");
      case Kind::Array: {
        deeper(depth);
        out_.push_back('[');
        bool first = true;
        for (const auto& item : v.arrayValue()) {
          if (!first) out_.push_back(',');
          first = false;
          value(item, depth + 1);
        }
        out_.push_back(']');
        return;
      }
      case Kind::Dictionary:
        dictionary(v.dictionaryValue(), depth);
        return;
    }
  }

  void dictionary(const KODictionary& d, int depth) {
    deeper(depth);
    out_.push_back('{');
    bool first = true;
    for (const auto& [key, item] : d) {
      if (!first) out_.push_back(',');
      first = false;
      if (!string(key)) throw KOTypeError("dictionary key is not valid UTF-8");
      out_.push_back(':');
      value(item, depth + 1);
    }
    out_.push_back('}');
  }

 private:
  void deeper(int depth) const {
    if (depth >= maxDepth_) throw KOTypeError("JSON nesting too deep");
  }

  void escape(unsigned char c) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    char e[6] = {'\\', 0, 0, 0, 0, 0};
    switch (c) {
      case '"':
      case '\\':
        e[1] = static_cast<char>(c);
        break;
      case '\b':
        e[1] = 'b';
        break;
      case '\t':
        e[1] = 't';
        break;
      case '\n':
        e[1] = 'n';
        break;
      case '\f':
        e[1] = 'f';
        break;
      case '\r':
        e[1] = 'r';
        break;
      default:
        if (c == 0) wroteNul_ = true;
        const char u[6] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]};
        out_.append(u, 6);
        return;
    }
    out_.append(e, 2);
  }

  // Most reals tracked are prices, ratings and measures with a few decimals: when n / 10^p (p at
  // most 8, n below 10^15) gives the double back exactly, those are its shortest digits (no other
  // n of as many digits comes within half a step of it), written without the general conversion.
  bool shortDecimal(double d) {
    static constexpr double kPowers[] = {1, 10, 100, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8};
    const double magnitude = std::fabs(d);
    if (!(magnitude < 1e15) || magnitude < 1e-5) return false;
    for (int p = 0; p <= 8; ++p) {
      const double scaled = magnitude * kPowers[p];
      if (scaled >= 1e15) return false;
      const auto n = static_cast<std::int64_t>(scaled + 0.5);
      if (static_cast<double>(n) / kPowers[p] != magnitude) continue;
      char digits[24];
      const auto length = static_cast<int>(std::to_chars(digits, digits + sizeof digits, n).ptr - digits);
      if (length - p <= -6) return false;  // written with an exponent
      if (std::signbit(d)) out_.push_back('-');
      if (p == 0) {
        out_.append(digits, static_cast<std::size_t>(length));
        out_.append(".0", 2);
      } else if (length > p) {
        out_.append(digits, static_cast<std::size_t>(length - p));
        out_.push_back('.');
        out_.append(digits + length - p, static_cast<std::size_t>(p));
      } else {
        out_.append("0.", 2);
        out_.append(static_cast<std::size_t>(p - length), '0');
        out_.append(digits, static_cast<std::size_t>(length));
      }
      return true;
    }
    return false;
  }

  KOJSONOutput out_;
  int maxDepth_;
  bool wroteNul_ = false;
};
