#include "KODateFormatter.h"

#include <cmath>
#include <cstdio>
#include <ctime>
#include <vector>

#include "kovantis/KOPlatform.h"

namespace {

const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
const char* kWeekdays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};

struct Token {
  char letter;  // 0 for literal text
  int width;
  std::string literal;
};

std::vector<Token> tokenize(const std::string& format) {
  std::vector<Token> tokens;
  for (std::size_t i = 0; i < format.size();) {
    const char c = format[i];
    if (c == '\'') {
      std::string text;
      std::size_t j = i + 1;
      if (j < format.size() && format[j] == '\'') {
        tokens.push_back({0, 0, "'"});
        i = j + 1;
        continue;
      }
      while (j < format.size() && format[j] != '\'') text += format[j++];
      tokens.push_back({0, 0, text});
      i = j + 1;
    } else if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z')) {
      std::size_t j = i;
      while (j < format.size() && format[j] == c) ++j;
      tokens.push_back({c, static_cast<int>(j - i), {}});
      i = j;
    } else {
      tokens.push_back({0, 0, std::string(1, c)});
      ++i;
    }
  }
  return tokens;
}

// Days since 1970-01-01 of a civil date (proleptic Gregorian).
std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const auto yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

std::string pad(std::int64_t value, int width) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%0*lld", width, static_cast<long long>(value));
  return buf;
}

bool readNumber(const std::string& s, std::size_t& pos, int maxDigits, std::int64_t& out) {
  std::size_t start = pos;
  out = 0;
  while (pos < s.size() && pos - start < static_cast<std::size_t>(maxDigits) && s[pos] >= '0' && s[pos] <= '9') {
    out = out * 10 + (s[pos++] - '0');
  }
  return pos > start;
}

}  // namespace

KODateFormatter::KODateFormatter(std::string format) : format_(std::move(format)) {}

std::string KODateFormatter::dateFormat() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return format_;
}

void KODateFormatter::setDateFormat(std::string format) {
  std::lock_guard<std::mutex> lock(mutex_);
  format_ = std::move(format);
}

void KODateFormatter::setSecondsFromGMT(std::optional<std::int64_t> offset) {
  std::lock_guard<std::mutex> lock(mutex_);
  secondsFromGMT_ = offset;
}

std::int64_t KODateFormatter::offsetAt(double seconds) const {
  if (secondsFromGMT_) return *secondsFromGMT_;
  return KOPlatform::isInstalled() ? KOPlatform::current().locale->secondsFromGMT(seconds) : 0;
}

std::string KODateFormatter::stringFromDate(const KODate& date) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const std::int64_t offset = offsetAt(date.secondsSince1970);
  const double local = date.secondsSince1970 + static_cast<double>(offset);
  const auto whole = static_cast<std::time_t>(std::floor(local));
  const int millis = static_cast<int>(std::floor((local - std::floor(local)) * 1000));
  std::tm tm{};
  gmtime_r(&whole, &tm);
  std::string out;
  for (const Token& t : tokenize(format_)) {
    switch (t.letter) {
      case 0:
        out += t.literal;
        break;
      case 'y':
        out += t.width == 2 ? pad((tm.tm_year + 1900) % 100, 2) : pad(tm.tm_year + 1900, t.width);
        break;
      case 'M':
        out += t.width >= 3 ? std::string(kMonths[tm.tm_mon]) : pad(tm.tm_mon + 1, t.width);
        break;
      case 'd':
        out += pad(tm.tm_mday, t.width);
        break;
      case 'H':
        out += pad(tm.tm_hour, t.width);
        break;
      case 'h':
        out += pad(tm.tm_hour % 12 == 0 ? 12 : tm.tm_hour % 12, t.width);
        break;
      case 'm':
        out += pad(tm.tm_min, t.width);
        break;
      case 's':
        out += pad(tm.tm_sec, t.width);
        break;
      case 'S':
        out += pad(millis, 3).substr(0, static_cast<std::size_t>(t.width));
        break;
      case 'a':
        out += tm.tm_hour < 12 ? "AM" : "PM";
        break;
      case 'E':
        out += kWeekdays[tm.tm_wday];
        break;
      case 'Z': {
        const std::int64_t minutes = (offset < 0 ? -offset : offset) / 60;
        out += offset < 0 ? "-" : "+";
        out += pad(minutes / 60, 2) + pad(minutes % 60, 2);
        break;
      }
      default:
        out += std::string(static_cast<std::size_t>(t.width), t.letter);
        break;
    }
  }
  return out;
}

