#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "KOValuePrinting.h"
#include "kovantis/KOValue.h"

namespace {

std::string keyAt(int i) { return "key" + std::to_string(i); }

KODictionary numberedDictionary(int count) {
  KODictionary d;
  for (int i = 0; i < count; ++i) d.set(keyAt(i), i);
  return d;
}

}  // namespace

TEST(KOValue, EqualityComparesNumbersByValueAndEverythingElseByKindAndContent) {
  constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
  constexpr auto kMin = std::numeric_limits<std::int64_t>::min();
  const KODictionary dict{{"x", 1}, {"y", KODictionary{{"z", "s"}}}};
  struct Row {
    KOValue a, b;
    bool equal;
  };
  const Row rows[] = {
      // Numbers compare by value across kinds.
      {1, 1.0, true},
      {true, 1, true},
      {true, 1.0, true},
      {false, 0.0, true},
      {true, 2, false},
      {1, 1.5, false},
      {0.0, -0.0, true},
      // Exact at the int64 edges: 2^63 as a double is not INT64_MAX, but -2^63 is INT64_MIN.
      {kMax, 9223372036854775808.0, false},
      {kMin, -9223372036854775808.0, true},
      {kMax, kMax - 1, false},
      {1, std::numeric_limits<double>::infinity(), false},
      {0, std::numeric_limits<double>::quiet_NaN(), false},
      // Other kinds never mix.
      {"1", 1, false},
      {"true", true, false},
      {"", 0, false},
      {KOValue(), KOValue::null(), false},
      {KOValue(), KOValue::nil(), true},
      {KOValue::null(), KONull{}, true},
      {0, KOValue(), false},
      {KOURL{"a"}, "a", false},
      {KODate{5}, 5, false},
      {KOArray{}, KODictionary{}, false},
      {KOData{{1, 2}}, KOData{{1, 2}}, true},
      {KOData{{1, 2}}, KOData{{2, 1}}, false},
      // Containers compare element-wise; dictionaries ignore key order.
      {KOArray{1, "a", KOArray{true}}, KOArray{1.0, "a", KOArray{1}}, true},
      {KOArray{1, 2}, KOArray{2, 1}, false},
      {KOArray{1}, KOArray{1, KOValue()}, false},
      {KOArray{KOValue()}, KOArray{KOValue::null()}, false},
      {dict, KODictionary{{"y", KODictionary{{"z", "s"}}}, {"x", 1.0}}, true},
      {dict, KODictionary{{"x", 1}, {"y", KODictionary{{"z", "t"}}}}, false},
      {dict, KODictionary{{"x", 1}}, false},
      {KODictionary{{"x", KOValue::null()}}, KODictionary{}, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.a.description() + " vs " + row.b.description());
    EXPECT_EQ(row.a == row.b, row.equal);
    EXPECT_EQ(row.b == row.a, row.equal);
  }
  EXPECT_EQ(KOValue(std::uint8_t{7}).kind(), KOValue::Kind::Integer);
  EXPECT_EQ(KOValue(1.5f).kind(), KOValue::Kind::Real);
}

TEST(KODictionary, KeepsInsertionOrderThroughOverwriteAndRemove) {
  KODictionary d{{"b", 1}, {"a", 2}, {"c", 3}, {"a", 4}};
  EXPECT_EQ(d.keys(), (std::vector<std::string>{"b", "a", "c"}));
  EXPECT_EQ(d["a"], KOValue(4));

  d.set("b", "again");
  d.set("d", 5);
  EXPECT_TRUE(d.remove("a"));
  EXPECT_FALSE(d.remove("a"));
  EXPECT_EQ(d.keys(), (std::vector<std::string>{"b", "c", "d"}));
  EXPECT_EQ(d["b"], KOValue("again"));
  EXPECT_TRUE(d["absent"].isNil());
  EXPECT_EQ(d.find("absent"), nullptr);

  // JSON null is present; only a missing key is nil.
  d.set("n", KOValue::null());
  ASSERT_NE(d.find("n"), nullptr);
  EXPECT_TRUE(d.find("n")->isNull());
}

