// JSON text to and from KOValue, straight through a SAX reader and writer (no DOM in between).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "kovantis/KOValue.h"

/// Receives a JSON document's values in reading order. Returning false stops the reading.
class KOJSONVisitor {
 public:
  virtual ~KOJSONVisitor() = default;
  virtual bool null() = 0;
  virtual bool boolean(bool value) = 0;
  virtual bool integer(std::int64_t value) = 0;
  virtual bool real(double value) = 0;
  virtual bool string(std::string_view text) = 0;
  virtual bool key(std::string_view text) = 0;
  virtual bool startObject() = 0;
  virtual bool endObject() = 0;
  virtual bool startArray() = 0;
  virtual bool endArray() = 0;
};

class KOJSONSerialization {
 public:
  /// Parses UTF-8 JSON text. Throws KOParseError on malformed, truncated, invalid UTF-8 or too
  /// deeply nested input. Integers beyond int64 become reals. Hosts reach it as KOValue::fromJSON.
  static KOValue parse(std::string_view text);

  /// Reads JSON text into a visitor, with the same checks and number rules as parse (it throws
  /// KOParseError on the same inputs). Returns false when the visitor stopped the reading.
  static bool read(std::string_view text, KOJSONVisitor& visitor);

  /// Compact JSON. Nil and null are written as null. Throws KOTypeError for a date, data, URL, NaN
  /// or infinity, a string that is not valid UTF-8, or nesting deeper than the limit.
  static std::string write(const KOValue& value);

  /// Appends the compact JSON of the value to out (same rules as write).
  static void writeTo(const KOValue& value, std::string& out);
};
