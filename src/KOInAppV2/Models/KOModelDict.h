// The base of the in-app model objects, and the conversions they share. A model object is built
// once from a campaign's raw dictionary and then only read. A value of the wrong kind (a list
// where a number was meant, a string where a block was meant) throws KOTypeError from these
// conversions; each object catches that at its own level, logs it and keeps its defaults from
// that field on.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "kovantis/KOValue.h"

class KOModelDict {
 public:
  KOModelDict() = default;
  KOModelDict(const KOModelDict&) = default;
  KOModelDict(KOModelDict&&) = default;
  KOModelDict& operator=(const KOModelDict&) = default;
  KOModelDict& operator=(KOModelDict&&) = default;
  virtual ~KOModelDict() = default;

  /// Reads the object's keys from the dictionary. The base reads nothing. Absent (nil or JSON
  /// null) leaves the defaults without a word.
  virtual void initWithDictionary(const KOValue& dictionary);

  // Conversions. Absent (nil or JSON null) gives 0, 0.0, false or "". Numbers convert among
  // themselves. A string is read the way the service's numbers in text are meant: leading blanks,
  // a sign, then as many digits as there are ("12px" is 12, "px" is 0); for a boolean, a leading
  // "Y", "y", "T", "t" or a digit 1 to 9 is true. Any other kind throws KOTypeError.
  static std::int64_t integerValue(const KOValue& value);
  static double doubleValue(const KOValue& value);
  static bool boolValue(const KOValue& value);
  /// The text of a string; "" when absent; throws KOTypeError on any other kind.
  static const std::string& stringValue(const KOValue& value);
  /// The dictionary, nullptr when absent; throws KOTypeError on any other kind.
  static const KODictionary* dictionaryValue(const KOValue& value);
  /// The list, nullptr when absent; throws KOTypeError on any other kind.
  static const KOArray* arrayValue(const KOValue& value);
  /// The dotted key path through the null-aware lookup; throws KOTypeError when a step on the way
  /// is present but no dictionary, as a key lookup sent to a string or a number would.
  static const KOValue& valueForKeyPath(const KODictionary& dictionary, std::string_view keyPath);

  // The same conversions for the store's own bookkeeping, where a bad value must never stop the
  // work: anything unreadable gives 0 or false.
  static std::int64_t integerValueOrZero(const KOValue& value) noexcept;
  static double doubleValueOrZero(const KOValue& value) noexcept;

 protected:
  /// The dictionary to read, nullptr when absent; throws KOTypeError on any other kind.
  static const KODictionary* dictionaryToRead(const KOValue& dictionary) { return dictionaryValue(dictionary); }
};
