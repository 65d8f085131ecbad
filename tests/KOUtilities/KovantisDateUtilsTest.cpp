#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "KOTestDevice.h"
#include "KOUtilities/KovantisDateUtils.h"

class KovantisDateUtilsTest : public KOTestDevice {};

TEST_F(KovantisDateUtilsTest, FirstFormatWinsForTheWholeProcess) {
  KODateFormatter& first = KovantisDateUtils::dateFormatterWithFormat("yyyy-MM-dd");
  KODateFormatter& second = KovantisDateUtils::dateFormatterWithFormat("HH:mm:ss");
  EXPECT_EQ(&first, &second);
  EXPECT_EQ(second.stringFromDate(KODate{1446694623}), "2015-11-05");
}

TEST_F(KovantisDateUtilsTest, FormatterRoundTripsInTheDeviceZone) {
  device().profile().update([](KOSimProfileSettings& s) { s.secondsFromGMT = 19800; });
  constexpr const char* kZoned = "yyyy-MM-dd'T'HH:mm:ss.SSS Z";
  constexpr const char* kLocal = "dd/MM/yy hh:mm a";
  for (const auto& [format, seconds, text] : std::vector<std::tuple<const char*, double, const char*>>{
           {kZoned, 1446694623.25, "2015-11-05T09:07:03.250 +0530"},
           {kLocal, 1446694620, "05/11/15 09:07 AM"},
           {kLocal, 1446694620 + 12 * 3600, "05/11/15 09:07 PM"}}) {
    SCOPED_TRACE(text);
    const KODateFormatter f(format);
    EXPECT_EQ(f.stringFromDate(KODate{seconds}), text);
    const auto back = f.dateFromString(text);
    ASSERT_TRUE(back.has_value());
    EXPECT_DOUBLE_EQ(back->secondsSince1970, seconds);
  }
  for (const char* text : {"5/11", "05/13/15 09:07 AM", ""}) {
    EXPECT_FALSE(KODateFormatter(kLocal).dateFromString(text).has_value()) << text;
  }
  EXPECT_FALSE(KODateFormatter(kZoned).dateFromString("").has_value());
}

TEST_F(KovantisDateUtilsTest, DifferencesAndComparisonsWithNow) {
  const KODateComponents d = KovantisDateUtils::getTimeDifferenceBetweenDate(KODate{0}, KODate{2 * 3600 + 5 * 60 + 59});
  EXPECT_EQ(d.hour, 2);
  EXPECT_EQ(d.minute, 5);
  const KODateComponents back = KovantisDateUtils::getTimeDifferenceBetweenDate(KODate{3700}, KODate{0});
  EXPECT_EQ(back.hour, -1);
  EXPECT_EQ(back.minute, -1);

  device().clock().setNow(1000);
  EXPECT_TRUE(KovantisDateUtils::isDateTimeGreaterThanNow(1000.001));
  EXPECT_FALSE(KovantisDateUtils::isDateTimeGreaterThanNow(1000));
}
