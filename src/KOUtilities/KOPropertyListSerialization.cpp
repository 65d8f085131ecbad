#include "KOPropertyListSerialization.h"

#include <plist/plist.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "KOJSONSerialization.h"
#include "KOJSONWriter.h"
#include "KOUTF8.h"

namespace {

// Property-list dates count from 2001-01-01; ours count from 1970.
constexpr double kAppleEpochOffset = 978307200.0;

struct PlistFree {
  void operator()(void* p) const { plist_free(static_cast<plist_t>(p)); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

KOValue toValue(plist_t node, int depth) {
  const plist_type type = plist_get_node_type(node);
  if ((type == PLIST_ARRAY || type == PLIST_DICT) && depth >= KOValue::kMaxNestingDepth) {
    throw KOParseError("property list nested too deeply");
  }
  switch (type) {
    case PLIST_BOOLEAN: {
      std::uint8_t b = 0;
      plist_get_bool_val(node, &b);
      return KOValue(b != 0);
    }
    case PLIST_UINT: {
      std::uint64_t u = 0;
      plist_get_uint_val(node, &u);
      return KOValue(static_cast<std::int64_t>(u));  // the library keeps negative integers as two's complement
    }
    case PLIST_UID: {
      std::uint64_t u = 0;
      plist_get_uid_val(node, &u);
      return KOValue(static_cast<std::int64_t>(u));
    }
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      return KOValue(d);
    }
    case PLIST_STRING:
    case PLIST_KEY: {
      std::uint64_t length = 0;
      const char* s = plist_get_string_ptr(node, &length);
      if (!s) return KOValue(std::string());
      if (!isValidUTF8({s, static_cast<std::size_t>(length)}))
        throw KOParseError("property list string is not valid UTF-8");
      return KOValue(std::string(s, length));
    }
    case PLIST_DATE: {
      std::int32_t sec = 0, usec = 0;
      plist_get_date_val(node, &sec, &usec);
      // The library truncates seconds toward zero and keeps the fraction's size only.
      return KOValue(KODate{kAppleEpochOffset + sec + (sec < 0 ? -usec : usec) / 1e6});
    }
    case PLIST_DATA: {
      std::uint64_t length = 0;
      const char* p = plist_get_data_ptr(node, &length);
      KOData data;
      if (p)
        data.bytes.assign(reinterpret_cast<const std::uint8_t*>(p), reinterpret_cast<const std::uint8_t*>(p) + length);
      return KOValue(std::move(data));
    }
    case PLIST_ARRAY: {
      const std::uint32_t n = plist_array_get_size(node);
      KOArray array;
      array.reserve(n);
      for (std::uint32_t i = 0; i < n; ++i) array.push_back(toValue(plist_array_get_item(node, i), depth + 1));
      return KOValue(std::move(array));
    }
    case PLIST_DICT: {
      KODictionary dict;
      dict.reserve(plist_dict_get_size(node));
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      std::unique_ptr<void, decltype(&std::free)> iter(it, &std::free);
      for (;;) {
        char* rawKey = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, it, &rawKey, &item);
        if (!item) {
          std::free(rawKey);
          break;
        }
        std::unique_ptr<char, decltype(&std::free)> key(rawKey, &std::free);
        std::string keyText = key ? key.get() : "";
        if (!isValidUTF8(keyText)) throw KOParseError("property list key is not valid UTF-8");
        dict.set(std::move(keyText), toValue(item, depth + 1));
      }
      return KOValue(std::move(dict));
    }
    default:
      throw KOParseError("unsupported property list node");
  }
}

plist_t newString(const std::string& s) {
  if (!isValidUTF8(s)) throw KOTypeError("string is not valid UTF-8");
  // The library takes C strings: a NUL inside would silently cut the text short.
  if (std::memchr(s.data(), 0, s.size())) throw KOTypeError("string holds a NUL byte");
  return plist_new_string(s.c_str());
}

// Returns nullptr for nil and null, which the caller leaves out or replaces.
plist_t toNode(const KOValue& v, int depth) {
  using Kind = KOValue::Kind;
  if ((v.isArray() || v.isDictionary()) && depth >= KOValue::kMaxNestingDepth) {
    throw KOTypeError("property list nesting too deep");
  }
  switch (v.kind()) {
    case Kind::Nil:
    case Kind::Null:
      return nullptr;
    case Kind::Bool:
      return plist_new_bool(v.boolValue() ? 1 : 0);
    case Kind::Integer:
      return plist_new_uint(static_cast<std::uint64_t>(v.intValue()));
    case Kind::Real: {
      if (!std::isfinite(v.doubleValue())) throw KOTypeError("invalid number in property list (NaN or infinity)");
      return plist_new_real(v.doubleValue());
    }
    case Kind::String:
      return newString(v.stringValue());
    case Kind::URL:
      return newString(v.urlValue().absoluteString);
    case Kind::Date: {
      const double since2001 = v.dateValue().secondsSince1970 - kAppleEpochOffset;
      const double whole = std::floor(since2001);
      if (!std::isfinite(since2001) || whole < std::numeric_limits<std::int32_t>::min() ||
          whole > std::numeric_limits<std::int32_t>::max()) {
        throw KOTypeError("date out of the property-list range");
      }
      const auto usec = static_cast<std::int32_t>(std::lround((since2001 - whole) * 1e6));
      return plist_new_date(static_cast<std::int32_t>(whole), usec >= 1000000 ? 999999 : usec);
    }
    case Kind::Data: {
      const auto& bytes = v.dataValue().bytes;
      return plist_new_data(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    }
    case Kind::Array: {
      PlistPtr array(plist_new_array());
      for (const auto& item : v.arrayValue()) {
        plist_t child = toNode(item, depth + 1);
        plist_array_append_item(array.get(), child ? child : plist_new_string(""));
      }
      return static_cast<plist_t>(array.release());
    }
    case Kind::Dictionary: {
      PlistPtr dict(plist_new_dict());
      for (const auto& [key, item] : v.dictionaryValue()) {
        if (!isValidUTF8(key) || std::memchr(key.data(), 0, key.size())) {
          throw KOTypeError("dictionary key is not valid UTF-8 or holds a NUL byte");
        }
        if (plist_t child = toNode(item, depth + 1)) plist_dict_set_item(dict.get(), key.c_str(), child);
      }
      return static_cast<plist_t>(dict.release());
    }
  }
  return nullptr;
}

// The library's binary reader recurses once per nesting level, holding a table the size of the
// object count on every level (quadratic memory), and asserts on some malformed keys. The SDK only
// ever writes XML, so binary lists are accepted up to a modest size, turned into XML on a thread
// with a stack deep enough for that size, and read from there like any XML list.
constexpr std::size_t kMaxBinarySize = 64 << 10;
constexpr std::size_t kBinaryStack = std::size_t{64} << 20;

struct BinaryJob {
  std::string_view bytes;
  std::string xml;
};

void* binaryToXML(void* arg) {
  auto* job = static_cast<BinaryJob*>(arg);
  plist_t raw = nullptr;
  plist_from_bin(job->bytes.data(), static_cast<std::uint32_t>(job->bytes.size()), &raw);
  if (!raw) return nullptr;
  char* xml = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(raw, &xml, &length);
  plist_free(raw);
  if (xml) {
    // The writer stops at a NUL inside a key; only the text up to the first NUL is meaningful.
    job->xml.assign(xml, strnlen(xml, length));
    plist_to_xml_free(xml);
  }
  return nullptr;
}

std::string binaryAsXML(std::string_view bytes) {
  if (bytes.size() > kMaxBinarySize) throw KOParseError("binary property list too large");
  BinaryJob job{bytes, {}};
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstacksize(&attr, kBinaryStack);
  pthread_t thread;
  const int rc = pthread_create(&thread, &attr, &binaryToXML, &job);
  pthread_attr_destroy(&attr);
  if (rc != 0) throw KOParseError("cannot read a binary property list now");
  pthread_join(thread, nullptr);
  if (job.xml.empty()) throw KOParseError("unreadable binary property list");
  return std::move(job.xml);
}

KOValue parseXML(std::string_view bytes) {
  plist_t raw = nullptr;
  plist_from_xml(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &raw);
  PlistPtr root(raw);
  if (!root) throw KOParseError("unreadable property list");
  return toValue(raw, 0);
}

// Writes the XML of JSON values as they are read, with the rules of toNode: null is left out of a
// dictionary and written as "" in an array. What it cannot write the way a parsed value would
// come out is declined, and the caller goes through the library instead: text holding control
// characters (written and read back exactly as the library does it), and an object repeating a
// key (parsing keeps the last value) or holding more keys than are cheap to compare.
class FragmentWriter final : public KOJSONVisitor {
 public:
  explicit FragmentWriter(std::string& out) : out_(out) {}

  bool null() override {
    if (frames_.empty()) return false;  // a null root: the library path reports it
    if (frames_.back().dictionary) {
      out_.resize(frames_.back().keyStart);
    } else {
      out_ += "<string></string>";
    }
    return true;
  }
  bool boolean(bool b) override {
    out_ += b ? "<true/>" : "<false/>";
    return true;
  }
  bool integer(std::int64_t i) override {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, i).ptr;
    out_ += "<integer>";
    out_.append(digits, end);
    out_ += "</integer>";
    return true;
  }
  bool real(double d) override {
    char digits[32];
    const auto end = std::to_chars(digits, digits + sizeof digits, d).ptr;
    out_ += "<real>";
    out_.append(digits, end);
    out_ += "</real>";
    return true;
  }
  bool string(std::string_view text) override {
    out_ += "<string>";
    if (!escaped(text)) return false;
    out_ += "</string>";
    return true;
  }
  bool key(std::string_view text) override {
    Frame& frame = frames_.back();
    const auto first = keys_.begin() + static_cast<std::ptrdiff_t>(frame.firstKey);
    if (keys_.size() - frame.firstKey >= kMaxKeys || std::find(first, keys_.end(), text) != keys_.end()) return false;
    keys_.emplace_back(text);
    frame.keyStart = out_.size();
    out_ += "<key>";
    if (!escaped(text)) return false;
    out_ += "</key>";
    return true;
  }
  bool startObject() override {
    frames_.push_back({true, 0, keys_.size()});
    out_ += "<dict>";
    return true;
  }
  bool endObject() override {
    keys_.resize(frames_.back().firstKey);
    frames_.pop_back();
    out_ += "</dict>";
    return true;
  }
  bool startArray() override {
    frames_.push_back({false, 0, keys_.size()});
    out_ += "<array>";
    return true;
  }
  bool endArray() override {
    frames_.pop_back();
    out_ += "</array>";
    return true;
  }

 private:
  bool escaped(std::string_view text) {
    std::size_t plain = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
      const auto c = static_cast<unsigned char>(text[i]);
      if (c < 0x20) return false;
      const char* entity = c == '&' ? "&amp;" : c == '<' ? "&lt;" : c == '>' ? "&gt;" : nullptr;
      if (!entity) continue;
      out_.append(text.data() + plain, i - plain);
      out_ += entity;
      plain = i + 1;
    }
    out_.append(text.data() + plain, text.size() - plain);
    return true;
  }

