#include <gtest/gtest.h>

#include "KOTestDevice.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOValueHelpers.h"

class KOValueHelpersTest : public KOTestDevice {};

TEST_F(KOValueHelpersTest, NullCountsAsAbsentOnEveryLookup) {
  const KOValue json =
      KOJSONSerialization::parse(R"({"a": null, "b": "", "c": {"d": {"e": 5}, "n": null}, "s": "text"})");
  const KODictionary& d = json.dictionaryValue();
  EXPECT_TRUE(validObjectForKey(d, "a").isNil());
  EXPECT_EQ(validObjectForKey(d, "b"), KOValue(""));
  EXPECT_TRUE(validObjectForKey(d, "missing").isNil());
  EXPECT_TRUE(safeObjectForKey(d, "a").isNil());
  EXPECT_EQ(validObjectForKeyPath(d, "c.d.e"), KOValue(5));
  EXPECT_TRUE(validObjectForKeyPath(d, "c.n").isNil());
  EXPECT_TRUE(validObjectForKeyPath(d, "c.n.x").isNil());
  EXPECT_TRUE(validObjectForKeyPath(d, "s.x").isNil());  // a string where a dictionary was expected
  EXPECT_TRUE(validObjectForKey(KOValue("not a dictionary"), "a").isNil());
}

TEST_F(KOValueHelpersTest, NilHandledStoresAndGuardedRemoval) {
  KOLogger::debug(1);
  KODictionary d;
  setObjectNilHandled(d, KOValue(), KOValue("k"));
  EXPECT_EQ(d["k"], KOValue(""));
  setObjectNilHandled(d, KOValue(7), KOValue());
  EXPECT_EQ(d.size(), 1u);
  EXPECT_TRUE(device().console().contains("Kovantis - Key can't be nil. Object is 7"));

  removeValidObjectForKey(d, KOValue());
  removeValidObjectForKey(d, KOValue("absent"));
  EXPECT_EQ(d.size(), 1u);
  removeValidObjectForKey(d, KOValue("k"));
  EXPECT_TRUE(d.empty());
}
