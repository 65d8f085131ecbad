#include "kovantis/KOValue.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>

#include "KOJSONSerialization.h"

namespace {

// Past this many keys a dictionary keeps a hash index beside its ordered entries.
constexpr std::size_t kIndexThreshold = 24;

std::size_t hashKey(std::string_view key) noexcept { return std::hash<std::string_view>{}(key); }

// Compares an integer with a real by exact value, without the rounding of a plain conversion.
bool integerEqualsReal(std::int64_t i, double d) noexcept {
  if (!std::isfinite(d) || d != std::trunc(d)) return false;
  if (d < -9223372036854775808.0 || d >= 9223372036854775808.0) return false;
  return static_cast<std::int64_t>(d) == i;
}

void appendQuoted(std::string& out, const std::string& s) {
  out += '"';
  for (char c : s) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  out += '"';
}

void describe(const KOValue& v, std::string& out, bool quoteStrings);

}  // namespace

namespace {

bool holdsNested(const KOValue& v) noexcept {
  return (v.isArray() && !v.arrayValue().empty()) || (v.isDictionary() && !v.dictionaryValue().empty());
}

void takeNested(KOValue& item, std::vector<KOValue>& nested) {
  if (holdsNested(item)) nested.push_back(std::move(item));
}

void takeNested(std::pair<std::string, KOValue>& entry, std::vector<KOValue>& nested) {
  takeNested(entry.second, nested);
}

// Destroys the containers nested in `items` one level at a time from a list on the heap, so that
// a value nested a hundred thousand levels deep is freed without recursing once per level.
template <typename Storage>
void releaseNested(Storage& items) {
  std::vector<KOValue> nested;
  for (auto& item : items) takeNested(item, nested);
  while (!nested.empty()) {
    KOValue value = std::move(nested.back());
    nested.pop_back();
    if (value.isArray()) {
      for (auto& item : value.arrayValue()) takeNested(item, nested);
    } else {
      for (auto& entry : value.dictionaryValue()) takeNested(entry, nested);
    }
  }  // each value dies holding no nested container
}

// An empty container of the child's kind when it holds others, to be filled later; the child
// itself otherwise.
KOValue shallowCopy(const KOValue& child) {
  if (!holdsNested(child)) return child;
  return child.isArray() ? KOValue(KOArray{}) : KOValue(KODictionary{});
}

struct CopyStep {
  KOValue* to;
  const KOValue* from;
};

void copyLevel(KOArray::Storage& to, const KOArray::Storage& from, std::vector<CopyStep>& pending) {
  to.reserve(from.size());  // filled once: the steps' pointers into it stay valid
  for (const KOValue& child : from) {
    to.push_back(shallowCopy(child));
    if (holdsNested(child)) pending.push_back({&to.back(), &child});
  }
}

void copyLevel(KODictionary::Storage& to, const KODictionary::Storage& from, std::vector<CopyStep>& pending) {
  to.reserve(from.size());
  for (const auto& [key, child] : from) {
    to.emplace_back(key, shallowCopy(child));
    if (holdsNested(child)) pending.push_back({&to.back().second, &child});
  }
}

// Copies nested containers one level at a time from a list on the heap, never recursing per level.
void copyPending(std::vector<CopyStep>& pending);

}  // namespace

// ------------------------------------------------------------------------------------------ KOArray

KOArray::KOArray() = default;
KOArray::KOArray(std::initializer_list<KOValue> items) : items_(items) {}
KOArray::KOArray(Storage items) : items_(std::move(items)) {}
KOArray::KOArray(const KOArray& other) {
  std::vector<CopyStep> pending;
  copyLevel(items_, other.items_, pending);
  copyPending(pending);
}
KOArray::KOArray(KOArray&&) noexcept = default;
KOArray& KOArray::operator=(const KOArray& other) {
  KOArray copy(other);
  items_.swap(copy.items_);  // the old items go with `copy`
  return *this;
}
KOArray& KOArray::operator=(KOArray&&) noexcept = default;
KOArray::~KOArray() {
  if (!items_.empty()) releaseNested(items_);
}

const KOValue& KOArray::at(std::size_t i) const {
  if (i >= items_.size()) {
    throw KOTypeError("array index " + std::to_string(i) + " beyond " + std::to_string(items_.size()));
  }
  return items_[i];
}

bool operator==(const KOArray& a, const KOArray& b) { return a.items_ == b.items_; }