  static constexpr std::size_t kMaxKeys = 64;

  struct Frame {
    bool dictionary;
    std::size_t keyStart;  // where the current key's XML starts, to take it back for a null
    std::size_t firstKey;  // this object's keys in keys_ start here
  };
  std::string& out_;
  std::vector<Frame> frames_;
  std::vector<std::string> keys_;  // the keys of every open object, innermost last
};

// The common case of the batch file, done without a JSON reader: one pass over JSON text the SDK
// wrote, straight to the same XML the fragment writer makes. It declines (and the reader's path
// decides) whatever it does not handle the same way: control characters, a repeated or escaped
// key, more keys than are cheap to compare, text that is not UTF-8, unusual numbers, a null root,
// deep nesting, anything that is not plain JSON.
class FastFragment {
 public:
  FastFragment(std::string_view json, std::string& out) : p_(json.data()), end_(json.data() + json.size()), out_(out) {}

  bool run() {
    skipSpace();
    if (p_ < end_ && *p_ == 'n') return false;  // a null root: the library path reports it
    if (!value(0)) return false;
    skipSpace();
    return p_ == end_;
  }

 private:
  static constexpr int kMaxDepth = 64;
  static constexpr std::size_t kMaxKeys = 64;

  void skipSpace() {
    while (p_ < end_ && (*p_ == ' ' || *p_ == '\n' || *p_ == '\r' || *p_ == '\t')) ++p_;
  }

