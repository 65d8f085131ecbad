#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "KOInAppV2/Models/KOInAppV2CampaignPropertiesObject.h"
#include "KOInAppV2/Models/KOInAppV2Object.h"
#include "KOTestDevice.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOLogger.h"

namespace {

KOValue json(const std::string& text) { return KOJSONSerialization::parse(text); }

// A campaign as the service sends it, with one widget of each block.
const char* kCampaign = R"({
  "cid": "c-1", "interval": 3600, "ttl": 1900000000.5, "max_times": 3, "status": "active",
  "persistent": true, "priority": 2, "context": ["home", "cart"], "last_updated": 1700000000123,
  "type": "smart", "show_only_screen": "HomeViewController",
  "cancellable": 1, "align": "full", "properties": {"backdrop": "#000000"},
  "animate": {"entry": "fade_in"}, "content": "{\"k\":1}", "auto_dismiss": "12",
  "widgets": [{
    "id": 7, "type": "button", "content": "Buy", "primary": true,
    "properties": {"text": "Buy", "border": {"radius": 4, "color": "#FF0000", "weight": 2},
                   "background": {"color": "#00FF00", "image": "https://x/bg.png"},
                   "color": "#0000FF", "size": 15, "fontName": "Avenir", "opacity": 0.5,
                   "scaleType": "Center", "gravity": "bottom", "maxRating": 0, "halfStarRating": "yes"},
    "layout": {"width": 100, "margin": {"left": 8}, "alignment": "LEFT"},
    "action": [{"tag": "m_nav", "uri": "app://home", "extras": {"a": 1}, "valueOf": 3},
               {"tag": "m_nope"}]
  }]
})";

class KOInAppV2ModelTest : public KOTestDevice {
 protected:
  void SetUp() override {
    KOTestDevice::SetUp();
    KOLogger::debug(1);
  }
  std::size_t exceptionLines(const std::string& className) {
    return device().console().count("Kovantis - exception in initialize " + className + " is ");
  }
};

TEST_F(KOInAppV2ModelTest, ACampaignParsesIntoItsObjects) {
  const KOValue campaign = json(kCampaign);
  const KOInAppV2CampaignPropertiesObject props(campaign);
  EXPECT_DOUBLE_EQ(props.ttl(), 1900000000.5);
  EXPECT_TRUE(props.persistence());
  EXPECT_EQ(props.inAppType(), KOInAppV2TypeSmart);

  const KOInAppV2Object inApp(campaign, props);
  EXPECT_EQ(inApp.campaignPropertiesObject().campaignId(), "c-1");
  EXPECT_TRUE(inApp.cancellable());
  EXPECT_EQ(inApp.alignmentType(), KOInAppV2AlignmentFull);
  EXPECT_EQ(inApp.entryAnimation(), KOInAppV2AnimationFadeIn);
  EXPECT_EQ(inApp.autoDismissInterval(), 12);  // numbers in text count as numbers
  ASSERT_TRUE(inApp.widgetsArray().has_value());
  ASSERT_EQ(inApp.widgetsArray()->size(), 1u);

  const KOInAppV2WidgetObject& button = *inApp.widgetsArray()->front();
  EXPECT_EQ(button.type(), KOInAppV2WidgetButton);
  EXPECT_TRUE(button.primary());
  EXPECT_FALSE(button.widgetsArray().has_value());  // absent list: none, not an empty one
  const KOInAppV2PropertiesObject& style = button.propertiesObject();
  EXPECT_FLOAT_EQ(style.cornerRadius(), 4);
  EXPECT_EQ(style.borderColor(), (KOColor{1, 0, 0, 1}));
  EXPECT_EQ(style.backgroundColor(), (KOColor{0, 1, 0, 1}));
  EXPECT_EQ(style.textColor(), (KOColor{0, 0, 1, 1}));
  EXPECT_EQ(style.fontSize(), 19);  // 15 authored for 560 points, on a 736-point in-app screen
  EXPECT_EQ(style.contentMode(), KOInAppV2ContentModeAspectFill);  // unknown scale types fill
  EXPECT_EQ(style.gravity(), KOInAppV2GravityBottom);
  EXPECT_FLOAT_EQ(style.maxRating(), 0);  // given as 0, not the default 5
  EXPECT_TRUE(style.halfStarRatingEnabled());
  const KOInAppV2LayoutObject& layout = button.layoutObject();
  EXPECT_DOUBLE_EQ(layout.marginLeft(), 8);
  EXPECT_EQ(layout.alignment(), KOInAppV2LayoutAlignmentCenter);  // "LEFT" is not "left"
  ASSERT_EQ(button.actionsArray().size(), 2u);
  EXPECT_EQ(button.actionsArray()[0].actionType(), KOInAppV2ActionNavigate);
  EXPECT_EQ(button.actionsArray()[1].actionType(), KOInAppV2ActionNone);
  EXPECT_EQ(device().console().count("Kovantis - exception"), 0u);
}

