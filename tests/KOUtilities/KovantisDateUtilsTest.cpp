#include <gtest/gtest.h>

#include "KOTestDevice.h"
#include "KOUtilities/KovantisDateUtils.h"

class KovantisDateUtilsTest : public KOTestDevice {};

TEST_F(KovantisDateUtilsTest, FirstFormatWinsForTheWholeProcess) {
  KODateFormatter& first = KovantisDateUtils::dateFormatterWithFormat("yyyy-MM-dd");
  KODateFormatter& second = KovantisDateUtils::dateFormatterWithFormat("HH:mm:ss");
  EXPECT_EQ(&first, &second);
  EXPECT_EQ(second.dateFormat(), "yyyy-MM-dd");
  EXPECT_EQ(second.stringFromDate(KODate{1446694623}), "2015-11-05");
}

TEST_F(KovantisDateUtilsTest, FormatterRoundTripsInTheDeviceZone) {
  device().profile().update([](KOSimProfileSettings& s) { s.secondsFromGMT = 19800; });
  KODateFormatter f("yyyy-MM-dd'T'HH:mm:ss.SSS Z");
  EXPECT_EQ(f.stringFromDate(KODate{1446694623.25}), "2015-11-05T09:07:03.250 +0530");
  const auto back = f.dateFromString("2015-11-05T09:07:03.250 +0530");
  ASSERT_TRUE(back.has_value());
  EXPECT_DOUBLE_EQ(back->secondsSince1970, 1446694623.25);

  KODateFormatter local("dd/MM/yy hh:mm a");
  EXPECT_EQ(local.stringFromDate(KODate{1446694623}), "05/11/15 09:07 AM");
  ASSERT_TRUE(local.dateFromString("05/11/15 09:07 PM").has_value());
  EXPECT_DOUBLE_EQ(local.dateFromString("05/11/15 09:07 PM")->secondsSince1970, 1446694620 + 12 * 3600);
  EXPECT_FALSE(local.dateFromString("5/11").has_value());
  EXPECT_FALSE(local.dateFromString("05/13/15 09:07 AM").has_value());
  EXPECT_FALSE(f.dateFromString("").has_value());
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
