// Property lists to and from KOValue through libplist. Either form (XML or binary) is read; XML is
// written, since every persisted file of the SDK is a whole XML property list.
#pragma once

#include <string>
#include <string_view>

#include "kovantis/KOValue.h"

class KOPropertyListSerialization {
 public:
  /// Parses an XML or binary property list. Throws KOParseError on anything unreadable, on strings
  /// that are not valid UTF-8 and on nesting deeper than the limit.
  static KOValue parse(std::string_view bytes);

  /// The XML form of the value. Null and nil are left out of dictionaries and written as "" inside
  /// arrays; a URL is written as its string. Throws KOTypeError for a nil or null root, a date the
  /// format cannot hold, a non-finite real, invalid UTF-8 or nesting deeper than the limit.
  static std::string writeXML(const KOValue& value);

  /// The start of every XML document the SDK writes: declaration, doctype and the opening <plist>
  /// element. A file joined from fragments is this, the root's XML, then "</plist>\n".
  static constexpr std::string_view kXMLPrologue =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
      "<plist version=\"1.0\">\n";

  /// The XML of the value without the document's prologue and <plist> element, as writeXML would
  /// write it inside the document; same rules and errors.
  static std::string xmlFragment(const KOValue& value);

  /// The XML of the value a JSON text holds, without the document's prologue and <plist> element:
  /// ready to stand inside an array or dictionary of a larger list. Written straight from the
  /// text (no values or library nodes in between); same rules and errors as writeXML applied to
  /// KOJSONSerialization::parse of the text.
  static std::string xmlFragmentFromJSON(std::string_view json);
};
