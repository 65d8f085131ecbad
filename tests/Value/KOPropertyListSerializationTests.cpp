#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOPropertyListSerialization.h"
#include "KOValuePrinting.h"
#include "kovantis/KOValue.h"

namespace {

constexpr double kEpoch2001 = 978307200.0;
constexpr int kMaxDepth = KOValue::kMaxNestingDepth;

// Builds binary property lists object by object, so tests can state exactly what the bytes hold
// (including cycles and dangling references a writer would never produce).
class BinaryPlist {
 public:
  std::size_t add(std::string encoded) {
    objects_.push_back(std::move(encoded));
    return objects_.size() - 1;
  }
  std::size_t integer(std::int64_t v) {
    if (v >= 0 && v <= 0xFF) return add(marker(0x1, 0) + bigEndian(static_cast<std::uint64_t>(v), 1));
    if (v >= 0 && v <= 0xFFFFFFFF) return add(marker(0x1, 2) + bigEndian(static_cast<std::uint64_t>(v), 4));
    return add(marker(0x1, 3) + bigEndian(static_cast<std::uint64_t>(v), 8));
  }
  std::size_t real(double d) { return add(marker(0x2, 3) + bigEndian(bits(d), 8)); }
  std::size_t date(double since2001) { return add(marker(0x3, 3) + bigEndian(bits(since2001), 8)); }
  std::size_t boolean(bool b) { return add(std::string(1, b ? '\x09' : '\x08')); }
  std::size_t ascii(const std::string& s) { return add(sized(0x5, s.size()) + s); }
  std::size_t data(const std::string& bytes) { return add(sized(0x4, bytes.size()) + bytes); }
  std::size_t array(const std::vector<std::size_t>& refs) { return add(sized(0xA, refs.size()) + refList(refs)); }
  std::size_t dict(const std::vector<std::size_t>& keys, const std::vector<std::size_t>& values) {
    return add(sized(0xD, keys.size()) + refList(keys) + refList(values));
  }
  // Arrays each holding the next, `levels` deep, with the outermost as object 0.
  static BinaryPlist nested(int levels) {
    BinaryPlist p;
    for (int i = 0; i < levels; ++i) p.array({static_cast<std::size_t>(i + 1)});
    p.array({});
    return p;
  }

  std::string bytes(std::size_t top) const {
    std::string out = "bplist00";
    std::vector<std::uint64_t> offsets;
    for (const auto& o : objects_) {
      offsets.push_back(out.size());
      out += o;
    }
    const std::uint64_t tableOffset = out.size();
    for (auto off : offsets) out += bigEndian(off, 4);
    out += std::string(6, '\0') + "\x04\x04";  // offset and reference sizes
    return out + bigEndian(objects_.size(), 8) + bigEndian(top, 8) + bigEndian(tableOffset, 8);
  }

 private:
  static std::string marker(int type, int low) { return std::string(1, static_cast<char>(type << 4 | low)); }
  static std::string sized(int type, std::size_t n) {
    return n < 15 ? marker(type, static_cast<int>(n)) : marker(type, 0xF) + marker(0x1, 2) + bigEndian(n, 4);
  }
  static std::string bigEndian(std::uint64_t v, int width) {
    std::string out(static_cast<std::size_t>(width), '\0');
    for (int i = width - 1; i >= 0; --i, v >>= 8) out[static_cast<std::size_t>(i)] = static_cast<char>(v & 0xFF);
    return out;
  }
  static std::uint64_t bits(double d) {
    std::uint64_t u = 0;
    std::memcpy(&u, &d, sizeof u);
    return u;
  }
  static std::string refList(const std::vector<std::size_t>& refs) {
    std::string out;
    for (auto r : refs) out += bigEndian(r, 4);
    return out;
  }

  std::vector<std::string> objects_;
};

std::string xmlPlist(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
         "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n<plist version=\"1.0\">\n" +
         body + "\n</plist>\n";
}

KOValue parse(const std::string& bytes) { return KOPropertyListSerialization::parse(bytes); }
std::string writeXML(const KOValue& v) { return KOPropertyListSerialization::writeXML(v); }
KOValue roundTrip(const KOValue& v) { return parse(writeXML(v)); }

KOValue nestedValue(int depth) {
  KOValue v = KOArray{};
  for (int i = 1; i < depth; ++i) v = KOArray{std::move(v)};
  return v;
}

std::string nestedXML(int depth) {
  std::string body;
  for (int i = 0; i < depth; ++i) body += "<array>";
  for (int i = 0; i < depth; ++i) body += "</array>";
  return xmlPlist(body);
}

}  // namespace