std::optional<KODate> KODateFormatter::dateFromString(const std::string& text) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::int64_t year = 1970, month = 1, day = 1, hour = 0, minute = 0, second = 0, millis = 0;
  std::optional<std::int64_t> zone;
  bool pm = false, hasAmPm = false;
  std::size_t pos = 0;
  for (const Token& t : tokenize(format_)) {
    std::int64_t n = 0;
    switch (t.letter) {
      case 0:
        if (text.compare(pos, t.literal.size(), t.literal) != 0) return std::nullopt;
        pos += t.literal.size();
        continue;
      case 'y':
        if (!readNumber(text, pos, t.width == 2 ? 2 : 4, n)) return std::nullopt;
        year = t.width == 2 ? 2000 + n : n;
        continue;
      case 'M':
        if (t.width >= 3) {
          bool found = false;
          for (int i = 0; i < 12 && !found; ++i) {
            if (text.compare(pos, 3, kMonths[i]) == 0) {
              month = i + 1;
              pos += 3;
              found = true;
            }
          }
          if (!found) return std::nullopt;
          continue;
        }
        if (!readNumber(text, pos, 2, month)) return std::nullopt;
        continue;
      case 'd':
        if (!readNumber(text, pos, 2, day)) return std::nullopt;
        continue;
      case 'H':
      case 'h':
        if (!readNumber(text, pos, 2, hour)) return std::nullopt;
        continue;
      case 'm':
        if (!readNumber(text, pos, 2, minute)) return std::nullopt;
        continue;
      case 's':
        if (!readNumber(text, pos, 2, second)) return std::nullopt;
        continue;
      case 'S': {
        const std::size_t start = pos;
        if (!readNumber(text, pos, t.width, n)) return std::nullopt;
        for (std::size_t digits = pos - start; digits < 3; ++digits) n *= 10;
        millis = n;
        continue;
      }
      case 'a':
        if (text.compare(pos, 2, "AM") == 0 || text.compare(pos, 2, "PM") == 0) {
          pm = text[pos] == 'P';
          hasAmPm = true;
          pos += 2;
          continue;
        }
        return std::nullopt;
      case 'E':
        pos += 3;
        if (pos > text.size()) return std::nullopt;
        continue;
      case 'Z': {
        if (pos < text.size() && text[pos] == 'Z') {
          zone = 0;
          ++pos;
          continue;
        }
        if (pos >= text.size() || (text[pos] != '+' && text[pos] != '-')) return std::nullopt;
        const bool negative = text[pos++] == '-';
        std::int64_t hh = 0, mm = 0;
        if (!readNumber(text, pos, 2, hh)) return std::nullopt;
        if (pos < text.size() && text[pos] == ':') ++pos;
        readNumber(text, pos, 2, mm);
        zone = (negative ? -1 : 1) * (hh * 3600 + mm * 60);
        continue;
      }
      default:
        return std::nullopt;
    }
  }
  if (pos != text.size()) return std::nullopt;
  if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) return std::nullopt;
  if (hasAmPm) hour = (hour % 12) + (pm ? 12 : 0);
  const double local =
      static_cast<double>(daysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day)) * 86400 +
                          hour * 3600 + minute * 60 + second) +
      static_cast<double>(millis) / 1000.0;
  const std::int64_t offset = zone ? *zone : offsetAt(local);
  return KODate{local - static_cast<double>(offset)};
}
