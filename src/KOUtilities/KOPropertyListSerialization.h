// Property lists to and from KOValue through libplist. Either form (XML or binary) is read; XML is
// written, since every persisted file of the SDK is a whole XML property list.
#pragma once

#include <string>
#include <string_view>

#include "kovantis/KOExport.h"
#include "kovantis/KOValue.h"

class KOVANTIS_EXPORT KOPropertyListSerialization {
 public:
  /// Parses an XML or binary property list. Throws KOParseError on anything unreadable, on strings
  /// that are not valid UTF-8 and on nesting deeper than the limit.
  static KOValue parse(std::string_view bytes);

  /// The XML form of the value. Null and nil are left out of dictionaries and written as "" inside
  /// arrays; a URL is written as its string. Throws KOTypeError for a nil or null root, a date the
  /// format cannot hold, a non-finite real, invalid UTF-8 or nesting deeper than the limit.
  static std::string writeXML(const KOValue& value);

  /// The XML of the value a JSON text holds, without the document's prologue and <plist> element:
  /// ready to stand inside an array or dictionary of a larger list. Written straight from the
  /// text (no values or library nodes in between); same rules and errors as writeXML applied to
  /// KOJSONSerialization::parse of the text.
  static std::string xmlFragmentFromJSON(std::string_view json);
};
