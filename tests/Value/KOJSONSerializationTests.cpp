#include <gtest/gtest.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "KOUtilities/KOJSONSerialization.h"
#include "KOValuePrinting.h"
#include "kovantis/KOValue.h"

namespace {

std::string nestedArrays(int depth, const std::string& inner = "") {
  return std::string(static_cast<std::size_t>(depth), '[') + inner + std::string(static_cast<std::size_t>(depth), ']');
}

KOValue nestedValue(int depth) {
  KOValue v = KOArray{};
  for (int i = 1; i < depth; ++i) v = KOArray{std::move(v)};
  return v;
}

void expectRejected(const std::string& text) {
  EXPECT_THROW(KOJSONSerialization::parse(text), KOParseError) << "accepted: " << text;
}

}  // namespace

TEST(KOJSONSerialization, RoundTripsEveryJSONKind) {
  const KOValue value = KODictionary{
      {"EVENT_ACTION", "PRODUCT_VIEWED"},
      {"attrs", KODictionary{{"price", 9.99}, {"qty", 2}, {"neg", -17}, {"tiny", -2.5e-300}, {"flag", false}}},
      {"list", KOArray{1, "two", KOValue::null(), KOArray{}, KODictionary{}, true}},
      {"text", "quote \" backslash \\ newline \n tab \t nul " + std::string(1, '\0') + " é ✓ 𝄞"},
      {"", "empty key"},
  };
  const KOValue back = KOJSONSerialization::parse(KOJSONSerialization::write(value));
  EXPECT_EQ(back, value);
  // Key order survives the trip, and number kinds are kept.
  EXPECT_EQ(back.dictionaryValue().keys(), value.dictionaryValue().keys());
  EXPECT_TRUE(back["attrs"]["qty"].isInteger());
  EXPECT_TRUE(back["attrs"]["price"].isReal());
  EXPECT_EQ(back["attrs"]["price"].doubleValue(), 9.99);
  EXPECT_TRUE(back["list"].arrayValue()[2].isNull());

  EXPECT_EQ(KOJSONSerialization::write(KODictionary{{"a", 1}, {"b", KOArray{true, KOValue()}}}),
            R"({"a":1,"b":[true,null]})");
  std::string appended = "prefix:";
  KOJSONSerialization::writeTo(KOValue(1.5), appended);
  EXPECT_EQ(appended, "prefix:1.5");
}

TEST(KOJSONSerialization, NumbersAtTheEdges) {
  constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
  constexpr auto kMin = std::numeric_limits<std::int64_t>::min();
  const KOArray a = KOJSONSerialization::parse("[9223372036854775807,-9223372036854775808,-1,0,-0]").arrayValue();
  ASSERT_EQ(a.size(), 5u);
  EXPECT_TRUE(a[0].isInteger() && a[1].isInteger());
  EXPECT_EQ(a[0].intValue(), kMax);
  EXPECT_EQ(a[1].intValue(), kMin);
  EXPECT_EQ(a[2].intValue(), -1);
  EXPECT_EQ(KOJSONSerialization::write(KOArray{kMax, kMin}), "[9223372036854775807,-9223372036854775808]");

  // Beyond int64 (either way) the number is kept as a real rather than wrapped.
  const KOArray big =
      KOJSONSerialization::parse("[9223372036854775808,18446744073709551615,-9223372036854775809]").arrayValue();
  for (const KOValue& v : big) EXPECT_TRUE(v.isReal()) << v.description();
  EXPECT_EQ(big[0].doubleValue(), 9223372036854775808.0);
  EXPECT_EQ(big[1].doubleValue(), 18446744073709551615.0);
  EXPECT_LT(big[2].doubleValue(), 0);

  // Reals come back bit-exact.
  for (double d : {0.1, -1e-310, 1.7976931348623157e308, -123456.789e-5, 1.0}) {
    const KOValue back = KOJSONSerialization::parse(KOJSONSerialization::write(KOValue(d)));
    EXPECT_TRUE(back.isReal());
    EXPECT_EQ(back.doubleValue(), d);
  }
  // Found by fuzzing: a zero with a large negative exponent once took a conversion path with
  // undefined behaviour.
  EXPECT_EQ(KOJSONSerialization::parse("0e-300"), KOValue(0.0));
  EXPECT_EQ(KOJSONSerialization::parse("[-0.0e-330]"), KOValue(KOArray{0.0}));
}

