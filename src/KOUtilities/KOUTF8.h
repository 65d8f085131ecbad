// UTF-8 validity, by the rules the JSON reader applies to raw text. Internal to the serialisers.
#pragma once

#include <rapidjson/encodings.h>
#include <rapidjson/memorystream.h>

#include <string_view>

inline bool isValidUTF8(std::string_view text) {
  rapidjson::MemoryStream ms(text.data(), text.size());
  while (ms.Tell() < text.size()) {
    unsigned codepoint = 0;
    if (!rapidjson::UTF8<>::Decode(ms, &codepoint)) return false;
  }
  return true;
}