namespace {

void copyPending(std::vector<CopyStep>& pending) {
  while (!pending.empty()) {
    const CopyStep step = pending.back();
    pending.pop_back();
    // Each container is filled once, after room for all its children was made: the pointers to
    // them in `pending` stay valid.
    if (step.from->isArray()) {
      KOArray& to = step.to->arrayValue();
      to.reserve(step.from->arrayValue().size());
      for (const KOValue& child : step.from->arrayValue()) {
        to.push_back(shallowCopy(child));
        if (holdsNested(child)) pending.push_back({&to.back(), &child});
      }
    } else {
      KODictionary& to = step.to->dictionaryValue();
      to.reserve(step.from->dictionaryValue().size());
      for (const auto& [key, child] : step.from->dictionaryValue()) {
        KOValue& placed = to.set(key, shallowCopy(child));
        if (holdsNested(child)) pending.push_back({&placed, &child});
      }
    }
  }
}

}  // namespace

// ------------------------------------------------------------------------------------- KODictionary

KODictionary::KODictionary() = default;
KODictionary::KODictionary(std::initializer_list<Entry> entries) : entries_(entries) {
  // A literal list rarely repeats a key: copied whole, then checked once, pairwise while small and
  // through the index when large. A repeated key takes the path of set(): first place, last value.
  bool repeated = false;
  if (entries_.size() < kIndexThreshold) {
    for (std::size_t i = 1; i < entries_.size() && !repeated; ++i) {
      for (std::size_t j = 0; j < i; ++j) {
        if (entries_[i].first == entries_[j].first) {
          repeated = true;
          break;
        }
      }
    }
  } else {
    rebuildIndex();
    std::size_t distinct = 0;
    for (const std::uint32_t ref : index_) distinct += ref != 0;
    repeated = distinct != entries_.size();
  }
  if (!repeated) return;
  Storage all = std::move(entries_);
  entries_.clear();
  index_.clear();
  for (auto& e : all) set(std::move(e.first), std::move(e.second));
}
KODictionary::KODictionary(const KODictionary& other) : index_(other.index_) {
  std::vector<CopyStep> pending;
  copyLevel(entries_, other.entries_, pending);  // same positions: the index stays right
  copyPending(pending);
}
KODictionary::KODictionary(KODictionary&&) noexcept = default;
KODictionary& KODictionary::operator=(const KODictionary& other) {
  KODictionary copy(other);
  entries_.swap(copy.entries_);
  index_.swap(copy.index_);
  return *this;
}
KODictionary& KODictionary::operator=(KODictionary&&) noexcept = default;
KODictionary::~KODictionary() {
  if (!entries_.empty()) releaseNested(entries_);
}

std::size_t KODictionary::indexOf(std::string_view key) const noexcept {
  if (index_.empty()) {
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      if (entries_[i].first == key) return i;
    }
    return entries_.size();
  }
  const std::size_t mask = index_.size() - 1;
  for (std::size_t slot = hashKey(key) & mask;; slot = (slot + 1) & mask) {
    const std::uint32_t ref = index_[slot];
    if (ref == 0) return entries_.size();
    if (entries_[ref - 1].first == key) return ref - 1;
  }
}

void KODictionary::indexInsert(std::size_t position) {
  const std::size_t mask = index_.size() - 1;
  std::size_t slot = hashKey(entries_[position].first) & mask;
  while (index_[slot] != 0) {
    // A repeated key (only a literal list being checked has one) is not indexed twice.
    if (entries_[index_[slot] - 1].first == entries_[position].first) return;
    slot = (slot + 1) & mask;
  }
  index_[slot] = static_cast<std::uint32_t>(position + 1);
}

void KODictionary::rebuildIndex() {
  index_.clear();
  if (entries_.size() < kIndexThreshold) return;
  std::size_t capacity = 64;
  while (capacity < entries_.size() * 2) capacity *= 2;
  index_.assign(capacity, 0);
  for (std::size_t i = 0; i < entries_.size(); ++i) indexInsert(i);
}

const KOValue* KODictionary::find(std::string_view key) const noexcept {
  const std::size_t i = indexOf(key);
  return i < entries_.size() ? &entries_[i].second : nullptr;
}

KOValue* KODictionary::find(std::string_view key) noexcept {
  const std::size_t i = indexOf(key);
  return i < entries_.size() ? &entries_[i].second : nullptr;
}

