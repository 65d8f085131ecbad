#include "KOJSONSerialization.h"

#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cmath>
#include <limits>
#include <vector>

namespace {

// Builds a KOValue from SAX events with an explicit stack, so nesting depth costs heap, not stack.
class ValueBuilder : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, ValueBuilder> {
 public:
  bool Null() { return add(KOValue::null()); }
  bool Bool(bool b) { return add(KOValue(b)); }
  bool Int(int i) { return add(KOValue(i)); }
  bool Uint(unsigned u) { return add(KOValue(u)); }
  bool Int64(std::int64_t i) { return add(KOValue(i)); }
  bool Uint64(std::uint64_t u) {
    if (u > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      return add(KOValue(static_cast<double>(u)));
    }
    return add(KOValue(static_cast<std::int64_t>(u)));
  }
  bool Double(double d) { return add(KOValue(d)); }
  bool String(const char* s, rapidjson::SizeType n, bool) { return add(KOValue(std::string(s, n))); }
  bool StartObject() { return open(KODictionary{}); }
  bool Key(const char* s, rapidjson::SizeType n, bool) {
    stack_.back().key.assign(s, n);
    return true;
  }
  bool EndObject(rapidjson::SizeType) { return close(); }
  bool StartArray() { return open(KOArray{}); }
  bool EndArray(rapidjson::SizeType) { return close(); }

  bool tooDeep() const { return tooDeep_; }
  KOValue take() { return std::move(root_); }

 private:
  struct Frame {
    KOValue container;
    std::string key;
  };

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

using Writer = rapidjson::Writer<rapidjson::StringBuffer, rapidjson::UTF8<>, rapidjson::UTF8<>,
                                 rapidjson::CrtAllocator, rapidjson::kWriteValidateEncodingFlag>;

void writeValue(Writer& w, const KOValue& v, int depth) {
  using Kind = KOValue::Kind;
  if (depth > KOValue::kMaxNestingDepth) throw KOTypeError("JSON nesting too deep");
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
  rapidjson::MemoryStream stream(text.data(), text.size());
  ValueBuilder builder;
  rapidjson::Reader reader;
  constexpr unsigned kFlags =
      rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag | rapidjson::kParseFullPrecisionFlag;
  const rapidjson::ParseResult result = reader.Parse<kFlags>(stream, builder);
  if (result.IsError()) {
    if (builder.tooDeep()) throw KOParseError("JSON nested deeper than " + std::to_string(KOValue::kMaxNestingDepth));
    throw KOParseError(std::string("JSON parse error at offset ") + std::to_string(result.Offset()) + ": " +
                       rapidjson::GetParseError_En(result.Code()));
  }
  // The reader takes a NUL byte for the end of the text; anything after one is garbage.
  if (stream.Tell() != text.size()) throw KOParseError("JSON text has bytes after its root value");
  return builder.take();
}

void KOJSONSerialization::writeTo(const KOValue& value, std::string& out) {
  rapidjson::StringBuffer buffer;
  Writer writer(buffer);
  writeValue(writer, value, 0);
  out.append(buffer.GetString(), buffer.GetSize());
}

std::string KOJSONSerialization::write(const KOValue& value) {
  std::string out;
  writeTo(value, out);
  return out;
}
