// KOValue: the one dynamically typed value of the SDK.
//
// Every attribute dictionary, persisted file, request body and server answer is a KOValue. Numbers
// (bool, integer, real) compare by numeric value; a string never equals a number; containers compare
// element-wise. An accessor that expects one kind throws KOTypeError on any other, which is how a
// malformed server answer stops the parsing of a model object at the offending field.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

// Exported from the shared library (see KOExport.h).
#pragma GCC visibility push(default)

class KOValue;

/// Thrown by a typed accessor that finds another kind of value.
class KOTypeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Thrown where the SDK asserts an internal condition; caught and logged at the public boundary.
class KOAssertionFailure : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

/// Thrown when JSON or property-list text cannot be read: malformed, truncated, nested too deeply,
/// or not valid UTF-8.
class KOParseError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// JSON null: present in a container, but counted as absent by the null-aware lookups.
struct KONull {
  friend bool operator==(KONull, KONull) { return true; }
};

/// A point in time, in seconds since 1970 (fraction kept).
struct KODate {
  double secondsSince1970 = 0;
  friend bool operator==(const KODate&, const KODate&) = default;
};

/// Raw bytes.
struct KOData {
  std::vector<std::uint8_t> bytes;
  friend bool operator==(const KOData&, const KOData&) = default;
};

/// A URL, kept as its absolute string.
struct KOURL {
  std::string absoluteString;
  friend bool operator==(const KOURL&, const KOURL&) = default;
};

/// An ordered list of values.
class KOArray {
 public:
  using Storage = std::vector<KOValue>;
  using iterator = Storage::iterator;
  using const_iterator = Storage::const_iterator;

  KOArray();
  KOArray(std::initializer_list<KOValue> items);
  explicit KOArray(Storage items);
  KOArray(const KOArray&);
  KOArray(KOArray&&) noexcept;
  KOArray& operator=(const KOArray&);
  KOArray& operator=(KOArray&&) noexcept;
  ~KOArray();

  std::size_t size() const noexcept;
  bool empty() const noexcept;
  const KOValue& operator[](std::size_t i) const;
  KOValue& operator[](std::size_t i);
  /// Bounds-checked element access; throws KOTypeError when out of range.
  const KOValue& at(std::size_t i) const;
  void push_back(KOValue value);
  void reserve(std::size_t n);
  void clear() noexcept;
  iterator erase(const_iterator pos);
  const KOValue& back() const;
  KOValue& back();

  iterator begin() noexcept;
  iterator end() noexcept;
  const_iterator begin() const noexcept;
  const_iterator end() const noexcept;

  const Storage& items() const noexcept { return items_; }

  friend bool operator==(const KOArray& a, const KOArray& b);

 private:
  Storage items_;
};

/// A string-keyed map that keeps insertion order. Small dictionaries are searched linearly; past a
/// few dozen keys an open-addressing index keeps lookups constant-time.
class KODictionary {
 public:
  using Entry = std::pair<std::string, KOValue>;
  using Storage = std::vector<Entry>;
  using iterator = Storage::iterator;
  using const_iterator = Storage::const_iterator;

  KODictionary();
  KODictionary(std::initializer_list<Entry> entries);
  KODictionary(const KODictionary&);
  KODictionary(KODictionary&&) noexcept;
  KODictionary& operator=(const KODictionary&);
  KODictionary& operator=(KODictionary&&) noexcept;
  ~KODictionary();

  std::size_t size() const noexcept;
  bool empty() const noexcept;

  /// The value for the key, or nullptr when absent. JSON null is returned as present.
  const KOValue* find(std::string_view key) const noexcept;
  KOValue* find(std::string_view key) noexcept;
  bool contains(std::string_view key) const noexcept;
  /// The value for the key, or nil when absent.
  const KOValue& operator[](std::string_view key) const noexcept;

  /// Stores the value under the key: a new key goes to the end, an existing key keeps its place.
  KOValue& set(std::string key, KOValue value);
  /// Removes the key; returns whether it was present.
  bool remove(std::string_view key);
  void clear() noexcept;
  void reserve(std::size_t n);
  std::vector<std::string> keys() const;

  iterator begin() noexcept;
  iterator end() noexcept;
  const_iterator begin() const noexcept;
  const_iterator end() const noexcept;

  /// Same keys with equal values; order does not matter.
  friend bool operator==(const KODictionary& a, const KODictionary& b);

 private:
  std::size_t indexOf(std::string_view key) const noexcept;
  void rebuildIndex();
  void indexInsert(std::size_t position);

  Storage entries_;
  std::vector<std::uint32_t> index_;  // slot -> position + 1; empty while the dictionary is small
};

class KOValue {
 public:
  enum class Kind : std::uint8_t { Nil, Null, Bool, Integer, Real, String, Date, Data, URL, Array, Dictionary };

  KOValue() noexcept = default;
  KOValue(KONull) noexcept : v_(KONull{}) {}
  KOValue(bool b) noexcept : v_(b) {}
  template <typename T,
            std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool> && !std::is_same_v<T, char>, int> = 0>
  KOValue(T n) noexcept : v_(static_cast<std::int64_t>(n)) {}
  KOValue(double d) noexcept : v_(d) {}
  KOValue(float f) noexcept : v_(static_cast<double>(f)) {}
  KOValue(const char* s) : v_(std::string(s ? s : "")) {}
  KOValue(std::string s) noexcept : v_(std::move(s)) {}
  KOValue(std::string_view s) : v_(std::string(s)) {}
  KOValue(KODate d) noexcept : v_(d) {}
  KOValue(KOData d) noexcept : v_(std::move(d)) {}
  KOValue(KOURL u) noexcept : v_(std::move(u)) {}
  KOValue(KOArray a) noexcept : v_(std::move(a)) {}
  KOValue(KODictionary d) noexcept : v_(std::move(d)) {}