  bool literal(std::string_view word) {
    if (static_cast<std::size_t>(end_ - p_) < word.size() || std::string_view(p_, word.size()) != word) return false;
    p_ += word.size();
    return true;
  }

  bool value(int depth) {
    if (p_ >= end_) return false;
    switch (*p_) {
      case '{':
        return object(depth + 1);
      case '[':
        return array(depth + 1);
      case '"':
        put("<string>");
        if (!string()) return false;
        put("</string>");
        return true;
      case 't':
        put("<true/>");
        return literal("true");
      case 'f':
        put("<false/>");
        return literal("false");
      default:
        return number();
    }
  }

  bool object(int depth) {
    if (depth > kMaxDepth) return false;
    ++p_;
    put("<dict>");
    const std::size_t firstKey = keys_.size();
    skipSpace();
    if (p_ < end_ && *p_ == '}') {
      ++p_;
      put("</dict>");
      return true;
    }
    for (;;) {
      skipSpace();
      if (p_ >= end_ || *p_ != '"') return false;
      const std::size_t keyStart = out_.size();
      const char* raw = p_ + 1;
      put("<key>");
      if (!string()) return false;
      const std::string_view key(raw, static_cast<std::size_t>(p_ - 1 - raw));
      // An escaped key could equal another written differently; parsing keeps the last of equal keys.
      if (key.find('\\') != std::string_view::npos || keys_.size() - firstKey >= kMaxKeys) return false;
      for (std::size_t i = firstKey; i < keys_.size(); ++i) {
        if (keys_[i] == key) return false;
      }
      keys_.push_back(key);
      put("</key>");
      skipSpace();
      if (p_ >= end_ || *p_ != ':') return false;
      ++p_;
      skipSpace();
      if (p_ < end_ && *p_ == 'n') {
        if (!literal("null")) return false;
        out_.resize(keyStart);  // null is left out of a dictionary
      } else if (!value(depth)) {
        return false;
      }
      skipSpace();
      if (p_ >= end_) return false;
      if (*p_ == '}') break;
      if (*p_ != ',') return false;
      ++p_;
    }
    ++p_;
    keys_.resize(firstKey);
    put("</dict>");
    return true;
  }

