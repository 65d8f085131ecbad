// UTF-8 validity, by the rules the JSON reader applies to raw text. Internal to the serialisers.
#pragma once

#include <rapidjson/encodings.h>
#include <rapidjson/memorystream.h>

#include <cstdint>
#include <cstring>
#include <string_view>

inline bool isValidUTF8(std::string_view text) {
  rapidjson::MemoryStream ms(text.data(), text.size());
  while (ms.Tell() < text.size()) {
    // Runs of ASCII, the common case, are passed eight bytes at a time.
    std::size_t at = ms.Tell();
    while (text.size() - at >= 8) {
      std::uint64_t eight;
      std::memcpy(&eight, text.data() + at, 8);
      if (eight & 0x8080808080808080ULL) break;
      at += 8;
    }
    while (at < text.size() && static_cast<unsigned char>(text[at]) < 0x80) ++at;
    if (at == text.size()) return true;
    ms.src_ = text.data() + at;
    unsigned codepoint = 0;
    if (!rapidjson::UTF8<>::Decode(ms, &codepoint)) return false;
  }
  return true;
}
