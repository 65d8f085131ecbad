#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "KOTestDevice.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOValueHelpers.h"

class KOValueHelpersTest : public KOTestDevice {};

TEST_F(KOValueHelpersTest, NullCountsAsAbsentOnEveryLookup) {
  const KOValue json =
      KOJSONSerialization::parse(R"({"a": null, "b": "", "c": {"d": {"e": 5}, "n": null}, "s": "text"})");
  const KODictionary& d = json.dictionaryValue();
  using Lookup = const KOValue& (*)(const KODictionary&, std::string_view);
  const Lookup key = validObjectForKey, safe = safeObjectForKey, path = validObjectForKeyPath;
  // "s.x" reaches a string where a dictionary was expected.
  for (const auto& [lookup, name, expected] :
       std::vector<std::tuple<Lookup, const char*, KOValue>>{{key, "a", KOValue()},
                                                             {key, "b", ""},
                                                             {key, "missing", KOValue()},
                                                             {safe, "a", KOValue()},
                                                             {path, "c.d.e", 5},
                                                             {path, "c.n", KOValue()},
                                                             {path, "c.n.x", KOValue()},
                                                             {path, "s.x", KOValue()}}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(lookup(d, name), expected);
  }
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
