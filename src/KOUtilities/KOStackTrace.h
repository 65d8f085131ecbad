// The current call stack as text, attached to the log records that are shipped remotely.
#pragma once

#include <string>

class KOStackTrace {
 public:
  /// One frame a line, innermost first, without this function's own frame.
  static std::string current(int maxFrames = 32);
};