  /// Deepest nesting of containers the parsers and writers accept; deeper input is rejected rather
  /// than allowed to exhaust the stack.
  static constexpr int kMaxNestingDepth = 256;

  static const KOValue& nil() noexcept;
  static KOValue null() noexcept { return KOValue(KONull{}); }

  Kind kind() const noexcept { return static_cast<Kind>(v_.index()); }
  static const char* kindName(Kind kind) noexcept;

  bool isNil() const noexcept { return kind() == Kind::Nil; }
  bool isNull() const noexcept { return kind() == Kind::Null; }
  /// Nil or JSON null: what the null-aware lookups treat as absent.
  bool isAbsent() const noexcept { return isNil() || isNull(); }
  bool isBool() const noexcept { return kind() == Kind::Bool; }
  bool isInteger() const noexcept { return kind() == Kind::Integer; }
  bool isReal() const noexcept { return kind() == Kind::Real; }
  bool isNumber() const noexcept { return isBool() || isInteger() || isReal(); }
  bool isString() const noexcept { return kind() == Kind::String; }
  bool isDate() const noexcept { return kind() == Kind::Date; }
  bool isData() const noexcept { return kind() == Kind::Data; }
  bool isURL() const noexcept { return kind() == Kind::URL; }
  bool isArray() const noexcept { return kind() == Kind::Array; }
  bool isDictionary() const noexcept { return kind() == Kind::Dictionary; }

  // Numbers convert among themselves; anything else throws KOTypeError.
  bool boolValue() const;
  std::int64_t intValue() const;
  double doubleValue() const;

  const std::string& stringValue() const;
  std::string& stringValue();
  const KODate& dateValue() const;
  const KOData& dataValue() const;
  const KOURL& urlValue() const;
  const KOArray& arrayValue() const;
  KOArray& arrayValue();
  const KODictionary& dictionaryValue() const;
  KODictionary& dictionaryValue();

  /// Dictionary lookup; nil when the key is absent. Throws KOTypeError when this is no dictionary.
  const KOValue& operator[](std::string_view key) const;

  /// A readable rendering for log lines: strings bare, numbers as numbers, containers in JSON-like form.
  std::string description() const;

  /// Parses UTF-8 JSON text. Throws KOParseError on malformed, truncated, invalid UTF-8 or too
  /// deeply nested input (never returns nil for bad text). Integers beyond int64 become reals.
  static KOValue fromJSON(std::string_view text);

  /// Compact JSON; nil and null are written as null. Throws KOTypeError for a date, data, URL, NaN
  /// or infinity, a string that is not valid UTF-8, or nesting deeper than kMaxNestingDepth.
  std::string toJSON() const;

  friend bool operator==(const KOValue& a, const KOValue& b);

 private:
  [[noreturn]] void throwKind(Kind expected) const;

  std::variant<std::monostate, KONull, bool, std::int64_t, double, std::string, KODate, KOData, KOURL, KOArray,
               KODictionary>
      v_;
};

// Container members that touch KOValue are defined once KOValue is complete.
// Declared again at namespace scope: a friend declaration alone is not exported.
bool operator==(const KOArray& a, const KOArray& b);
bool operator==(const KODictionary& a, const KODictionary& b);
bool operator==(const KOValue& a, const KOValue& b);

inline std::size_t KOArray::size() const noexcept { return items_.size(); }
inline bool KOArray::empty() const noexcept { return items_.empty(); }
inline const KOValue& KOArray::operator[](std::size_t i) const { return items_[i]; }
inline KOValue& KOArray::operator[](std::size_t i) { return items_[i]; }
inline void KOArray::push_back(KOValue value) { items_.push_back(std::move(value)); }
inline void KOArray::reserve(std::size_t n) { items_.reserve(n); }
inline void KOArray::clear() noexcept { items_.clear(); }
inline KOArray::iterator KOArray::erase(const_iterator pos) { return items_.erase(pos); }
inline const KOValue& KOArray::back() const { return items_.back(); }
inline KOValue& KOArray::back() { return items_.back(); }
inline KOArray::iterator KOArray::begin() noexcept { return items_.begin(); }
inline KOArray::iterator KOArray::end() noexcept { return items_.end(); }
inline KOArray::const_iterator KOArray::begin() const noexcept { return items_.begin(); }
inline KOArray::const_iterator KOArray::end() const noexcept { return items_.end(); }

inline std::size_t KODictionary::size() const noexcept { return entries_.size(); }
inline bool KODictionary::empty() const noexcept { return entries_.empty(); }
inline bool KODictionary::contains(std::string_view key) const noexcept { return find(key) != nullptr; }
inline void KODictionary::reserve(std::size_t n) { entries_.reserve(n); }
inline KODictionary::iterator KODictionary::begin() noexcept { return entries_.begin(); }
inline KODictionary::iterator KODictionary::end() noexcept { return entries_.end(); }
inline KODictionary::const_iterator KODictionary::begin() const noexcept { return entries_.begin(); }
inline KODictionary::const_iterator KODictionary::end() const noexcept { return entries_.end(); }

#pragma GCC visibility pop
