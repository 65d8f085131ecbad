#include "KovantisDateUtils.h"

#include <chrono>

#include "kovantis/KOPlatform.h"

KODateFormatter& KovantisDateUtils::dateFormatterWithFormat(const std::string& format) {
  static auto* formatter = new KODateFormatter(format);
  return *formatter;
}

KODateComponents KovantisDateUtils::getTimeDifferenceBetweenDate(const KODate& date, const KODate& andSecondDate) {
  const auto seconds = static_cast<std::int64_t>(andSecondDate.secondsSince1970 - date.secondsSince1970);
  return KODateComponents{seconds / 3600, (seconds % 3600) / 60};
}

bool KovantisDateUtils::isDateTimeGreaterThanNow(double secondsSince1970) { return secondsSince1970 > now(); }

double KovantisDateUtils::now() {
  if (KOPlatform::isInstalled()) return KOPlatform::current().clock->now();
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}