TEST(KOPropertyListSerialization, XMLRoundTripKeepsKindsAndValues) {
  constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
  constexpr auto kMin = std::numeric_limits<std::int64_t>::min();
  const KOValue value = KODictionary{
      {"ints", KOArray{0, 1, -1, -42, kMax, kMin, std::int64_t{4294967296}}},
      {"reals", KOArray{9.99, -0.5, 1e-300, -1.7976931348623157e308}},
      {"bools", KOArray{true, false}},
      {"text", "<&> \"quotes\" 'apos' é ✓ 𝄞"},
      {"empty", ""},
      {"data", KOData{{0, 1, 2, 0xFE, 0xFF}}},
      {"noData", KOData{}},
      {"dates", KOArray{KODate{1700000000}, KODate{kEpoch2001}, KODate{kEpoch2001 - 1}, KODate{-86400 * 365.0}}},
      {"nested", KODictionary{{"list", KOArray{KOArray{}, KODictionary{}, KODictionary{{"k", KOArray{1, "x"}}}}}}},
  };
  const KOValue back = roundTrip(value);
  EXPECT_EQ(back, value);
  for (const KOValue& v : back["ints"].arrayValue()) EXPECT_TRUE(v.isInteger()) << v.description();
  EXPECT_EQ(back["ints"].arrayValue()[4].intValue(), kMax);
  EXPECT_EQ(back["ints"].arrayValue()[5].intValue(), kMin);
  EXPECT_TRUE(back["bools"].arrayValue()[0].isBool());
  for (const KOValue& v : back["reals"].arrayValue()) EXPECT_TRUE(v.isReal()) << v.description();
  EXPECT_TRUE(back["dates"].arrayValue()[0].isDate());
  EXPECT_EQ(back.dictionaryValue().keys(), value.dictionaryValue().keys());

  // A URL has no property-list form; it is kept as its string.
  EXPECT_EQ(roundTrip(KOArray{KOURL{"https://example.com/a?b=c&d"}}), KOValue(KOArray{"https://example.com/a?b=c&d"}));
  // Null and nil are left out of dictionaries and written blank in arrays.
  EXPECT_EQ(roundTrip(KODictionary{{"null", KOValue::null()},
                                   {"nil", KOValue()},
                                   {"kept", 1},
                                   {"list", KOArray{KOValue::null(), 2, KOValue()}},
                                   {"inner", KODictionary{{"gone", KOValue::null()}}}}),
            KOValue(KODictionary{{"kept", 1}, {"list", KOArray{"", 2, ""}}, {"inner", KODictionary{}}}));
}

// Dates hold whole seconds within the format's range; binary dates are read through their XML form,
// so they keep their whole seconds (toward 2001) and lose the fraction, never their sign.
TEST(KOPropertyListSerialization, DatesAreWholeSecondsWithinTheFormatRange) {
  constexpr double kLatest = kEpoch2001 + std::numeric_limits<std::int32_t>::max();
  constexpr double kEarliest = kEpoch2001 + std::numeric_limits<std::int32_t>::min();
  for (double seconds : {kLatest, kEarliest, -1.0, 0.0, kEpoch2001 - 3600}) {
    EXPECT_EQ(roundTrip(KOValue(KODate{seconds})), KOValue(KODate{seconds})) << seconds;
  }
  EXPECT_EQ(parse(xmlPlist("<date>2023-11-14T22:13:20Z</date>")), KOValue(KODate{1700000000}));
  EXPECT_EQ(parse(xmlPlist("<date>1969-12-31T23:59:59Z</date>")), KOValue(KODate{-1}));
  for (double since2001 : {0.25, 1700000000.125 - kEpoch2001, -1.5, -0.5, -86400.75}) {
    BinaryPlist p;
    const std::size_t root = p.date(since2001);
    EXPECT_EQ(parse(p.bytes(root)), KOValue(KODate{kEpoch2001 + std::trunc(since2001)})) << since2001;
  }
}

