#include "KOJSONSerialization.h"

#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>
#include <rapidjson/stream.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

namespace {

// Builds a KOValue from SAX events with an explicit stack, so nesting depth costs heap, not stack.
class ValueBuilder : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, ValueBuilder> {
 public:
  bool Null() { return add(KOValue::null()); }
  bool Bool(bool b) { return add(KOValue(b)); }
  // Numbers arrive as text and are converted here with correct rounding; the reader's own
  // full-precision conversion has undefined behaviour on inputs such as 0e-300.
  bool RawNumber(const char* s, rapidjson::SizeType n, bool) {
    const char* end = s + n;
    if (std::find_if(s, end, [](char c) { return c == '.' || c == 'e' || c == 'E'; }) == end) {
      std::int64_t i = 0;
      const auto [ptr, ec] = std::from_chars(s, end, i);
      if (ec == std::errc() && ptr == end) return add(KOValue(i));
    }
    // Integers beyond int64 become reals, as any real does.
    double d = 0;
    const auto [ptr, ec] = std::from_chars(s, end, d);
    if (ptr != end) return false;
    if (ec == std::errc::result_out_of_range) {
      // Overflow is an infinity JSON cannot carry back out; underflow is a zero of that sign.
      const bool negative = *s == '-';
      d = std::strtod(std::string(s, n).c_str(), nullptr);
      if (!std::isfinite(d)) return false;
      if (d == 0 && negative) d = -0.0;
    }
    return add(KOValue(d));
  }
  bool String(const char* s, rapidjson::SizeType n, bool) {
    if (!validText(s, n)) return false;
    return add(KOValue(std::string(s, n)));
  }
  bool StartObject() { return open(KODictionary{}); }
  bool Key(const char* s, rapidjson::SizeType n, bool) {
    if (!validText(s, n)) return false;
    stack_.back().key.assign(s, n);
    return true;
  }
  bool EndObject(rapidjson::SizeType) { return close(); }
  bool StartArray() { return open(KOArray{}); }
  bool EndArray(rapidjson::SizeType) { return close(); }

  bool tooDeep() const { return tooDeep_; }
  bool badText() const { return badText_; }
  KOValue take() { return std::move(root_); }

 private:
  struct Frame {
    KOValue container;
    std::string key;
  };

  // The raw input is validated as UTF-8 by the reader, but an escaped lone surrogate ("\uDC00")
  // decodes to bytes that are not UTF-8. Such bytes always start with 0xED, so only strings
  // holding that byte need a second look.
  bool validText(const char* s, rapidjson::SizeType n) {
    if (!std::memchr(s, 0xED, n)) return true;
    rapidjson::MemoryStream ms(s, n);
    while (ms.Tell() < n) {
      if (!rapidjson::UTF8<>::Validate(ms, nullOutput_)) {
        badText_ = true;
        return false;
      }
    }
    return true;
  }

  struct NullOutput {
    void Put(char) {}
  } nullOutput_;
  bool badText_ = false;

  bool open(KOValue container) {
    if (stack_.size() >= static_cast<std::size_t>(KOValue::kMaxNestingDepth)) {
      tooDeep_ = true;
      return false;
    }
    stack_.push_back(Frame{std::move(container), {}});
    return true;
  }

  bool close() {
    KOValue done = std::move(stack_.back().container);
    stack_.pop_back();
    return add(std::move(done));
  }

  bool add(KOValue v) {
    if (stack_.empty()) {
      root_ = std::move(v);
      return true;
    }
    Frame& top = stack_.back();
    if (top.container.isArray()) {
      top.container.arrayValue().push_back(std::move(v));
    } else {
      top.container.dictionaryValue().set(std::move(top.key), std::move(v));
      top.key.clear();
    }
    return true;
  }

