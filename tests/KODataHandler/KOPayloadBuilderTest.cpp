#include <gtest/gtest.h>

#include "KOTestDevice.h"
#include "KOUtilities/KOLogger.h"
#include "kovantis/KOPayloadBuilder.h"

class KOPayloadBuilderTest : public KOTestDevice {
 protected:
  void SetUp() override {
    KOTestDevice::SetUp();
    KOLogger::debug(1);
  }
};

TEST_F(KOPayloadBuilderTest, ValuesAreConvertedWhenAddedAndMissingOnesRefused) {
  KOPayloadBuilder b;
  b.setTimeStamp(1.5, "t");
  b.setDate(KOValue(KODate{2.25}), "d");
  b.setDate(KOValue(), "nil-date");
  b.setTimeStamp(0.0, "zero");
  b.setTimeStamp(3, KOValue());
  b.setLocationLat(12.5, 77.6, "p");
  b.setLocationLat(12.5, 0.0, "meridian");
  b.setTimeStamp(4, "t");  // the same key again: appended, not merged
  EXPECT_EQ(b.timeStampArray(),
            (KOArray{KODictionary{{"t", 1500.0}}, KODictionary{{"d", 2250.0}}, KODictionary{{"t", 4000.0}}}));
  EXPECT_EQ(b.locationArray(), (KOArray{KODictionary{{"p", "12.500000,77.600000"}}}));
  EXPECT_EQ(device().console().count("Kovantis - Trying to set date for key while one of them is nil"), 1u);
  EXPECT_EQ(device().console().count("Kovantis - Trying to set timestamp for key while one of them is nil"), 2u);
  EXPECT_EQ(device().console().count("Kovantis - Trying to set lat long and key while one of them is nil"), 1u);
}

TEST_F(KOPayloadBuilderTest, SharesTheHostsDictionary) {
  auto dict = std::make_shared<KODictionary>(KODictionary{{"a", 1}});
  KOPayloadBuilder b(dict);
  dict->set("b", KOValue(2));
  const KODictionary expected{{"a", 1}, {"b", 2}};
  EXPECT_EQ(b.eventDict(), expected);
  KOPayloadBuilder empty(nullptr);
  EXPECT_TRUE(empty.eventDict().empty());
}
