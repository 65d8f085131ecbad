// The input shape of the fuzz targets that start from a stored file: the file's bytes, then a
// line "--", then the service's answer as JSON. Without the separator the whole input is the
// answer and nothing is stored beforehand.
#pragma once

#include <optional>
#include <string_view>

#include "KOUtilities/KOJSONSerialization.h"

struct KOFuzzInput {
  std::optional<std::string_view> stored;
  std::string_view answer;

  static KOFuzzInput split(std::string_view input) {
    const auto separator = input.find("\n--\n");
    if (separator == std::string_view::npos) return {std::nullopt, input};
    return {input.substr(0, separator), input.substr(separator + 4)};
  }

  /// The answer as a value; nothing when it is no JSON the reader takes (the input is skipped).
  std::optional<KOValue> parsedAnswer() const {
    try {
      return KOJSONSerialization::parse(answer);
    } catch (const KOParseError&) {
      return std::nullopt;
    }
  }
};