  bool array(int depth) {
    if (depth > kMaxDepth) return false;
    ++p_;
    put("<array>");
    skipSpace();
    if (p_ < end_ && *p_ == ']') {
      ++p_;
      put("</array>");
      return true;
    }
    for (;;) {
      skipSpace();
      if (p_ < end_ && *p_ == 'n') {
        if (!literal("null")) return false;
        put("<string></string>");  // null is "" in an array
      } else if (!value(depth)) {
        return false;
      }
      skipSpace();
      if (p_ >= end_) return false;
      if (*p_ == ']') break;
      if (*p_ != ',') return false;
      ++p_;
    }
    ++p_;
    put("</array>");
    return true;
  }

  // What a byte of a string asks for: 0 copy, 1 the closing quote, 2 an escape, 3 an XML entity,
  // 4 never in a string here (a control character, or no UTF-8 lead), 5 the start of a
  // multi-byte sequence.
  static constexpr std::array<std::uint8_t, 256> kByteClass = [] {
    std::array<std::uint8_t, 256> table{};
    for (int c = 0; c < 0x20; ++c) table[c] = 4;
    table['"'] = 1;
    table['\\'] = 2;
    table['&'] = table['<'] = table['>'] = 3;
    for (int c = 0x80; c < 0x100; ++c) table[c] = 4;  // a byte no sequence starts with
    for (int c = 0xC2; c <= 0xF4; ++c) table[c] = 5;
    return table;
  }();