TEST(KOJSONSerialization, RejectsCorruptText) {
  const std::string good = R"({"a":[1,2,{"b":"c"}],"d":true})";
  ASSERT_NO_THROW(KOJSONSerialization::parse(good));
  // Every proper prefix of a document is truncated.
  for (std::size_t n = 0; n < good.size(); ++n) expectRejected(good.substr(0, n));

  const std::vector<std::string> bad = {
      "", "   ", "nul", "tru", "{\"a\"}", "{\"a\":}", "[1,]", "{,}", "{'a':1}", "[1 2]", "{\"a\":1,}", "\"unterminated",
      "\"bad escape \\x\"", "\"\\u12\"", "/* comment */ 1", "NaN", "Infinity", "[1]]", "{}{}", "1e400", "-", "01", "1.",
      "+1",
      // Escaped surrogates out of pairs would decode to bytes that are not UTF-8, which could then
      // never be written again.
      "\"\\uD800\"", "\"\\uD800\\u0041\"", R"("\uDC00")", R"({"k":"a\uDFFFb"})",
      // Bytes after the root value, including after an embedded NUL, are not ignored.
      "{} x", std::string("[1]\0", 4), std::string("[1]\0[2]", 7), std::string("\"a\0b\"", 5),
      std::string("[1,\0 2]", 7),
      // Found by fuzzing: a multi-byte character cut short at the very end of the text.
      "{\"a\":\"\xE2", "{\"e2\xE2", "[\"\xF0\x9F\x98", "\"\xC3"};
  for (const std::string& text : bad) expectRejected(text);
  EXPECT_EQ(KOJSONSerialization::parse(" \n\t[1] \r\n"), KOValue(KOArray{1}));
  // An escaped NUL is a character like any other.
  EXPECT_EQ(KOJSONSerialization::parse(R"("a\u0000b")").stringValue(), std::string("a\0b", 3));
}