  std::vector<Frame> stack_;
  KOValue root_;
  bool tooDeep_ = false;
};

// Writes straight into the caller's string: no intermediate buffer to allocate and copy.
struct StringOutput {
  using Ch = char;
  std::string* out;
  void Put(char c) { out->push_back(c); }
  void Flush() {}
};

using Writer = rapidjson::Writer<StringOutput, rapidjson::UTF8<>, rapidjson::UTF8<>,
                                 rapidjson::CrtAllocator, rapidjson::kWriteValidateEncodingFlag>;

void writeValue(Writer& w, const KOValue& v, int depth) {
  using Kind = KOValue::Kind;
  if ((v.isArray() || v.isDictionary()) && depth >= KOValue::kMaxNestingDepth) {
    throw KOTypeError("JSON nesting too deep");
  }
  bool ok = true;
  switch (v.kind()) {
    case Kind::Nil:
    case Kind::Null: ok = w.Null(); break;
    case Kind::Bool: ok = w.Bool(v.boolValue()); break;
    case Kind::Integer: ok = w.Int64(v.intValue()); break;
    case Kind::Real: {
      const double d = v.doubleValue();
      if (!std::isfinite(d)) throw KOTypeError("invalid number in JSON write (NaN or infinity)");
      ok = w.Double(d);
      break;
    }
    case Kind::String: {
      const std::string& s = v.stringValue();
      ok = w.String(s.data(), static_cast<rapidjson::SizeType>(s.size()));
      if (!ok) throw KOTypeError("string is not valid UTF-8");
      break;
    }
    case Kind::Date:
    case Kind::Data:
    case Kind::URL:
      throw KOTypeError(std::string("invalid type in JSON write (") + KOValue::kindName(v.kind()) + ")");
    case Kind::Array:
      w.StartArray();
      for (const auto& item : v.arrayValue()) writeValue(w, item, depth + 1);
      ok = w.EndArray();
      break;
    case Kind::Dictionary:
      w.StartObject();
      for (const auto& [key, item] : v.dictionaryValue()) {
        if (!w.Key(key.data(), static_cast<rapidjson::SizeType>(key.size()))) {
          throw KOTypeError("dictionary key is not valid UTF-8");
        }
        writeValue(w, item, depth + 1);
      }
      ok = w.EndObject();
      break;
  }
  if (!ok) throw KOTypeError("JSON write failed");
}

}  // namespace

KOValue KOJSONSerialization::parse(std::string_view text) {
  if (text.size() >= std::numeric_limits<rapidjson::SizeType>::max()) throw KOParseError("JSON text too large");
  // Parsed in place on a copy: numbers then reach the handler as text inside the buffer (the
  // reader's copying path for number text reuses memory it has just released).
  // The reader's UTF-8 check takes the rest of a multi-byte sequence without looking for the end
  // of the text: a few NUL bytes of padding keep a sequence cut short at the end inside the buffer.
  std::string buffer;
  buffer.reserve(text.size() + 4);
  buffer.assign(text);
  buffer.append(4, '\0');
  rapidjson::InsituStringStream stream(buffer.data());
  ValueBuilder builder;
  rapidjson::Reader reader;
  constexpr unsigned kFlags = rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag |
                              rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseInsituFlag;
  const rapidjson::ParseResult result = reader.Parse<kFlags>(stream, builder);
  if (result.IsError()) {
    if (builder.tooDeep()) throw KOParseError("JSON nested deeper than " + std::to_string(KOValue::kMaxNestingDepth));
    if (builder.badText()) throw KOParseError("JSON string is not valid UTF-8");
    throw KOParseError(std::string("JSON parse error at offset ") + std::to_string(result.Offset()) + ": " +
                       rapidjson::GetParseError_En(result.Code()));
  }
  // The reader takes a NUL byte for the end of the text; anything after one is garbage.
  if (stream.Tell() != text.size()) throw KOParseError("JSON text has bytes after its root value");
  return builder.take();
}

void KOJSONSerialization::writeTo(const KOValue& value, std::string& out) {
  const std::size_t before = out.size();
  try {
    StringOutput output{&out};
    Writer writer(output);
    writeValue(writer, value, 0);
  } catch (...) {
    out.resize(before);  // nothing half-written is left behind
    throw;
  }
}

std::string KOJSONSerialization::write(const KOValue& value) {
  std::string out;
  writeTo(value, out);
  return out;
}
