#include <gtest/gtest.h>

#include "KOTestDevice.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOStringFormat.h"
#include "kovantis/KOConstants.h"

class KOLoggerTest : public KOTestDevice {
 protected:
  std::vector<std::string> lines() { return device().console().lines(); }
};

TEST_F(KOLoggerTest, DebugLevelsSetFilteringAndLabels) {
  EXPECT_FALSE(KOLogger::loggingEnabled());  // silent until switched on
  KOLogger::logWithVerbosity(1, 5, KOArray{"nobody hears this"});
  KOLogger::logPlain("nor this");
  EXPECT_TRUE(lines().empty());

  KOLogger::debug(2);
  EXPECT_TRUE(KOLogger::usingSeverityFiltering());
  KOLogger::logWithVerbosity(1, 1, KOArray{"debug detail"});
  KOLogger::logWithVerbosity(1, 4, KOArray{"it broke"});
  KOLogger::logWithVerbosity(1, 5, KOArray{"it failed"});
  EXPECT_EQ(lines(), (std::vector<std::string>{"[EXCEPTION]\tit broke", "[ERROR]\tit failed"}));

  device().console().clear();
  // Level 1 after level 2 keeps the minimum severity: filtering and labels stay in force.
  KOLogger::debug(1);
  KOLogger::logWithVerbosity(1, 1, KOArray{"debug detail"});
  KOLogger::logWithVerbosity(1, 5, KOArray{"still labelled"});
  EXPECT_EQ(lines(), (std::vector<std::string>{"[ERROR]\tstill labelled"}));

  device().console().clear();
  KOLogger::debug(0);
  EXPECT_FALSE(KOLogger::loggingEnabled());
  KOLogger::debug(7);  // unknown levels change nothing
  EXPECT_FALSE(KOLogger::loggingEnabled());
  KOLogger::logWithVerbosity(1, 5, KOArray{"silent"});
  EXPECT_TRUE(lines().empty());
}

TEST_F(KOLoggerTest, LevelOneFromStartPrintsWithoutLabel) {
  KOLogger::debug(1);
  KOLogger::logWithVerbosity(1, 5, KOArray{"plain error"});
  KOLogger::logWithVerbosity(3, 5, KOArray{"no format for verbosity 3"});
  KOLogger::logWithVerbosity(0, 5, KOArray{"verbosity 0 never prints"});
  EXPECT_EQ(lines(), (std::vector<std::string>{"plain error"}));
  EXPECT_EQ(device().console().entries().at(0).severity, 5) << "the console hears the severity the line leaves out";
}

TEST_F(KOLoggerTest, LocatedLinesCarryOurFileLineAndMethod) {
  KOLogger::debug(2);
  const int line = __LINE__ + 1;
  KOLogger::logLocated(KO_HERE, reinterpret_cast<const void*>(0x1234), KOLogSeverityException, "Kovantis - boom");
  ASSERT_EQ(lines().size(), 1u);
  EXPECT_EQ(lines()[0], "[EXCEPTION]\t<0x1234 file - KOLoggerTest.cpp, line number - " + std::to_string(line) +
                            " , method - 'KOLoggerTest_LocatedLinesCarryOurFileLineAndMethod_Test::TestBody'> "
                            "Kovantis - boom");
  EXPECT_EQ(KOLogger::methodName("static KOValue KOKeychain::load(const string&)"), "KOKeychain::load");
  EXPECT_EQ(KOLogger::methodName("void ns::C<int, char>::run() const"), "ns::C<int, char>::run");
}

TEST_F(KOLoggerTest, FormatsTakeAtMostElevenArgumentsAndCanBeReplaced) {
  KOLogger::debug(1);
  KOLogger::setFormat("%@ %@ %@ %@ %@ %@ %@ %@ %@ %@ %@ %@", 1);
  KOArray args;
  for (int i = 1; i <= 12; ++i) args.push_back(KOValue(i));
  KOLogger::logWithVerbosity(1, 0, args);
  EXPECT_EQ(lines().back(), "1 2 3 4 5 6 7 8 9 10 11 (null)");
}

TEST_F(KOLoggerTest, RemoteShippingFollowsThePreferenceNotTheConsole) {
  struct Shipped {
    std::string message;
    KOValue trace;
    std::string level;
  };
  std::vector<Shipped> shipped;
  KOLogger::setRemoteShipper([&](const std::string& m, const KOValue& t, const std::string& l) {
    shipped.push_back({m, t, l});
  });
  KOLogger::logWithVerbosity(1, 1, KOArray{"not enabled"}, KOValue("trace"));
  EXPECT_TRUE(shipped.empty());

  device().preferences().standard().setObject(KOValue(true), kShouldSendToLogEntries);
  KOLogger::logWithVerbosity(1, 1, KOArray{"api failed"}, KOValue());
  ASSERT_EQ(shipped.size(), 1u);                // console is off, the record still ships
  EXPECT_EQ(shipped[0].message, "api failed");  // its level and trace are checked on the wire
  EXPECT_TRUE(lines().empty());

  // With filtering on, the shipped line carries the label and dropped severities do not ship.
  KOLogger::debug(2);
  KOLogger::logWithVerbosity(1, 5, KOArray{"config exception"}, KOValue("frame 1"));
  KOLogger::logWithVerbosity(1, 1, KOArray{"below minimum"}, KOValue("frame 2"));
  ASSERT_EQ(shipped.size(), 2u);
  EXPECT_EQ(shipped[1].message, "[ERROR]\tconfig exception");
  EXPECT_EQ(shipped[1].trace, KOValue("frame 1"));

  // The plain variant never ships.
  KOLogger::logWithVerbosity(1, 5, KOArray{"console only"});
  EXPECT_EQ(shipped.size(), 2u);
}

TEST(KOStringFormatTest, ConversionsOverValues) {
  EXPECT_EQ(KOStringFormat::format("%@-%.0f", {KOValue("ABC"), KOValue(1700000000.6)}), "ABC-1700000001");
  EXPECT_EQ(KOStringFormat::format("%lli|%li|%d|%08x", {KOValue(-5), KOValue(7), KOValue(true), KOValue(255)}),
            "-5|7|1|000000ff");
  EXPECT_EQ(KOStringFormat::format("%@ %@ 100%%", {KOValue(KODictionary{{"a", 1}}), KOValue(KOArray{"x", 2.5})}),
            "{\"a\": 1} [\"x\", 2.5] 100%");
  EXPECT_EQ(KOStringFormat::format("%d and %@", {KOValue("text")}), "text and (null)");
  EXPECT_EQ(KOStringFormat::format("%p", {KOValue()}), "0x0");
  EXPECT_EQ(KOStringFormat::format("trailing %", {}), "trailing %");
}
