// printf-style formatting over KOValue arguments, the way the SDK's log and message formats are
// written: "%@" takes any value's description, "%p" an address, the integer and real conversions
// take numbers.
#pragma once

#include <string>
#include <string_view>

#include "kovantis/KOValue.h"

class KOStringFormat {
 public:
  /// Fills the format with the arguments in order. A missing argument prints "(null)"; an argument
  /// of the wrong kind for a numeric conversion prints its description instead.
  static std::string format(std::string_view format, const KOArray& args);
  static std::string format(std::string_view format, std::initializer_list<KOValue> args) {
    return KOStringFormat::format(format, KOArray(args));
  }
};