// A JSON null reads as an absent key: the default, and no exception line.
TEST_F(KOInAppV2ModelTest, JSONNullIsAbsentEverywhere) {
  const KOInAppV2Object inApp(json(R"({"cid": null, "interval": null, "ttl": null, "type": null, "align": null,
    "animate": {"entry": null}, "auto_dismiss": null, "widgets": null, "properties": null,
    "show_only_screen": null, "context": null})"));
  EXPECT_TRUE(inApp.campaignPropertiesObject().context().isNil());
  EXPECT_FALSE(inApp.widgetsArray().has_value());
  const KOInAppV2WidgetObject widget(json(R"({"properties": {"size": null, "maxRating": null, "color": null,
    "background": {"color": null}}, "layout": {"margin": null}, "type": null, "action": null})"));
  EXPECT_FLOAT_EQ(widget.propertiesObject().maxRating(), 5);
  EXPECT_FALSE(widget.propertiesObject().backgroundColor().has_value());
  EXPECT_EQ(device().console().count("Kovantis - exception"), 0u);
}

// A value of the wrong kind stops the object at that field: what came before is kept, what comes
// after keeps its default, one line names the class, and nothing else is lost.
TEST_F(KOInAppV2ModelTest, AWrongKindStopsTheObjectAtThatField) {
  const KOInAppV2CampaignPropertiesObject props(
      json(R"({"cid": "c-2", "interval": 60, "ttl": {"at": 5}, "max_times": 9, "status": "active", "type": "smart"})"));
  EXPECT_EQ(props.campaignId(), "c-2");
  EXPECT_EQ(props.interval(), 60);
  EXPECT_EQ(props.ttl(), 0);
  EXPECT_EQ(props.maxTimes(), 0);
  EXPECT_EQ(props.status(), "");
  EXPECT_EQ(props.inAppType(), KOInAppV2TypeGeneral);
  EXPECT_EQ(exceptionLines("KOInAppV2CampaignPropertiesObject"), 1u);

  // A key path through a string stops the in-app object; its properties object is unharmed.
  const KOInAppV2Object inApp(json(
      R"({"cid": "c-3", "type": "general", "align": "top", "animate": "fade_in", "content": "x", "auto_dismiss": 5})"));
  EXPECT_EQ(inApp.campaignPropertiesObject().campaignId(), "c-3");
  EXPECT_EQ(inApp.alignmentType(), KOInAppV2AlignmentTop);
  EXPECT_EQ(inApp.entryAnimation(), KOInAppV2AnimationNone);
  EXPECT_EQ(inApp.selfHandledcontent(), "");
  EXPECT_EQ(inApp.autoDismissInterval(), 0);
  EXPECT_EQ(exceptionLines("KOInAppV2Object"), 1u);

  // A bad block costs that block only: the widget reads on past it, and its siblings are whole.
  const KOInAppV2Object widgets(json(R"({"widgets": [
      {"layout": "wide", "properties": [1], "type": "text", "content": "Hi", "action": [{"tag": 5}, {"tag": "m_copy"}]},
      "not a widget",
      {"type": "closebutton", "action": {"tag": "m_dismiss"}, "primary": true},
      {"type": "Closebutton"}]})"));
  ASSERT_EQ(widgets.widgetsArray()->size(), 4u);
  const auto& text = *widgets.widgetsArray()->at(0);
  EXPECT_EQ(text.type(), KOInAppV2WidgetText);
  EXPECT_EQ(text.content(), "Hi");
  EXPECT_EQ(text.propertiesObject().fontSize(), 19);
  ASSERT_EQ(text.actionsArray().size(), 2u);
  EXPECT_EQ(text.actionsArray()[0].actionType(), KOInAppV2ActionNone);
  EXPECT_EQ(text.actionsArray()[1].actionType(), KOInAppV2ActionCopy);
  EXPECT_EQ(widgets.widgetsArray()->at(1)->type(), KOInAppV2WidgetUnknown);
  const auto& close = *widgets.widgetsArray()->at(2);
  EXPECT_EQ(close.type(), KOInAppV2WidgetCloseButton);
  EXPECT_TRUE(close.actionsArray().empty());
  EXPECT_FALSE(close.primary());  // after the failing "action"
  EXPECT_EQ(widgets.widgetsArray()->at(3)->type(), KOInAppV2WidgetUnknown);
  EXPECT_EQ(exceptionLines("KOInAppV2LayoutObject"), 1u);
  EXPECT_EQ(exceptionLines("KOInAppV2PropertiesObject"), 1u);
  EXPECT_EQ(exceptionLines("KOInAppV2ActionObject"), 1u);
  EXPECT_EQ(exceptionLines("KOInAppV2WidgetObject"), 2u);  // the string element and the bad "action"
}

