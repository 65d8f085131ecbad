// JSON text to and from KOValue, straight through a SAX reader and writer (no DOM in between).
#pragma once

#include <string>
#include <string_view>

#include "kovantis/KOValue.h"

class KOJSONSerialization {
 public:
  /// Parses UTF-8 JSON text. Throws KOParseError on malformed, truncated, invalid UTF-8 or too
  /// deeply nested input. Integers beyond int64 become reals.
  static KOValue parse(std::string_view text);

  /// Compact JSON. Nil and null are written as null. Throws KOTypeError for a date, data, URL, NaN
  /// or infinity, a string that is not valid UTF-8, or nesting deeper than the limit.
  static std::string write(const KOValue& value);

  /// Appends the compact JSON of the value to out (same rules as write).
  static void writeTo(const KOValue& value, std::string& out);
};
