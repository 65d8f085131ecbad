// Any text the reader accepts must write back and read again as the same value.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "KOUtilities/KOJSONSerialization.h"
#include "kovantis/KOValue.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  KOValue value;
  try {
    value = KOJSONSerialization::parse(text);
  } catch (const KOParseError&) {
    return 0;
  }
  std::string written;
  try {
    written = KOJSONSerialization::write(value);
  } catch (const KOTypeError& e) {
    // Whatever the reader accepts must be writable: a value the SDK cannot send on is lost data.
    std::fprintf(stderr, "accepted JSON does not write back: %s\n", e.what());
    std::abort();
  }
  KOValue again;
  try {
    again = KOJSONSerialization::parse(written);
  } catch (const KOParseError& e) {
    std::fprintf(stderr, "written JSON does not read back (%s): %s\n", e.what(), written.c_str());
    std::abort();
  }
  if (!(again == value)) {
    std::fprintf(stderr, "JSON round trip changed the value: %s\n", written.c_str());
    std::abort();
  }
  return 0;
}
