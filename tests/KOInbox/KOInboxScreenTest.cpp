// The inbox screen on a simulated device: what it shows for the stored file, and what a tap and a
// swipe leave in the file. Row heights follow the device's text metric: 16-point text is 8 points
// a character and 19.2 a line, so a 390-point screen fits 45 characters a line.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "KOInbox/KOInboxHandler.h"
#include "KOTestDevice.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOPropertyListFile.h"
#include "KOUtilities/KOPropertyListSerialization.h"
#include "Sim/KOSimRenderer.h"
#include "kovantis/KOInbox.h"

namespace {

// Local midnight of 15 January 2027 on a device one hour east of GMT.
constexpr double kMidnight = 1799967600;
const std::string kLongText = "Your order has shipped and will arrive on Friday between nine and noon";

KOValue record(const std::string& cid, KOValue alert, KOValue created, bool read, KODictionary extra = {}) {
  KODictionary data{{"aps", KODictionary{{"alert", std::move(alert)}}}, {"kovantis", KODictionary{{"cid", cid}}}};
  if (!extra.empty()) data.set("app_extra", std::move(extra));
  KODictionary r{{"cid", cid}, {"data", std::move(data)}, {"isRead", read}};
  if (!created.isNil()) r.set("c_cr_t", std::move(created));
  return KOValue(std::move(r));
}

class Delegate : public KOInboxCellSelectedDelegate {
 public:
  void inboxCellSelectedWithData(const KODictionary& data) override { received.push_back(data); }
  std::vector<KODictionary> received;
};

class KOInboxScreenTest : public KOTestDevice {
 protected:
  KOSimDeviceConfig config() override {
    KOSimDeviceConfig c;
    c.profile.secondsFromGMT = 3600;
    return c;
  }
  void SetUp() override {
    KOTestDevice::SetUp();
    KOLogger::debug(1);
  }
  std::string path() { return KOInboxHandler::getFilePathForInboxMessages(); }
  // Written by hand on one line: the SDK's writer would lay it out differently, so unchanged
  // bytes prove the file was not rewritten.
  void storeRaw(const KOArray& oldestFirst) {
    std::string xml = KOPropertyListSerialization::writeXML(KOValue(KODictionary{{"messagesInfo", oldestFirst}}));
    std::erase(xml, '\n');
    ASSERT_TRUE(device().rawFiles().writeFile(path(), xml));
  }
  std::string fileBytes() { return device().rawFiles().readFile(path()).value_or(""); }
  std::vector<std::string> storedCids() {
    std::vector<std::string> out;
    const KOValue file = KOPropertyListFile::read(path());
    for (const auto& r : file["messagesInfo"].arrayValue()) {
      out.push_back(r["cid"].stringValue());
    }
    return out;
  }
  std::shared_ptr<KOInboxViewController> show() { return KOInbox::initializeInboxOnController(&host_); }
  KOViewDescription screen() { return device().userInterface().embeddedScreen().value_or(KOViewDescription{}); }
  const KOViewDescription& rows(const KOViewDescription& s) { return s.children.at(0); }

  KOViewController host_ = [] {
    KOViewController host;
    host.name = "HostInboxScreen";
    return host;
  }();
};

}  // namespace

TEST_F(KOInboxScreenTest, AnEmptyInboxShowsOnlyTheCentredLabel) {
  ASSERT_TRUE(show());
  const KOViewDescription s = screen();
  EXPECT_EQ(s.text, "Inbox");
  ASSERT_EQ(s.children.size(), 1u);
  const KOViewDescription& label = s.children[0];
  EXPECT_EQ(label.kind, KOViewKind::Label);
  EXPECT_EQ(label.text, "You have no messages");
  EXPECT_EQ(label.numberOfLines, 2);
  EXPECT_EQ(label.alignment, KOTextAlignment::Center);
  EXPECT_EQ(label.frame, (KORect{97.5, 397, 195, 50}));
  EXPECT_EQ(device().screen().last("embeddedScreen")["host"], KOValue("HostInboxScreen"));

  // No host: nothing shown, one line.
  EXPECT_EQ(KOInbox::initializeInboxOnController(nullptr), nullptr);
  EXPECT_TRUE(device().console().contains("Kovantis - Exception in KOInbox : "));
  EXPECT_EQ(device().screen().entries("embeddedScreen").size(), 1u);
}

