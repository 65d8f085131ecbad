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
#include <optional>
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

// Builds a KOValue with an explicit stack, so nesting depth costs heap, not stack. An object's
// members wait on one list until the object ends, and its dictionary is then made at its exact
// size: no growth step moves members already set. The lists keep their capacity from one parse to
// the next on the same thread (Scratch below).
// Final, so that reading into it calls these directly rather than through the vtable.
class ValueBuilder final : public KOJSONVisitor {
 public:
  struct Frame {
    KOValue array;            // the array being filled; unused for an object
    std::string key;          // the container's key in the object around it
    std::size_t firstMember;  // an object's first member on the list
    bool object;
  };
  struct Lists {
    std::vector<Frame> stack;
    std::vector<KODictionary::Entry> members;
  };

  explicit ValueBuilder(Lists& lists) : stack_(lists.stack), members_(lists.members) {
    stack_.clear();
    members_.clear();
  }

  bool null() override { return add(KOValue::null()); }
  bool boolean(bool b) override { return add(KOValue(b)); }
  bool integer(std::int64_t i) override { return add(KOValue(i)); }
  bool real(double d) override { return add(KOValue(d)); }
  bool string(std::string_view s) override { return add(KOValue(std::string(s))); }
  bool key(std::string_view s) override {
    key_.assign(s);
    return true;
  }
  bool startObject() override {
    stack_.push_back(Frame{KOValue(), std::move(key_), members_.size(), true});
    return true;
  }
  bool endObject() override {
    const std::size_t first = stack_.back().firstMember;
    key_ = std::move(stack_.back().key);
    stack_.pop_back();
    KODictionary dictionary;
    dictionary.reserve(members_.size() - first);
    // set() keeps the dictionary's rule for a repeated key: its first place, its last value.
    for (std::size_t i = first; i < members_.size(); ++i) {
      dictionary.set(std::move(members_[i].first), std::move(members_[i].second));
    }
    members_.resize(first);
    return add(KOValue(std::move(dictionary)));
  }
  bool startArray() override {
    stack_.push_back(Frame{KOValue(KOArray{}), std::move(key_), 0, false});
    return true;
  }
  bool endArray() override {
    KOValue done = std::move(stack_.back().array);
    key_ = std::move(stack_.back().key);
    stack_.pop_back();
    return add(std::move(done));
  }

  KOValue take() { return std::move(root_); }

 private:
  bool add(KOValue v) {
    if (stack_.empty()) {
      root_ = std::move(v);
    } else if (stack_.back().object) {
      members_.emplace_back(std::move(key_), std::move(v));
      key_.clear();
    } else {
      stack_.back().array.arrayValue().push_back(std::move(v));
    }
    return true;
  }

  std::vector<Frame>& stack_;
  std::vector<KODictionary::Entry>& members_;
  std::string key_;
  KOValue root_;
};

// What one thread's readings reuse: the copy of the text the reader parses in place, and the
// builder's lists. A reading started inside another (a visitor that parses) gets its own.
struct Scratch {
  std::string buffer;
  ValueBuilder::Lists lists;
  rapidjson::Reader reader;  // its stack, too, is kept from one reading to the next
  bool inUse = false;
};

// The thread's scratch, or nothing once the thread is ending and it is gone (a reading made by a
// destructor at exit then uses scratch of its own).
thread_local bool tScratchGone = false;
struct ScratchHolder {
  Scratch scratch;
  ~ScratchHolder() { tScratchGone = true; }
};

class ScratchLease {
 public:
  ScratchLease() {
    Scratch* shared = threadScratch();
    if (shared && !shared->inUse) {
      scratch_ = shared;
    } else {
      scratch_ = &own_.emplace();
    }
    scratch_->inUse = true;
  }
  ~ScratchLease() {
    scratch_->inUse = false;
    // A rare huge reading does not keep its memory for the thread's life.
    if (scratch_->buffer.capacity() > kKeptBytes) std::string().swap(scratch_->buffer);
    if (scratch_->lists.members.capacity() > kKeptMembers) {
      std::vector<KODictionary::Entry>().swap(scratch_->lists.members);
    }
  }
  ScratchLease(const ScratchLease&) = delete;
  ScratchLease& operator=(const ScratchLease&) = delete;
  Scratch& operator*() { return *scratch_; }

 private:
  static constexpr std::size_t kKeptBytes = 64 * 1024;
  static constexpr std::size_t kKeptMembers = 1024;
  static Scratch* threadScratch() {
    if (tScratchGone) return nullptr;
    thread_local ScratchHolder holder;
    return &holder.scratch;
  }
  std::optional<Scratch> own_;
  Scratch* scratch_ = nullptr;
};

// Reads text into a sink; false when the sink stopped the reading.
template <typename Sink>
bool readInto(std::string_view text, Sink& sink, std::string& buffer, rapidjson::Reader& reader) {
  if (text.size() >= std::numeric_limits<rapidjson::SizeType>::max()) throw KOParseError("JSON text too large");
  // The whole text is checked as UTF-8 once, at the speed of a scan, rather than character by
  // character inside the reader's strings: outside strings any byte that is not ASCII is a syntax
  // error anyway, so the same texts are accepted.
  if (!isValidUTF8(text)) throw KOParseError("JSON text is not valid UTF-8");
  // Parsed in place on a copy: numbers then reach the handler as text inside the buffer (the
  // reader's copying path for number text reuses memory it has just released). A few NUL bytes
  // of padding end the text for the reader.
  buffer.assign(text);
  buffer.append(4, '\0');
  rapidjson::InsituStringStream stream(buffer.data());
  Reading<Sink> handler(sink);
  constexpr unsigned kFlags =
      rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseInsituFlag;
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
  ScratchLease scratch;
  ValueBuilder builder((*scratch).lists);
  // The builder takes every value: only the text can stop the reading.
  readInto(text, builder, (*scratch).buffer, (*scratch).reader);
  return builder.take();
}

bool KOJSONSerialization::read(std::string_view text, KOJSONVisitor& visitor) {
  ScratchLease scratch;
  return readInto(text, visitor, (*scratch).buffer, (*scratch).reader);
}

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