  void put(std::string_view text) { out_.append(text.data(), text.size()); }

  // The text of a JSON string, XML-escaped; p_ at its opening quote, left after its closing one.
  bool string() {
    ++p_;
    const char* plain = p_;
    for (;;) {
      while (p_ < end_ && kByteClass[static_cast<unsigned char>(*p_)] == 0) ++p_;
      if (p_ >= end_) return false;
      const char c = *p_;
      switch (kByteClass[static_cast<unsigned char>(c)]) {
        case 1:
          out_.append(plain, p_);
          ++p_;
          return true;
        case 2:
          out_.append(plain, p_);
          if (!escape()) return false;
          plain = p_;
          break;
        case 3:
          out_.append(plain, p_);
          put(c == '&' ? std::string_view("&amp;") : c == '<' ? std::string_view("&lt;") : std::string_view("&gt;"));
          plain = ++p_;
          break;
        case 5: {
          const std::size_t n = utf8SequenceLength(reinterpret_cast<const unsigned char*>(p_),
                                                   reinterpret_cast<const unsigned char*>(end_));
          if (n == 0) return false;
          p_ += n;
          break;
        }
        default:
          return false;
      }
    }
  }

  bool escape() {
    if (end_ - p_ < 2) return false;
    const char e = p_[1];
    p_ += 2;
    if (e == '"' || e == '\\' || e == '/') {
      out_ += e;
      return true;
    }
    if (e != 'u') return false;  // \b \f \n \r \t are control characters
    std::uint32_t code = 0;
    if (!hex4(code)) return false;
    if (code >= 0xD800 && code <= 0xDBFF) {
      std::uint32_t low = 0;
      if (end_ - p_ < 2 || p_[0] != '\\' || p_[1] != 'u') return false;
      p_ += 2;
      if (!hex4(low) || low < 0xDC00 || low > 0xDFFF) return false;
      code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
    } else if ((code >= 0xDC00 && code <= 0xDFFF) || code < 0x20) {
      return false;
    }
    if (code == '&' || code == '<' || code == '>') {
      put(code == '&' ? std::string_view("&amp;") : code == '<' ? std::string_view("&lt;") : std::string_view("&gt;"));
      return true;
    }
    char bytes[4];
    std::size_t n = 0;
    if (code < 0x80) {
      bytes[n++] = static_cast<char>(code);
    } else if (code < 0x800) {
      bytes[n++] = static_cast<char>(0xC0 | (code >> 6));
      bytes[n++] = static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
      bytes[n++] = static_cast<char>(0xE0 | (code >> 12));
      bytes[n++] = static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      bytes[n++] = static_cast<char>(0x80 | (code & 0x3F));
    } else {
      bytes[n++] = static_cast<char>(0xF0 | (code >> 18));
      bytes[n++] = static_cast<char>(0x80 | ((code >> 12) & 0x3F));
      bytes[n++] = static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      bytes[n++] = static_cast<char>(0x80 | (code & 0x3F));
    }
    out_.append(bytes, n);
    return true;
  }

  bool hex4(std::uint32_t& code) {
    if (end_ - p_ < 4) return false;
    for (int i = 0; i < 4; ++i, ++p_) {
      const char h = *p_;
      code <<= 4;
      if (h >= '0' && h <= '9') {
        code |= static_cast<std::uint32_t>(h - '0');
      } else if (h >= 'a' && h <= 'f') {
        code |= static_cast<std::uint32_t>(h - 'a' + 10);
      } else if (h >= 'A' && h <= 'F') {
        code |= static_cast<std::uint32_t>(h - 'A' + 10);
      } else {
        return false;
      }
    }
    return true;
  }

