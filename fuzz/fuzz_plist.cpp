// Any property list the reader accepts must be writable (or refused with KOTypeError), and what is
// written must read back: a file the SDK saves must never become unreadable.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "KOUtilities/KOPropertyListSerialization.h"
#include "kovantis/KOValue.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  KOValue value;
  try {
    value = KOPropertyListSerialization::parse(bytes);
  } catch (const KOParseError&) {
    return 0;
  }
  std::string xml;
  try {
    xml = KOPropertyListSerialization::writeXML(value);
  } catch (const KOTypeError&) {
    return 0;
  }
  try {
    KOPropertyListSerialization::parse(xml);
  } catch (const KOParseError& e) {
    std::fprintf(stderr, "written property list does not read back (%s): %s\n", e.what(), xml.c_str());
    std::abort();
  }
  return 0;
}
