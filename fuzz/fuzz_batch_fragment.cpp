// The batch file is written from JSON text directly. For any text the JSON reader accepts, what
// that fragment reads back as must equal what the library's writer gives for the parsed value,
// and the two must refuse the same texts.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOPropertyListSerialization.h"
#include "kovantis/KOValue.h"

namespace {

std::string document(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + body + "</plist>\n";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  KOValue value;
  try {
    value = KOJSONSerialization::parse(text);
  } catch (const KOParseError&) {
    return 0;
  }
  std::optional<KOValue> expected;
  try {
    expected = KOPropertyListSerialization::parse(KOPropertyListSerialization::writeXML(value));
  } catch (const KOTypeError&) {
  }
  std::optional<KOValue> direct;
  std::string fragment;
  try {
    fragment = KOPropertyListSerialization::xmlFragmentFromJSON(text);
    direct = KOPropertyListSerialization::parse(document(fragment));
  } catch (const KOTypeError&) {
  }
  if (expected.has_value() != direct.has_value() || (expected && !(*expected == *direct))) {
    std::fprintf(stderr, "direct fragment differs from the library's writer: %s\n", fragment.c_str());
    std::abort();
  }
  return 0;
}
