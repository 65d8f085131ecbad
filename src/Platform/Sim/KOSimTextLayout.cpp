#include "KOSimTextLayout.h"

#include <algorithm>
#include <cmath>

namespace {

bool isContinuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

double effectiveSize(double pointSize) { return pointSize > 0 && std::isfinite(pointSize) ? pointSize : 17; }

// The byte offset just past `characters` characters from `from`.
std::size_t advance(const std::string& text, std::size_t from, std::size_t characters) {
  std::size_t at = from;
  while (at < text.size() && characters > 0) {
    ++at;
    while (at < text.size() && isContinuation(text[at])) ++at;
    --characters;
  }
  return at;
}

}  // namespace

std::size_t KOSimTextLayout::characterCount(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) { return !isContinuation(c); }));
}

double KOSimTextLayout::characterWidth(double pointSize) { return effectiveSize(pointSize) * 0.5; }

double KOSimTextLayout::lineHeight(double pointSize) { return effectiveSize(pointSize) * 1.2; }

std::vector<std::string> KOSimTextLayout::wrap(const std::string& text, double width, double pointSize) {
  const double perLineExact = std::isfinite(width) ? std::floor(width / characterWidth(pointSize)) : 1e9;
  const std::size_t perLine = static_cast<std::size_t>(std::clamp(perLineExact, 1.0, 1e9));
  std::vector<std::string> lines;
  std::size_t paragraphStart = 0;
  while (paragraphStart <= text.size()) {
    std::size_t paragraphEnd = text.find('\n', paragraphStart);
    if (paragraphEnd == std::string::npos) paragraphEnd = text.size();
    const std::string paragraph = text.substr(paragraphStart, paragraphEnd - paragraphStart);
    std::size_t at = 0;
    do {
      // Take as many characters as fit; step back to the last blank inside them when the line
      // would otherwise cut a word.
      std::size_t end = advance(paragraph, at, perLine);
      if (end < paragraph.size() && paragraph[end] != ' ') {
        const std::size_t blank = paragraph.rfind(' ', end);
        if (blank != std::string::npos && blank > at) end = blank;
      }
      lines.push_back(paragraph.substr(at, end - at));
      at = end;
      while (at < paragraph.size() && paragraph[at] == ' ') ++at;  // blanks at a break vanish
    } while (at < paragraph.size());
    if (paragraphEnd == text.size()) break;
    paragraphStart = paragraphEnd + 1;
  }
  return lines;
}
