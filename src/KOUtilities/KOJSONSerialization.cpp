#include "KOJSONSerialization.h"

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>
#include <rapidjson/stream.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#include "KOJSONWriter.h"
#include "KOUTF8.h"

namespace {

// Adapts the reader's SAX events to a sink: numbers arrive as text and are converted here with
// correct rounding (the reader's own full-precision conversion has undefined behaviour on inputs
// such as 0e-300), strings are checked for escaped lone surrogates, and nesting is bounded.
template <typename Sink>
class Reading : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, Reading<Sink>> {
 public:
  explicit Reading(Sink& sink) : sink_(sink) {}

  bool Null() { return sink_.null(); }
  bool Bool(bool b) { return sink_.boolean(b); }
  bool RawNumber(const char* s, rapidjson::SizeType n, bool) {
    const char* end = s + n;
    if (std::find_if(s, end, [](char c) { return c == '.' || c == 'e' || c == 'E'; }) == end) {
      std::int64_t i = 0;
      const auto [ptr, ec] = std::from_chars(s, end, i);
      if (ec == std::errc() && ptr == end) return sink_.integer(i);
    }
    // Integers beyond int64 become reals, as any real does.
    double d = 0;
    const auto [ptr, ec] = std::from_chars(s, end, d);
    if (ptr != end) return badNumber();
    if (ec == std::errc::result_out_of_range) {
      // Overflow is an infinity JSON cannot carry back out; underflow is a zero of that sign.
      const bool negative = *s == '-';
      d = std::strtod(std::string(s, n).c_str(), nullptr);
      if (!std::isfinite(d)) return badNumber();
      if (d == 0 && negative) d = -0.0;
    }
    return sink_.real(d);
  }
  bool String(const char* s, rapidjson::SizeType n, bool) {
    return validText(s, n) && sink_.string(std::string_view(s, n));
  }
  bool Key(const char* s, rapidjson::SizeType n, bool) { return validText(s, n) && sink_.key(std::string_view(s, n)); }
  bool StartObject() { return deeper() && sink_.startObject(); }
  bool EndObject(rapidjson::SizeType) {
    --depth_;
    return sink_.endObject();
  }
  bool StartArray() { return deeper() && sink_.startArray(); }
  bool EndArray(rapidjson::SizeType) {
    --depth_;
    return sink_.endArray();
  }

  bool tooDeep() const { return tooDeep_; }
  bool badText() const { return badText_; }
  bool numberOutOfRange() const { return badNumber_; }

 private:
  bool badNumber() {
    badNumber_ = true;
    return false;
  }

  bool deeper() {
    if (depth_ >= KOValue::kMaxNestingDepth) {
      tooDeep_ = true;
      return false;
    }
    ++depth_;
    return true;
  }

  // The raw input is validated as UTF-8 by the reader, but an escaped lone surrogate ("\uDC00")
  // decodes to bytes that are not UTF-8. Such bytes always start with 0xED, so only strings
  // holding that byte need a second look.
  bool validText(const char* s, rapidjson::SizeType n) {
    if (!std::memchr(s, 0xED, n) || isValidUTF8({s, n})) return true;
    badText_ = true;
    return false;
  }

  Sink& sink_;
  int depth_ = 0;
  bool tooDeep_ = false;
  bool badText_ = false;
  bool badNumber_ = false;
};

// Builds a KOValue with an explicit stack, so nesting depth costs heap, not stack.
// Final, so that reading into it calls these directly rather than through the vtable.
class ValueBuilder final : public KOJSONVisitor {
 public:
  bool null() override { return add(KOValue::null()); }
  bool boolean(bool b) override { return add(KOValue(b)); }
  bool integer(std::int64_t i) override { return add(KOValue(i)); }
  bool real(double d) override { return add(KOValue(d)); }
  bool string(std::string_view s) override { return add(KOValue(std::string(s))); }
  bool key(std::string_view s) override {
    stack_.back().key.assign(s);
    return true;
  }
  bool startObject() override { return open(KODictionary{}); }
  bool endObject() override { return close(); }
  bool startArray() override { return open(KOArray{}); }
  bool endArray() override { return close(); }

  KOValue take() { return std::move(root_); }

 private:
  struct Frame {
    KOValue container;
    std::string key;
  };

  bool open(KOValue container) {
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
};

// Reads text into a sink; false when the sink stopped the reading.
template <typename Sink>
bool readInto(std::string_view text, Sink& sink) {
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
  Reading<Sink> handler(sink);
  rapidjson::Reader reader;
  constexpr unsigned kFlags = rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag |
                              rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseInsituFlag;
  const rapidjson::ParseResult result = reader.Parse<kFlags>(stream, handler);
  if (result.IsError()) {
    if (handler.tooDeep()) throw KOParseError("JSON nested deeper than " + std::to_string(KOValue::kMaxNestingDepth));
    if (handler.badText()) throw KOParseError("JSON string is not valid UTF-8");
    if (handler.numberOutOfRange())
      throw KOParseError("JSON number out of range at offset " + std::to_string(result.Offset()));
    // The sink said no: the text itself may be fine, the caller decides.
    if (result.Code() == rapidjson::kParseErrorTermination) return false;
    throw KOParseError(std::string("JSON parse error at offset ") + std::to_string(result.Offset()) + ": " +
                       rapidjson::GetParseError_En(result.Code()));
  }
  // The reader takes a NUL byte for the end of the text; anything after one is garbage.
  if (stream.Tell() != text.size()) throw KOParseError("JSON text has bytes after its root value");
  return true;
}

}  // namespace

KOValue KOJSONSerialization::parse(std::string_view text) {
  ValueBuilder builder;
  readInto(text, builder);  // the builder takes every value: only the text can stop the reading
  return builder.take();
}

bool KOJSONSerialization::read(std::string_view text, KOJSONVisitor& visitor) { return readInto(text, visitor); }

void KOJSONSerialization::writeTo(const KOValue& value, std::string& out) {
  const std::size_t before = out.size();
  try {
    KOJSONWriter writer(out);
    writer.value(value, 0);
  } catch (...) {
    out.resize(before);  // nothing half-written is left behind (the writer cut its output first)
    throw;
  }
}

std::string KOJSONSerialization::write(const KOValue& value) {
  std::string out;
  writeTo(value, out);
  return out;
}