const KOValue& KODictionary::operator[](std::string_view key) const noexcept {
  const KOValue* v = find(key);
  return v ? *v : KOValue::nil();
}

KOValue& KODictionary::set(std::string key, KOValue value) {
  if (KOValue* existing = find(key)) {
    *existing = std::move(value);
    return *existing;
  }
  entries_.emplace_back(std::move(key), std::move(value));
  if (!index_.empty() && entries_.size() * 2 <= index_.size()) {
    indexInsert(entries_.size() - 1);
  } else if (entries_.size() >= kIndexThreshold) {
    rebuildIndex();
  }
  return entries_.back().second;
}

bool KODictionary::remove(std::string_view key) {
  const std::size_t i = indexOf(key);
  if (i >= entries_.size()) return false;
  entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(i));
  if (!index_.empty()) rebuildIndex();
  return true;
}

void KODictionary::clear() noexcept {
  entries_.clear();
  index_.clear();
}

std::vector<std::string> KODictionary::keys() const {
  std::vector<std::string> out;
  out.reserve(entries_.size());
  for (const auto& e : entries_) out.push_back(e.first);
  return out;
}

bool operator==(const KODictionary& a, const KODictionary& b) {
  if (a.size() != b.size()) return false;
  for (const auto& [key, value] : a.entries_) {
    const KOValue* other = b.find(key);
    if (!other || !(*other == value)) return false;
  }
  return true;
}

// ------------------------------------------------------------------------------------------ KOValue

const KOValue& KOValue::nil() noexcept {
  static const KOValue kNil;
  return kNil;
}

const char* KOValue::kindName(Kind kind) noexcept {
  switch (kind) {
    case Kind::Nil:
      return "nil";
    case Kind::Null:
      return "null";
    case Kind::Bool:
      return "bool";
    case Kind::Integer:
      return "integer";
    case Kind::Real:
      return "real";
    case Kind::String:
      return "string";
    case Kind::Date:
      return "date";
    case Kind::Data:
      return "data";
    case Kind::URL:
      return "URL";
    case Kind::Array:
      return "array";
    case Kind::Dictionary:
      return "dictionary";
  }
  return "unknown";
}

void KOValue::throwKind(Kind expected) const {
  throw KOTypeError(std::string("expected ") + kindName(expected) + ", found " + kindName(kind()));
}

bool KOValue::boolValue() const {
  switch (kind()) {
    case Kind::Bool:
      return std::get<bool>(v_);
    case Kind::Integer:
      return std::get<std::int64_t>(v_) != 0;
    case Kind::Real:
      return std::get<double>(v_) != 0.0;
    default:
      throwKind(Kind::Bool);
  }
}

std::int64_t KOValue::intValue() const {
  switch (kind()) {
    case Kind::Bool:
      return std::get<bool>(v_) ? 1 : 0;
    case Kind::Integer:
      return std::get<std::int64_t>(v_);
    case Kind::Real: {
      const double d = std::get<double>(v_);
      if (std::isnan(d)) return 0;
      if (d >= 9223372036854775807.0) return std::numeric_limits<std::int64_t>::max();
      if (d <= -9223372036854775808.0) return std::numeric_limits<std::int64_t>::min();
      return static_cast<std::int64_t>(d);
    }
    default:
      throwKind(Kind::Integer);
  }
}

double KOValue::doubleValue() const {
  switch (kind()) {
    case Kind::Bool:
      return std::get<bool>(v_) ? 1.0 : 0.0;
    case Kind::Integer:
      return static_cast<double>(std::get<std::int64_t>(v_));
    case Kind::Real:
      return std::get<double>(v_);
    default:
      throwKind(Kind::Real);
  }
}

#define KO_TYPED_ACCESSOR(Ret, name, Alt, KindName)       \
  const Ret& KOValue::name() const {                      \
    if (const auto* p = std::get_if<Alt>(&v_)) return *p; \
    throwKind(Kind::KindName);                            \
  }
KO_TYPED_ACCESSOR(std::string, stringValue, std::string, String)
KO_TYPED_ACCESSOR(KODate, dateValue, KODate, Date)
KO_TYPED_ACCESSOR(KOData, dataValue, KOData, Data)
KO_TYPED_ACCESSOR(KOURL, urlValue, KOURL, URL)
KO_TYPED_ACCESSOR(KOArray, arrayValue, KOArray, Array)
KO_TYPED_ACCESSOR(KODictionary, dictionaryValue, KODictionary, Dictionary)
#undef KO_TYPED_ACCESSOR