TEST(KOJSONSerialization, RejectsInvalidUTF8) {
  for (const char* bytes :
       {"\x80", "\xC3", "\xC0\xAF", "\xE2\x82", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xFF", "\xF0\x9F\x98"}) {
    expectRejected(std::string("\"") + bytes + "\"");
    expectRejected(std::string("{\"") + bytes + "\":1}");
  }
  EXPECT_EQ(KOJSONSerialization::parse("\"\xF0\x9F\x98\x80\"").stringValue(), "\xF0\x9F\x98\x80");
  EXPECT_EQ(KOJSONSerialization::parse(R"("\uD83D\uDE00")").stringValue(), "\xF0\x9F\x98\x80");

  // Writing will not produce text the reader refuses.
  EXPECT_THROW(KOJSONSerialization::write(KOValue("\xC3")), KOTypeError);
  EXPECT_THROW(KOJSONSerialization::write(KODictionary{{"\xFF", 1}}), KOTypeError);
}

TEST(KOJSONSerialization, NestingLimitInBothDirections) {
  constexpr int kMax = KOValue::kMaxNestingDepth;
  KOValue deepest = KOJSONSerialization::parse(nestedArrays(kMax, "1"));
  for (int i = 0; i < kMax; ++i) deepest = KOValue(deepest.arrayValue().at(0));
  EXPECT_EQ(deepest, KOValue(1));
  EXPECT_EQ(KOJSONSerialization::parse(nestedArrays(kMax)), nestedValue(kMax));
  expectRejected(nestedArrays(kMax + 1));
  std::string objects;
  for (int i = 0; i < kMax + 1; ++i) objects += "{\"k\":";
  expectRejected(objects + "1" + std::string(static_cast<std::size_t>(kMax + 1), '}'));

  // Far deeper input, even unterminated, is refused without exhausting the stack.
  expectRejected(std::string(100000, '['));
  expectRejected(nestedArrays(100000));

  // The writer never produces text the reader would refuse for its depth.
  EXPECT_NO_THROW(KOJSONSerialization::write(nestedValue(kMax)));
  EXPECT_THROW(KOJSONSerialization::write(nestedValue(kMax + 1)), KOTypeError);
  EXPECT_THROW(KOJSONSerialization::write(nestedValue(kMax + 5)), KOTypeError);
}

TEST(KOJSONSerialization, WritingNonJSONValuesThrows) {
  for (const KOValue& v :
       {KOValue(std::numeric_limits<double>::quiet_NaN()), KOValue(std::numeric_limits<double>::infinity()),
        KOValue(-std::numeric_limits<double>::infinity()), KOValue(KODate{1700000000}), KOValue(KOData{{1, 2, 3}}),
        KOValue(KOURL{"https://example.com"})}) {
    EXPECT_THROW(KOJSONSerialization::write(v), KOTypeError) << v.description();
    // Nested deep inside a container as well.
    EXPECT_THROW(KOJSONSerialization::write(KODictionary{{"a", KOArray{1, KODictionary{{"b", v}}}}}), KOTypeError);
  }
}

// The one-pass writer must give the text the common JSON writers give (the service's parsers and
// our own tests read it): checked against one of them over many doubles and strings.
TEST(KOJSONSerialization, WritesWhatTheCommonWritersWrite) {
  auto reference = [](const auto& write) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    write(writer);
    return std::string(buffer.GetString(), buffer.GetSize());
  };
  std::mt19937_64 random(7);
  std::vector<double> doubles = {0.1,    -0.0,
                                 0.0,    1.0,
                                 49.99,  1e21,
                                 1e22,   123456789012345678.0,
                                 1e-6,   1e-7,
                                 1.5e-7, 0.001234,
                                 5e-324, 1.7976931348623157e308,
                                 -2.5,   1e300,
                                 12.34,  100.0,
                                 3.14159};
  for (int i = 0; i < 20000; ++i) {
    double d = std::bit_cast<double>(random());
    if (std::isfinite(d)) doubles.push_back(d);
    doubles.push_back(static_cast<double>(static_cast<std::int64_t>(random() % 2000001) - 1000000) / 100.0);
  }
  auto layout = [](std::string text) {
    for (char& c : text) c = std::isdigit(static_cast<unsigned char>(c)) ? '#' : c;
    return text;
  };
  for (const double d : doubles) {
    const std::string ours = KOJSONSerialization::write(KOValue(d));
    const std::string theirs = reference([&](auto& w) { w.Double(d); });
    // Both give digits that read back as the same double, laid out alike; ours are the shortest
    // and closest such digits, where the reference's are sometimes longer or one off in the last.
    EXPECT_EQ(KOJSONSerialization::parse(ours).doubleValue(), d) << ours;
    EXPECT_LE(ours.size(), theirs.size()) << ours << " vs " << theirs;
    if (ours.size() == theirs.size()) {
      EXPECT_EQ(layout(ours), layout(theirs)) << ours << " vs " << theirs;
    }
  }
  std::vector<std::string> strings = {"",
                                      "plain",
                                      "quote\" back\\slash /",
                                      std::string("nul\0x", 5),
                                      "\b\f\n\r\t\x01\x1f\x7f",
                                      "h\xC3\xA9llo \xE2\x82\xAC \xF0\x9F\x98\x80"};
  for (int i = 0; i < 2000; ++i) {
    std::string s;
    for (int n = static_cast<int>(random() % 12); n > 0; --n) s += static_cast<char>(random() % 0x80);
    strings.push_back(s);
  }
  for (const std::string& s : strings) {
    EXPECT_EQ(KOJSONSerialization::write(KOValue(s)),
              reference([&](auto& w) { w.String(s.data(), static_cast<rapidjson::SizeType>(s.size())); }));
  }
  // Invalid UTF-8 anywhere in a string is refused, as the reader refuses it.
  for (const char* bad :
       {"\xC0\x80", "\xE0\x80\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xF5", "a\x80", "\xE2\x82"}) {
    EXPECT_THROW(KOJSONSerialization::write(KOValue(std::string(bad))), KOTypeError) << bad;
  }
}