TEST(KODictionary, LargeDictionaryStaysConsistentAcrossIndexChanges) {
  // Enough keys to use the hash index, then removals back below the threshold and growth past it.
  KODictionary d = numberedDictionary(200);
  for (int i = 0; i < 200; ++i) EXPECT_EQ(d[keyAt(i)], KOValue(i));
  EXPECT_FALSE(d.contains("key200"));

  for (int i = 0; i < 200; i += 2) ASSERT_TRUE(d.remove(keyAt(i)));
  EXPECT_EQ(d.size(), 100u);
  for (int i = 0; i < 200; ++i) EXPECT_EQ(d.contains(keyAt(i)), i % 2 == 1) << i;
  EXPECT_EQ(d.keys().front(), "key1");
  EXPECT_EQ(d.keys().back(), "key199");

  // Overwriting keeps the position and does not duplicate the key.
  d.set("key101", "changed");
  EXPECT_EQ(d.size(), 100u);
  EXPECT_EQ(d.keys()[50], "key101");
  EXPECT_EQ(d["key101"], KOValue("changed"));

  // Shrink below the index threshold, then grow again.
  for (int i = 1; i < 190; i += 2) ASSERT_TRUE(d.remove(keyAt(i)));
  EXPECT_EQ(d.keys(), (std::vector<std::string>{"key191", "key193", "key195", "key197", "key199"}));
  for (int i = 300; i < 340; ++i) d.set(keyAt(i), i);
  EXPECT_EQ(d.size(), 45u);
  for (int i = 300; i < 340; ++i) EXPECT_EQ(d[keyAt(i)], KOValue(i));
  EXPECT_EQ(d["key197"], KOValue(197));
  EXPECT_FALSE(d.contains("key1"));

  // A copy answers the same lookups, and mutating it leaves the original alone.
  KODictionary copy = d;
  copy.remove("key300");
  copy.set("extra", 1);
  EXPECT_TRUE(d.contains("key300"));
  EXPECT_FALSE(d.contains("extra"));
  EXPECT_EQ(copy["key339"], KOValue(339));
  EXPECT_NE(copy, d);

  d.clear();
  EXPECT_TRUE(d.empty());
  EXPECT_FALSE(d.contains("key300"));
  d.set("after", 1);
  EXPECT_EQ(d.keys(), std::vector<std::string>{"after"});
}

TEST(KODictionary, EqualityWithIndexIgnoresOrder) {
  KODictionary forward = numberedDictionary(60);
  KODictionary backward;
  for (int i = 59; i >= 0; --i) backward.set(keyAt(i), static_cast<double>(i));
  EXPECT_EQ(forward, backward);
  backward.set(keyAt(30), "x");
  EXPECT_NE(forward, backward);
}