TEST(KOPropertyListSerialization, WritingUnrepresentableValuesThrows) {
  constexpr double kLatest = kEpoch2001 + std::numeric_limits<std::int32_t>::max();
  constexpr double kEarliest = kEpoch2001 + std::numeric_limits<std::int32_t>::min();
  constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
  // Nothing at the top, and the rest even when nested.
  EXPECT_THROW(writeXML(KOValue()), KOTypeError);
  EXPECT_THROW(writeXML(KOValue::null()), KOTypeError);
  for (const KOValue& v : {KOValue(kNaN), KOValue(std::numeric_limits<double>::infinity()), KOValue("\xC3\x28"),
                           KOValue(KOURL{"\xFF"}), KOValue(KODictionary{{"\x80", 1}}), KOValue(KODate{kLatest + 1}),
                           KOValue(KODate{kEarliest - 1}), KOValue(KODate{kNaN})}) {
    EXPECT_THROW(writeXML(v), KOTypeError) << v.description();
    EXPECT_THROW(writeXML(KOArray{KODictionary{{"k", v}}}), KOTypeError) << v.description();
  }
}

TEST(KOPropertyListSerialization, ReadsHandWrittenXMLAndBinary) {
  const KOValue xml = parse(xmlPlist(R"(<dict>
  <key>b</key><integer>-9223372036854775808</integer>
  <key>a</key><real>2.5</real>
  <key>t</key><true/>
  <key>d</key><data>AAEC/w==</data>
  <key>s</key><string>x &amp; y</string>
  <key>l</key><array><integer>7</integer><string/></array>
</dict>)"));
  EXPECT_EQ(xml, KOValue(KODictionary{{"b", std::numeric_limits<std::int64_t>::min()},
                                      {"a", 2.5},
                                      {"t", true},
                                      {"d", KOData{{0, 1, 2, 0xFF}}},
                                      {"s", "x & y"},
                                      {"l", KOArray{7, ""}}}));
  EXPECT_EQ(xml.dictionaryValue().keys(), (std::vector<std::string>{"b", "a", "t", "d", "s", "l"}));
  EXPECT_TRUE(xml["t"].isBool());

  constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
  BinaryPlist p;
  const std::size_t dict = p.dict({p.ascii("flag"), p.ascii("neg")}, {p.boolean(true), p.integer(-5)});
  const KOValue binary =
      parse(p.bytes(p.array({dict, p.integer(kMax), p.integer(200), p.real(-0.25), p.date(1700000000 - kEpoch2001),
                             p.data(std::string("\x00\xff", 2)),
                             p.array({p.ascii("a long string of more than fifteen bytes"), p.dict({}, {})})})));
  EXPECT_EQ(binary,
            KOValue(KOArray{KODictionary{{"flag", true}, {"neg", -5}}, kMax, 200, -0.25, KODate{1700000000},
                            KOData{{0, 0xFF}}, KOArray{"a long string of more than fifteen bytes", KODictionary{}}}));
  EXPECT_TRUE(binary.arrayValue()[0]["flag"].isBool());
  EXPECT_TRUE(binary.arrayValue()[0]["neg"].isInteger());
}

TEST(KOPropertyListSerialization, RejectsCorruptInput) {
  const std::string xml = writeXML(KODictionary{{"a", KOArray{1, "two"}}, {"b", 2.5}});
  BinaryPlist p;
  const std::string binary = p.bytes(p.array({p.integer(1), p.ascii("two")}));
  ASSERT_EQ(parse(binary), KOValue(KOArray{1, "two"}));
  // References that dangle, point back at their own container, or a top object out of range.
  BinaryPlist dangling, cycle, badTop, badString;
  badTop.integer(1);

  std::vector<std::string> bad = {"",
                                  "garbage",
                                  "<plist",
                                  "bplist00",
                                  std::string(3, '\0'),
                                  xml.substr(0, xml.size() / 2),
                                  xml.substr(0, xml.find("<key>b")),
                                  xmlPlist("<unknown/>"),
                                  xmlPlist("<string>\xC3\x28</string>"),
                                  xmlPlist("<dict><key>\xFF</key><true/></dict>"),
                                  dangling.bytes(dangling.array({7})),
                                  cycle.bytes(cycle.array({0})),
                                  badTop.bytes(5),
                                  badString.bytes(badString.ascii("\xC3"))};
  for (std::size_t n = 1; n < binary.size(); ++n) bad.push_back(binary.substr(0, n));
  for (const std::string& bytes : bad) EXPECT_THROW(parse(bytes), KOParseError) << bytes;
}

// Found by fuzzing: a binary dictionary key holding a NUL byte trips an assertion inside the
// library's key accessor; reading must refuse the file instead of ending the process.
TEST(KOPropertyListSerialization, KeyWithNulByteDoesNotAbort) {
  // The key "nes\x01\0\0" of the root dictionary, as the fuzzer found it.
  const std::string bytes(
      "\x62\x70\x6c\x69\x73\x74\x30\x30\xd3\x01\x02\x03\x04\x05\x0b\x55\x65\x6d\x70\x74\x79\x56\x6e\x65"
      "\x73\x01\x00\x00\x00\x00\x00\x00\x04\xa1\x07\xd1\x08\x09\x51\x6b\xa1\x0a\x10\x01\x53\x3c\x26\x3e"
      "\x08\x0f\x11\x11\x10\x11\x11\x11\x11\x11\x11\x11\x11\x11\x11\x11\x11\x11\x11\x11\x11\x11\x11\x11"
      "\x11\x11\x00\x00\x00\x00\x00\x01\x01\x00\x00\x00\x00\x00\x00\x00\x0c\x00\x00\x00\x00\x00\x00\x00"
      "\x00\x00\x00\x00\x00\x00\x00\x00\x30",
      105);
  // Reading the key or refusing the file are both fine; ending the process is not.
  try {
    EXPECT_TRUE(parse(bytes).isDictionary());
  } catch (const KOParseError&) {
  }
}

TEST(KOPropertyListSerialization, NestingLimitInBothFormats) {
  EXPECT_EQ(parse(nestedXML(kMaxDepth)), nestedValue(kMaxDepth));
  EXPECT_EQ(roundTrip(nestedValue(kMaxDepth)), nestedValue(kMaxDepth));
  for (int depth : {kMaxDepth + 1, kMaxDepth + 5}) {
    SCOPED_TRACE(depth);
    EXPECT_THROW(parse(nestedXML(depth)), KOParseError);
    EXPECT_THROW(writeXML(nestedValue(depth)), KOTypeError);
  }
  EXPECT_THROW(parse(BinaryPlist::nested(kMaxDepth + 5).bytes(0)), KOParseError);
  // Far deeper input must be refused without exhausting the stack. The library's binary reader
  // recurses once per level before our depth check runs: 100000 levels overflow an ordinary 8 MB
  // stack, and 8000 are as deep as fits within the size accepted.
  EXPECT_THROW(parse(nestedXML(100000)), KOParseError);
  for (int levels : {100000, 8000}) EXPECT_THROW(parse(BinaryPlist::nested(levels).bytes(0)), KOParseError) << levels;
}

// The batch file is written from JSON text directly; what it reads back must be what the JSON
// holds, exactly as if the value had gone through the library's writer.
TEST(KOPropertyListSerialization, FragmentFromJSONReadsBackAsTheJSONValue) {
  const auto fragment = [](const std::string& json) { return KOPropertyListSerialization::xmlFragmentFromJSON(json); };
  for (const std::string& json : std::vector<std::string>{
           R"([{"name":"PRODUCT_VIEWED","price":12.5,"count":3,"ok":true,"no":false}])",
           R"({"a&b":"x < y > z & \"w\" 'v'","empty":"","spaces":"  padded  ","unicode":"héllo ✓ 😀"})",
           R"([-1,0,9223372036854775807,-9223372036854775808,18446744073709551616,0.1,-0.0,1e300,5e-324,-2.5e-7])",
           R"({"gone":null,"kept":[null,1,{}],"nested":{"deeper":[[],{"k":null}]}})",
           R"({"line":"two\nlines","tab":"a\tb","cr":"a\r\nb","bell":"\u0007"})",
           R"({"n":"A","n":null,"m":null,"m":1,"o":{"n":2},"n2":[{"n":3}]})",
           R"("lone string")",
           R"([])",
           std::string(kMaxDepth, '[') + std::string(kMaxDepth, ']'),
       }) {
    EXPECT_EQ(parse(xmlPlist(fragment(json))), roundTrip(KOJSONSerialization::parse(json))) << json;
  }
  // Written directly, compact.
  EXPECT_EQ(fragment(R"([1,"a<b",{"k":null,"t":true}])"),
            "<array><integer>1</integer><string>a&lt;b</string><dict><key>t</key><true/></dict></array>");
  // Reals keep every bit through the text.
  const KOArray reals = parse(xmlPlist(fragment("[0.1,1e300,5e-324,123456.789012345]"))).arrayValue();
  EXPECT_EQ(reals[0].doubleValue(), 0.1);
  EXPECT_EQ(reals[2].doubleValue(), 5e-324);
  EXPECT_EQ(reals[3].doubleValue(), 123456.789012345);

  EXPECT_THROW(fragment("null"), KOTypeError);
  EXPECT_THROW(fragment("[1,"), KOParseError);
  EXPECT_THROW(fragment(R"(["\u0000"])"), KOTypeError);
  EXPECT_THROW(fragment(R"(["\udc00"])"), KOParseError);
}
