// The simulated device's one text metric, shared by the text measurement the SDK asks for and the
// pictures of the screen, so that a row measured for a height draws in exactly that height: each
// character is half the point size wide, a line is 1.2 times the point size high, and text wraps
// at word boundaries (a word longer than a line is cut).
#pragma once

#include <string>
#include <vector>

class KOSimTextLayout {
 public:
  /// Characters, not bytes: UTF-8 continuation bytes do not count.
  static std::size_t characterCount(const std::string& text);
  static double characterWidth(double pointSize);
  static double lineHeight(double pointSize);
  /// The lines the text takes at the width; a line break in the text always starts a new line.
  static std::vector<std::string> wrap(const std::string& text, double width, double pointSize);
};
