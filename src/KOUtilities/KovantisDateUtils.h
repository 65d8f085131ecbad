// Date helpers over the device clock.
#pragma once

#include <cstdint>
#include <string>

#include "KODateFormatter.h"

/// Hours and minutes of a time difference.
struct KODateComponents {
  std::int64_t hour = 0;
  std::int64_t minute = 0;
};

class KovantisDateUtils {
 public:
  /// The one shared formatter. The first call's format wins for the whole process; later calls get
  /// the same formatter unchanged, and a caller that needs another format sets it itself.
  static KODateFormatter& dateFormatterWithFormat(const std::string& format);
  /// Hours and minutes from the first date to the second.
  static KODateComponents getTimeDifferenceBetweenDate(const KODate& date, const KODate& andSecondDate);
  /// True when the moment is strictly later than now.
  static bool isDateTimeGreaterThanNow(double secondsSince1970);
  /// The device clock, in seconds since 1970.
  static double now();
};