  // A number as the reader hands it on: digits alone an integer when it fits, anything else a real.
  bool number() {
    const char* start = p_;
    if (p_ < end_ && *p_ == '-') ++p_;
    const char* digits = p_;
    while (p_ < end_ && *p_ >= '0' && *p_ <= '9') ++p_;
    if (p_ == digits || (*digits == '0' && p_ - digits > 1)) return false;
    bool real = false;
    if (p_ < end_ && *p_ == '.') {
      real = true;
      const char* fraction = ++p_;
      while (p_ < end_ && *p_ >= '0' && *p_ <= '9') ++p_;
      if (p_ == fraction) return false;
    }
    if (p_ < end_ && (*p_ == 'e' || *p_ == 'E')) {
      real = true;
      ++p_;
      if (p_ < end_ && (*p_ == '+' || *p_ == '-')) ++p_;
      const char* exponent = p_;
      while (p_ < end_ && *p_ >= '0' && *p_ <= '9') ++p_;
      if (p_ == exponent) return false;
    }
    char text[32];
    if (!real) {
      std::int64_t i = 0;
      const auto [ptr, ec] = std::from_chars(start, p_, i);
      if (ec != std::errc() || ptr != p_) return false;  // past int64: a real, the reader's way
      const auto written = std::to_chars(text, text + sizeof text, i).ptr;
      put("<integer>");
      out_.append(text, written);
      put("</integer>");
      return true;
    }
    double d = 0;
    const auto [ptr, ec] = std::from_chars(start, p_, d);
    if (ec != std::errc() || ptr != p_) return false;
    const auto written = std::to_chars(text, text + sizeof text, d).ptr;
    put("<real>");
    out_.append(text, written);
    put("</real>");
    return true;
  }

  const char* p_;
  const char* end_;
  std::string& out_;
  std::vector<std::string_view> keys_;  // the keys of every open object, innermost last
};

// The value inside a whole document from the library's writer.
std::string documentBody(const std::string& document) {
  const std::string open = "<plist version=\"1.0\">";
  const auto start = document.find(open);
  const auto end = document.rfind("</plist>");
  if (start == std::string::npos || end == std::string::npos || end < start) {
    throw KOTypeError("unexpected property-list writer output");
  }
  return document.substr(start + open.size(), end - start - open.size());
}

}  // namespace

KOValue KOPropertyListSerialization::parse(std::string_view bytes) {
  if (bytes.empty()) throw KOParseError("empty property list");
  if (bytes.size() >= std::numeric_limits<std::uint32_t>::max()) throw KOParseError("property list too large");
  if (bytes.size() >= 8 && bytes.substr(0, 8) == "bplist00") return parseXML(binaryAsXML(bytes));
  return parseXML(bytes);
}

std::string KOPropertyListSerialization::writeXML(const KOValue& value) {
  PlistPtr root(toNode(value, 0));
  if (!root) throw KOTypeError("nothing to write: the property list root is nil or null");
  char* xml = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(static_cast<plist_t>(root.get()), &xml, &length);
  if (!xml) throw KOTypeError("property list write failed");
  std::string out(xml, length);
  plist_to_xml_free(xml);
  return out;
}

std::string KOPropertyListSerialization::xmlFragment(const KOValue& value) { return documentBody(writeXML(value)); }

std::string KOPropertyListSerialization::xmlFragmentFromJSON(std::string_view json) {
  std::string out;
  out.reserve(json.size() * 2);
  if (FastFragment(json, out).run()) return out;
  out.clear();
  FragmentWriter writer(out);
  if (KOJSONSerialization::read(json, writer)) return out;
  return documentBody(writeXML(KOJSONSerialization::parse(json)));
}
