// One widget of a campaign: its style and layout blocks, its content, its actions, and the widgets
// it contains. A container's "widgets" keep the nesting of the JSON, so that a list inside the list
// is a row of widgets.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KOInAppV2/Models/KOInAppV2ActionObject.h"
#include "KOInAppV2/Models/KOInAppV2LayoutObject.h"
#include "KOInAppV2/Models/KOInAppV2PropertiesObject.h"
#include "KOInAppV2/Models/KOModelDict.h"

/// A widget's "type".
enum KOInAppV2WidgetType : int {
  KOInAppV2WidgetContainer = 0,
  KOInAppV2WidgetImage = 1,
  KOInAppV2WidgetButton = 2,
  KOInAppV2WidgetText = 3,
  KOInAppV2WidgetView = 4,
  KOInAppV2WidgetRating = 5,
  KOInAppV2WidgetCloseButton = 6,
  KOInAppV2WidgetButtonArray = 7,
  KOInAppV2WidgetUnknown = 8,
};

class KOInAppV2WidgetObject;

/// One element of a nested widget list: a widget, or (when `widget` is empty) a list of its own.
struct KOInAppV2WidgetEntry {
  std::shared_ptr<const KOInAppV2WidgetObject> widget;
  std::vector<KOInAppV2WidgetEntry> list;

  bool isList() const { return widget == nullptr; }
};
using KOInAppV2WidgetList = std::vector<KOInAppV2WidgetEntry>;

class KOInAppV2WidgetObject : public KOModelDict {
 public:
  KOInAppV2WidgetObject() = default;
  explicit KOInAppV2WidgetObject(const KOValue& widget) { initWithDictionary(widget); }

  void initWithDictionary(const KOValue& widget) override;

  /// One action object per element of the list, in order; absent gives none.
  void initActionArrayWithActions(const KOValue& actions);
  static int widgetTypeForString(std::string_view type);
  /// Keeps the nesting: a list element becomes a nested list, anything else a widget. An absent
  /// list gives no list at all.
  static std::optional<KOInAppV2WidgetList> getWidgetsArrayWithDictArray(const KOValue& list);

  const KOInAppV2PropertiesObject& propertiesObject() const { return propertiesObject_; }
  void setPropertiesObject(KOInAppV2PropertiesObject value) { propertiesObject_ = std::move(value); }
  const KOInAppV2LayoutObject& layoutObject() const { return layoutObject_; }
  void setLayoutObject(KOInAppV2LayoutObject value) { layoutObject_ = std::move(value); }
  std::int64_t widgetId() const { return widgetId_; }
  void setWidgetId(std::int64_t value) { widgetId_ = value; }
  int type() const { return type_; }
  void setType(int value) { type_ = value; }
  /// The text of a text or button widget, the URL of an image widget.
  const std::string& content() const { return content_; }
  void setContent(std::string value) { content_ = std::move(value); }
  const std::optional<KOInAppV2WidgetList>& widgetsArray() const { return widgetsArray_; }
  void setWidgetsArray(std::optional<KOInAppV2WidgetList> value) { widgetsArray_ = std::move(value); }
  const std::vector<KOInAppV2ActionObject>& actionsArray() const { return actionsArray_; }
  void setActionsArray(std::vector<KOInAppV2ActionObject> value) { actionsArray_ = std::move(value); }
  /// The widget whose action counts as the campaign's primary action.
  bool primary() const { return primary_; }
  void setPrimary(bool value) { primary_ = value; }
  const std::optional<KOInAppV2WidgetList>& buttonsArray() const { return buttonsArray_; }
  void setButtonsArray(std::optional<KOInAppV2WidgetList> value) { buttonsArray_ = std::move(value); }

 private:
  KOInAppV2PropertiesObject propertiesObject_;
  KOInAppV2LayoutObject layoutObject_;
  std::int64_t widgetId_ = 0;
  int type_ = KOInAppV2WidgetUnknown;
  std::string content_;
  std::optional<KOInAppV2WidgetList> widgetsArray_;
  std::vector<KOInAppV2ActionObject> actionsArray_;
  bool primary_ = false;
  std::optional<KOInAppV2WidgetList> buttonsArray_;
};
