// KOValue's public JSON entry points, as a host (and the test harness) uses them.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "KOValuePrinting.h"
#include "kovantis/KOValue.h"

namespace {

std::string nestedArrays(int depth) {
  return std::string(static_cast<std::size_t>(depth), '[') + std::string(static_cast<std::size_t>(depth), ']');
}

}  // namespace

TEST(KOValueJSON, RoundTripsAndKeepsKeyOrder) {
  const KOValue value = KODictionary{
      {"zeta", KOArray{1, 2.5, "two", true, KOValue::null()}},
      {"alpha", KODictionary{{"max", std::numeric_limits<std::int64_t>::max()}, {"text", "é ✓ 𝄞 \"q\""}}},
  };
  const std::string text = value.toJSON();
  EXPECT_EQ(text.rfind(R"({"zeta":[1,2.5,"two",true,null],"alpha":{)", 0), 0u) << text;
  EXPECT_EQ(KOValue::fromJSON(text), value);
  // Nil has no JSON form of its own: it is written as null.
  EXPECT_EQ(KOValue().toJSON(), "null");
}

TEST(KOValueJSON, BadInputThrowsInsteadOfReturningNil) {
  for (const std::string text : {"", "{\"a\":", "[1,]", "\"\xff\"", "nul"}) {
    EXPECT_THROW(KOValue::fromJSON(text), KOParseError) << "accepted: " << text;
  }
  // The nesting limit is the serializer's: at it is read, one past it is refused.
  EXPECT_NO_THROW(KOValue::fromJSON(nestedArrays(KOValue::kMaxNestingDepth)));
  EXPECT_THROW(KOValue::fromJSON(nestedArrays(KOValue::kMaxNestingDepth + 1)), KOParseError);
}

TEST(KOValueJSON, ValuesWithoutAJSONFormThrowTypeError) {
  EXPECT_THROW(KOValue(KODate{0}).toJSON(), KOTypeError);
  EXPECT_THROW(KOValue(std::numeric_limits<double>::infinity()).toJSON(), KOTypeError);
  EXPECT_THROW(KOValue(std::string("\xc3")).toJSON(), KOTypeError);
}
