// Dates to and from text by a pattern, in the device's time zone. Understands the pattern letters
// the SDK and the service use: y M d H h m s S a E Z, and text in single quotes.
#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "kovantis/KOValue.h"

class KODateFormatter {
 public:
  explicit KODateFormatter(std::string format = "yyyy-MM-dd HH:mm:ss");

  std::string dateFormat() const;
  void setDateFormat(std::string format);
  /// Seconds east of GMT used for formatting and parsing; the device's offset when not set.
  void setSecondsFromGMT(std::optional<std::int64_t> offset);

  std::string stringFromDate(const KODate& date) const;
  /// Nothing when the text does not match the pattern.
  std::optional<KODate> dateFromString(const std::string& text) const;

 private:
  std::int64_t offsetAt(double seconds) const;

  mutable std::mutex mutex_;
  std::string format_;
  std::optional<std::int64_t> secondsFromGMT_;
};