TEST_F(KOInAppV2ModelTest, NestedWidgetListsKeepTheirShape) {
  const KOInAppV2WidgetObject container(json(R"({"type": "container",
      "widgets": [[{"type": "text"}, {"type": "image"}], {"type": "button"}, [[{"id": 3}], []]],
      "buttonarray": [{"type": "button", "id": 1}]})"));
  const KOInAppV2WidgetList& rows = container.widgetsArray().value();
  ASSERT_EQ(rows.size(), 3u);
  ASSERT_TRUE(rows[0].isList() && rows[0].list.size() == 2u);
  EXPECT_EQ(rows[0].list[1].widget->type(), KOInAppV2WidgetImage);
  ASSERT_FALSE(rows[1].isList());
  EXPECT_EQ(rows[1].widget->type(), KOInAppV2WidgetButton);
  ASSERT_TRUE(rows[2].isList());
  EXPECT_EQ(rows[2].list[0].list[0].widget->widgetId(), 3);
  EXPECT_TRUE(rows[2].list[1].isList() && rows[2].list[1].list.empty());
  EXPECT_EQ(container.buttonsArray().value().at(0).widget->widgetId(), 1);
}

TEST_F(KOInAppV2ModelTest, NumbersInTextAndOutOfRangeValuesConvertWithoutHarm) {
  const KOInAppV2CampaignPropertiesObject props(json(
      R"({"cid": "c", "interval": " -90s", "ttl": "1e999", "max_times": "99999999999999999999", "persistent": "no",
          "priority": 1.9e300})"));
  EXPECT_EQ(props.interval(), -90);
  EXPECT_EQ(props.ttl(), std::numeric_limits<double>::max());
  EXPECT_EQ(props.maxTimes(), std::numeric_limits<std::int64_t>::max());
  EXPECT_FALSE(props.persistence());
  EXPECT_EQ(props.priority(), std::numeric_limits<std::int64_t>::max());
  const KOInAppV2PropertiesObject style(json(R"({"size": 1e300, "opacity": -1e300, "maxRating": "nan"})"));
  EXPECT_EQ(style.fontSize(), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(style.opacity(), -std::numeric_limits<float>::max());
  EXPECT_FLOAT_EQ(style.maxRating(), 0);
  EXPECT_EQ(device().console().count("Kovantis - exception"), 0u);
}

TEST_F(KOInAppV2ModelTest, AMegabyteCampaignParsesAndStillStopsAtItsLastField) {
  std::string widgets;
  for (int i = 0; i < 4000; ++i) {
    widgets += std::string(i ? "," : "") + R"({"type":"text","id":)" + std::to_string(i) + R"(,"content":")" +
               std::string(200, 'x') + R"(","properties":{"size":12}})";
  }
  const std::string text = R"({"cid":"big","type":"general","widgets":[)" + widgets + R"(],"auto_dismiss":[1]})";
  ASSERT_GT(text.size(), 1000000u);
  const KOInAppV2Object inApp(json(text));
  ASSERT_EQ(inApp.widgetsArray()->size(), 4000u);
  EXPECT_EQ(inApp.widgetsArray()->back()->widgetId(), 3999);
  EXPECT_EQ(inApp.autoDismissInterval(), 0);
  EXPECT_EQ(exceptionLines("KOInAppV2Object"), 1u);
}

class KOInAppV2ModelSmallScreenTest : public KOTestDevice {
 protected:
  KOSimDeviceConfig config() override {
    KOSimDeviceConfig c;
    c.profile.screenSize = {320, 568};
    return c;
  }
};

TEST_F(KOInAppV2ModelSmallScreenTest, FontSizesScaleWithTheScreen) {
  EXPECT_EQ(KOInAppV2PropertiesObject(json(R"({"size": 10})")).fontSize(), 10);  // 10.14 truncated
  EXPECT_EQ(KOInAppV2PropertiesObject(json(R"({})")).fontSize(), 15);
  EXPECT_EQ(KOInAppV2PropertiesObject(json(R"({"size": "40"})")).fontSize(), 40);
}

}  // namespace