TEST_F(KOInboxScreenTest, RowsShowNewestFirstWithHeightsFontsAndDays) {
  storeRaw(KOArray{
      record("old", KOValue(KODictionary{{"title", "t"}, {"body", kLongText}}), KOValue(kMidnight - 0.25), true),
      record("mid", KOValue("Flash sale"), KOValue(std::to_string(kMidnight - 1) + ".999"), false),
      record("new", KOValue(42), KOValue(), false),
  });
  auto inbox = show();
  ASSERT_TRUE(inbox);
  ASSERT_EQ(inbox->numberOfRows(), 3u);
  const KOViewDescription list = rows(screen());
  ASSERT_EQ(list.kind, KOViewKind::List);
  ASSERT_EQ(list.children.size(), 3u);

  // Newest first; an alert that is no text shows nothing and no day without a time.
  const KOViewDescription& fresh = list.children[0];
  EXPECT_EQ(fresh.children[0].text, "");
  EXPECT_EQ(fresh.children[1].text, "");
  EXPECT_EQ(fresh.frame.height, 30);

  // Unread: bold; whole seconds before local midnight are still the 14th.
  const KOViewDescription& sale = list.children[1];
  EXPECT_EQ(sale.children[0].text, "Flash sale");
  EXPECT_EQ(sale.children[0].font.name, "AvenirNext-Bold");
  EXPECT_EQ(sale.children[1].text, "14-Jan");
  EXPECT_DOUBLE_EQ(sale.frame.y, 30);
  EXPECT_DOUBLE_EQ(sale.frame.height, 19.2 + 30);

  // Read: regular, the dictionary's body on two lines, a time in seconds with decimals.
  const KOViewDescription& order = list.children[2];
  EXPECT_EQ(order.children[0].text, kLongText);
  EXPECT_EQ(order.children[0].font.name, "AvenirNext-Regular");
  EXPECT_EQ(order.children[1].text, "14-Jan");
  EXPECT_DOUBLE_EQ(order.frame.y, 30 + 49.2);
  EXPECT_DOUBLE_EQ(order.frame.height, 2 * 19.2 + 30);
  EXPECT_DOUBLE_EQ(inbox->heightForRowAtIndexPath(2), order.frame.height);
  // The row's inside fits its height: the day ends 6 points above the bottom.
  EXPECT_DOUBLE_EQ(order.children[1].frame.y + order.children[1].frame.height, order.frame.height - 6);

  // A row past the end measures 0 with a line, and never throws out of the screen.
  EXPECT_EQ(inbox->heightForRowAtIndexPath(3), 0);
  EXPECT_TRUE(device().console().contains("Exception : "));
}