std::string& KOValue::stringValue() {
  if (auto* p = std::get_if<std::string>(&v_)) return *p;
  throwKind(Kind::String);
}

KOArray& KOValue::arrayValue() {
  if (auto* p = std::get_if<KOArray>(&v_)) return *p;
  throwKind(Kind::Array);
}

KODictionary& KOValue::dictionaryValue() {
  if (auto* p = std::get_if<KODictionary>(&v_)) return *p;
  throwKind(Kind::Dictionary);
}

const KOValue& KOValue::operator[](std::string_view key) const { return dictionaryValue()[key]; }

bool operator==(const KOValue& a, const KOValue& b) {
  using Kind = KOValue::Kind;
  if (a.isNumber() && b.isNumber()) {
    if (a.isReal() || b.isReal()) {
      if (a.isReal() && b.isReal()) return std::get<double>(a.v_) == std::get<double>(b.v_);
      const KOValue& real = a.isReal() ? a : b;
      const KOValue& other = a.isReal() ? b : a;
      return integerEqualsReal(other.intValue(), std::get<double>(real.v_));
    }
    return a.intValue() == b.intValue();
  }
  if (a.kind() != b.kind()) return false;
  switch (a.kind()) {
    case Kind::Nil:
    case Kind::Null:
      return true;
    default:
      return a.v_ == b.v_;
  }
}

namespace {

std::string formatReal(double d) {
  if (std::isnan(d)) return "nan";
  if (std::isinf(d)) return d > 0 ? "inf" : "-inf";
  char buf[32];
  if (d == std::trunc(d) && std::fabs(d) < 1e15) {
    std::snprintf(buf, sizeof buf, "%.0f", d);  // whole numbers read best without an exponent
    return buf;
  }
  std::snprintf(buf, sizeof buf, "%.17g", d);
  // Prefer the shortest text that reads back as the same double.
  for (int precision = 1; precision < 17; ++precision) {
    char shorter[32];
    std::snprintf(shorter, sizeof shorter, "%.*g", precision, d);
    if (std::strtod(shorter, nullptr) == d) return shorter;
  }
  return buf;
}

void describe(const KOValue& v, std::string& out, bool quoteStrings) {
  using Kind = KOValue::Kind;
  switch (v.kind()) {
    case Kind::Nil:
      out += "(null)";
      break;
    case Kind::Null:
      out += "<null>";
      break;
    case Kind::Bool:
      out += v.boolValue() ? "1" : "0";
      break;
    case Kind::Integer:
      out += std::to_string(v.intValue());
      break;
    case Kind::Real:
      out += formatReal(v.doubleValue());
      break;
    case Kind::String:
      if (quoteStrings)
        appendQuoted(out, v.stringValue());
      else
        out += v.stringValue();
      break;
    case Kind::Date:
      out += "<date " + formatReal(v.dateValue().secondsSince1970) + ">";
      break;
    case Kind::Data: {
      static const char* hex = "0123456789abcdef";
      out += '<';
      for (std::uint8_t byte : v.dataValue().bytes) {
        out += hex[byte >> 4];
        out += hex[byte & 15];
      }
      out += '>';
      break;
    }
    case Kind::URL:
      out += v.urlValue().absoluteString;
      break;
    case Kind::Array: {
      out += '[';
      bool first = true;
      for (const auto& item : v.arrayValue()) {
        if (!first) out += ", ";
        first = false;
        describe(item, out, true);
      }
      out += ']';
      break;
    }
    case Kind::Dictionary: {
      out += '{';
      bool first = true;
      for (const auto& [key, item] : v.dictionaryValue()) {
        if (!first) out += ", ";
        first = false;
        appendQuoted(out, key);
        out += ": ";
        describe(item, out, true);
      }
      out += '}';
      break;
    }
  }
}

}  // namespace

std::string KOValue::description() const {
  std::string out;
  describe(*this, out, false);
  return out;
}

// The public face of the internal serializer: one reader and one writer, so that a host's JSON
// follows the same depth and UTF-8 rules as what the SDK stores and sends.
KOValue KOValue::fromJSON(std::string_view text) { return KOJSONSerialization::parse(text); }

std::string KOValue::toJSON() const { return KOJSONSerialization::write(*this); }