TEST(KOValue, TypedAccessorsThrowOnOtherKinds) {
  const KOValue s("text");
  EXPECT_THROW(s.intValue(), KOTypeError);
  EXPECT_THROW(s.doubleValue(), KOTypeError);
  EXPECT_THROW(s.boolValue(), KOTypeError);
  EXPECT_THROW(s.arrayValue(), KOTypeError);
  EXPECT_THROW(s.dictionaryValue(), KOTypeError);
  EXPECT_THROW(s["key"], KOTypeError);
  EXPECT_THROW(KOValue(1).stringValue(), KOTypeError);
  EXPECT_THROW(KOValue().stringValue(), KOTypeError);
  EXPECT_THROW(KOValue::null().intValue(), KOTypeError);
  EXPECT_THROW(KOValue(KODate{1}).doubleValue(), KOTypeError);
  EXPECT_THROW(KOValue("u").urlValue(), KOTypeError);
  EXPECT_THROW(KOValue(KOURL{"u"}).dataValue(), KOTypeError);
  EXPECT_THROW(KOValue(KOData{}).dateValue(), KOTypeError);
  EXPECT_THROW(KOValue(KOArray{1}).arrayValue().at(1), KOTypeError);

  KOValue mutableString(1);
  EXPECT_THROW(mutableString.stringValue(), KOTypeError);
  EXPECT_THROW(mutableString.arrayValue(), KOTypeError);
  EXPECT_THROW(mutableString.dictionaryValue(), KOTypeError);

  // Numbers convert among themselves, saturating at the int64 edges.
  EXPECT_EQ(KOValue(2.9).intValue(), 2);
  EXPECT_EQ(KOValue(-2.9).intValue(), -2);
  EXPECT_EQ(KOValue(1e300).intValue(), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(KOValue(-1e300).intValue(), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(KOValue(std::numeric_limits<double>::quiet_NaN()).intValue(), 0);
  EXPECT_TRUE(KOValue(0.5).boolValue());
  EXPECT_FALSE(KOValue(0).boolValue());
  EXPECT_EQ(KOValue(true).doubleValue(), 1.0);
  EXPECT_EQ(KOValue(KODictionary{{"k", 1}})["missing"], KOValue::nil());
}

// A host may build a value nested a hundred thousand levels deep: copying, assigning and
// destroying it never recurse per level, and shallower values copy exactly.
TEST(KOValue, DeepNestingIsCopiedAndDestroyedWithoutRecursion) {
  KOValue deep(KODictionary{{"leaf", 1}});
  for (int i = 0; i < 100000; ++i) {
    KOArray level;
    level.push_back(std::move(deep));
    KODictionary wrapper;
    wrapper.set("d", KOValue(std::move(level)));
    deep = KOValue(std::move(wrapper));
  }
  KOValue copy = deep;
  KOValue assigned(KODictionary{{"old", KOArray{KODictionary{{"x", 1}}}}});
  assigned = deep;
  int depth = 0;
  for (const KOValue* v = &assigned; v->isDictionary() && v->dictionaryValue().contains("d"); ++depth) {
    v = &v->dictionaryValue()["d"].arrayValue()[0];
  }
  EXPECT_EQ(depth, 100000);

  KODictionary big;
  for (int i = 0; i < 100; ++i) big.set("k" + std::to_string(i), KOValue(KOArray{i, KODictionary{{"n", i}}, "s"}));
  const KODictionary bigCopy = big;
  EXPECT_EQ(bigCopy, big);
  EXPECT_EQ(bigCopy["k42"].arrayValue()[1]["n"], KOValue(42));
  EXPECT_TRUE(bigCopy.contains("k99"));  // the key index came along
}

// A literal list is copied whole and checked once: a repeated key must still behave as set()
// does (first place, last value), small or past the index threshold.
TEST(KODictionary, LiteralListsWithRepeatedKeysKeepFirstPlaceLastValue) {
  const KODictionary small{{"a", 1}, {"b", 2}, {"a", 3}};
  EXPECT_EQ(small.keys(), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(small["a"], KOValue(3));
  auto big = [](bool repeat) {
    return KODictionary{{"k0", 0},   {"k1", 1},   {"k2", 2},   {"k3", 3},   {"k4", 4},
                        {"k5", 5},   {"k6", 6},   {"k7", 7},   {"k8", 8},   {"k9", 9},
                        {"k10", 10}, {"k11", 11}, {"k12", 12}, {"k13", 13}, {"k14", 14},
                        {"k15", 15}, {"k16", 16}, {"k17", 17}, {"k18", 18}, {"k19", 19},
                        {"k20", 20}, {"k21", 21}, {"k22", 22}, {"k23", 23}, {repeat ? "k5" : "k24", 99}};
  };
  const KODictionary repeated = big(true);
  EXPECT_EQ(repeated.size(), 24u);
  EXPECT_EQ(repeated.keys()[5], "k5");
  EXPECT_EQ(repeated["k5"], KOValue(99));
  EXPECT_EQ(repeated["k23"], KOValue(23));
  const KODictionary distinct = big(false);
  EXPECT_EQ(distinct.size(), 25u);
  for (int i = 0; i < 24; ++i) EXPECT_EQ(distinct["k" + std::to_string(i)], KOValue(i)) << i;
  EXPECT_EQ(distinct["k24"], KOValue(99));
}