TEST_F(KOInboxScreenTest, TappingMarksReadOnceAndAlwaysTellsTheDelegate) {
  storeRaw(KOArray{record("a", KOValue("first"), KOValue(kMidnight), false, {{"screen", "offers"}}),
                   record("b", KOValue("second"), KOValue(kMidnight + 60), true, {{"screen", "cart"}})});
  auto inbox = show();
  auto delegate = std::make_shared<Delegate>();
  inbox->setDelegate(delegate);
  const std::string before = fileBytes();

  // The read one: no rewrite, but the host hears of it.
  ASSERT_TRUE(device().userInterface().tapView(KOInboxViewController::tagForRow(0)));
  EXPECT_EQ(fileBytes(), before);
  ASSERT_EQ(delegate->received.size(), 1u);
  EXPECT_EQ(delegate->received[0]["screen"], KOValue("cart"));

  // The unread one: stored read, oldest first, and the row turns regular.
  ASSERT_TRUE(device().userInterface().tapView(KOInboxViewController::tagForRow(1)));
  EXPECT_EQ(storedCids(), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(KOPropertyListFile::read(path())["messagesInfo"].arrayValue().at(0)["isRead"], KOValue(true));
  EXPECT_EQ(rows(screen()).children[1].children[0].font.name, "AvenirNext-Regular");
  ASSERT_EQ(delegate->received.size(), 2u);
  EXPECT_EQ(delegate->received[1]["screen"], KOValue("offers"));
  EXPECT_FALSE(device().userInterface().tapView(99));
}

TEST_F(KOInboxScreenTest, SwipingDeletesAndKeepsTheStoredOrderOldestFirst) {
  storeRaw(KOArray{record("a", KOValue("1"), KOValue(kMidnight), true), record("b", KOValue("2"), KOValue(), true),
                   record("c", KOValue("3"), KOValue(), false)});
  auto inbox = show();
  ASSERT_TRUE(device().userInterface().swipeToDelete(KOInboxViewController::tagForRow(1)));  // "b"
  EXPECT_EQ(storedCids(), (std::vector<std::string>{"a", "c"}));
  const KOViewDescription list = rows(screen());
  ASSERT_EQ(list.children.size(), 2u);
  EXPECT_EQ(list.children[1].children[0].text, "1");

  // The last row goes too: the list stays, empty, as the screen loaded with messages.
  ASSERT_TRUE(device().userInterface().swipeToDelete(KOInboxViewController::tagForRow(1)));
  ASSERT_TRUE(device().userInterface().swipeToDelete(KOInboxViewController::tagForRow(0)));
  EXPECT_TRUE(storedCids().empty());
  EXPECT_EQ(rows(screen()).kind, KOViewKind::List);
  EXPECT_FALSE(device().userInterface().swipeToDelete(KOInboxViewController::tagForRow(0)));
  inbox->commitEditingStyleDelete(5);
  EXPECT_TRUE(device().console().contains("Exception : "));
}

TEST_F(KOInboxScreenTest, TheHostRestylesTheScreenAndThePictureShowsIt) {
  storeRaw(KOArray{record("a", KOValue("Read <b>me</b> & smile"), KOValue(kMidnight), true),
                   record("b", KOValue(kLongText), KOValue(kMidnight), false)});
  // A title and a table colour set before the screen loads and appears; row styling at any time.
  auto inbox = std::make_shared<KOInboxViewController>();
  inbox->setInboxTitle("Messages");
  inbox->setTableBackgroundColor(KOColor{0.9, 0.9, 1, 1});
  inbox->viewDidLoad();
  inbox->viewWillAppear();
  inbox->customiseInboxWithCellTextColor(KOColor{0.1, 0.2, 0.3, 1}, KOFont{"Georgia", 20}, KOFont{"Georgia-Bold", 20},
                                         KOColor{1, 0, 0, 1}, KOFont{"Courier", 10}, KOColor{1, 1, 0.9, 1});
  const KOViewDescription s = inbox->viewDescription();
  EXPECT_EQ(s.text, "Messages");
  const KOViewDescription& list = s.children.at(0);
  EXPECT_EQ(list.backgroundColor, (KOColor{0.9, 0.9, 1, 1}));
  const KOViewDescription& unread = list.children.at(0);
  EXPECT_EQ(unread.backgroundColor, (KOColor{1, 1, 0.9, 1}));
  EXPECT_EQ(unread.children[0].font.name, "Georgia-Bold");
  EXPECT_EQ(unread.children[0].textColor, (KOColor{0.1, 0.2, 0.3, 1}));
  EXPECT_EQ(unread.children[1].font.name, "Courier");
  EXPECT_EQ(unread.children[1].textColor, (KOColor{1, 0, 0, 1}));
  // 20-point text is 10 points a character: 36 a line, and the long text wraps at words to three.
  EXPECT_DOUBLE_EQ(unread.frame.height, 3 * 24 + 30);
  EXPECT_EQ(list.children.at(1).children[0].font.name, "Georgia");

  const std::string svg = KOSimRenderer::svg(s);
  EXPECT_NE(svg.find(">Messages</text>"), std::string::npos);
  EXPECT_NE(svg.find("Read &lt;b&gt;me&lt;/b&gt; &amp; smile"), std::string::npos);
  EXPECT_NE(svg.find("font-family=\"Georgia, Helvetica, Arial, sans-serif\" font-size=\"20\" font-weight=\"bold\""),
            std::string::npos);
  EXPECT_NE(svg.find(">15-Jan</text>"), std::string::npos);
}
