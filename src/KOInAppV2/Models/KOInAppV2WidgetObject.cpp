#include "KOInAppV2/Models/KOInAppV2WidgetObject.h"

#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOValueHelpers.h"
#include "kovantis/KOConstants.h"

void KOInAppV2WidgetObject::initWithDictionary(const KOValue& widget) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception in initialize KOInAppV2WidgetObject is %@", [&] {
    const KODictionary* dict = dictionaryToRead(widget);
    if (!dict) return;
    // Each block parses under its own guard: a bad block leaves that block's defaults only.
    propertiesObject_.initWithDictionary(validObjectForKey(*dict, KO_PROPERTIES));
    layoutObject_.initWithDictionary(validObjectForKey(*dict, "layout"));
    widgetId_ = integerValue(validObjectForKey(*dict, "id"));
    type_ = widgetTypeForString(stringValue(validObjectForKey(*dict, "type")));
    content_ = stringValue(validObjectForKey(*dict, KO_CONTENT));
    widgetsArray_ = getWidgetsArrayWithDictArray(validObjectForKey(*dict, KO_WIDGETS));
    initActionArrayWithActions(validObjectForKey(*dict, "action"));
    primary_ = boolValue(validObjectForKey(*dict, "primary"));
    buttonsArray_ = getWidgetsArrayWithDictArray(validObjectForKey(*dict, "buttonarray"));
  });
}

void KOInAppV2WidgetObject::initActionArrayWithActions(const KOValue& actions) {
  const KOArray* list = arrayValue(actions);
  if (!list) return;
  std::vector<KOInAppV2ActionObject> built;
  built.reserve(list->size());
  for (const KOValue& action : *list) built.emplace_back(action);
  actionsArray_ = std::move(built);
}

int KOInAppV2WidgetObject::widgetTypeForString(std::string_view type) {
  if (type == "container") return KOInAppV2WidgetContainer;
  if (type == "image") return KOInAppV2WidgetImage;
  if (type == "button") return KOInAppV2WidgetButton;
  if (type == "text") return KOInAppV2WidgetText;
  if (type == "view") return KOInAppV2WidgetView;
  if (type == "rating") return KOInAppV2WidgetRating;
  if (type == "closebutton") return KOInAppV2WidgetCloseButton;
  if (type == "buttonarray") return KOInAppV2WidgetButtonArray;
  return KOInAppV2WidgetUnknown;
}

std::optional<KOInAppV2WidgetList> KOInAppV2WidgetObject::getWidgetsArrayWithDictArray(const KOValue& list) {
  const KOArray* elements = arrayValue(list);
  if (!elements) return std::nullopt;
  KOInAppV2WidgetList out;
  out.reserve(elements->size());
  for (const KOValue& element : *elements) {
    KOInAppV2WidgetEntry entry;
    if (element.isArray()) {
      entry.list = std::move(*getWidgetsArrayWithDictArray(element));
    } else {
      entry.widget = std::make_shared<const KOInAppV2WidgetObject>(element);
    }
    out.push_back(std::move(entry));
  }
  return out;
}
