#include "KOCConvert.h"

#include <cmath>
#include <cstdint>
#include <cstdio>

namespace KOC {

namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string base64(const std::vector<std::uint8_t>& bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::uint32_t n = (std::uint32_t{bytes[i]} << 16) | (i + 1 < bytes.size() ? bytes[i + 1] << 8 : 0) |
                            (i + 2 < bytes.size() ? bytes[i + 2] : 0);
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += i + 1 < bytes.size() ? kAlphabet[(n >> 6) & 63] : '=';
    out += i + 2 < bytes.size() ? kAlphabet[n & 63] : '=';
  }
  return out;
}

std::vector<std::uint8_t> unbase64(std::string_view text) {
  std::vector<std::uint8_t> out;
  std::uint32_t bits = 0;
  int count = 0;
  for (char c : text) {
    const auto at = kAlphabet.find(c);
    if (at == std::string_view::npos) {
      if (c == '=') break;
      throw KOParseError("\"$data\" holds a character that is not base64");
    }
    bits = (bits << 6) | static_cast<std::uint32_t>(at);
    if (++count == 4) {
      out.push_back(static_cast<std::uint8_t>(bits >> 16));
      out.push_back(static_cast<std::uint8_t>(bits >> 8));
      out.push_back(static_cast<std::uint8_t>(bits));
      bits = 0;
      count = 0;
    }
  }
  if (count == 3) {
    out.push_back(static_cast<std::uint8_t>(bits >> 10));
    out.push_back(static_cast<std::uint8_t>(bits >> 2));
  } else if (count == 2) {
    out.push_back(static_cast<std::uint8_t>(bits >> 4));
  }
  return out;
}

// The kinds JSON lacks, as one-key objects; the rest as it is.
KOValue tagged(const KOValue& value) {
  switch (value.kind()) {
    case KOValue::Kind::Date:
      return KODictionary{{"$date", value.dateValue().secondsSince1970}};
    case KOValue::Kind::Data:
      return KODictionary{{"$data", base64(value.dataValue().bytes)}};
    case KOValue::Kind::URL:
      return KODictionary{{"$url", value.urlValue().absoluteString}};
    case KOValue::Kind::Array: {
      KOArray out;
      out.reserve(value.arrayValue().size());
      for (const KOValue& item : value.arrayValue()) out.push_back(tagged(item));
      return out;
    }
    case KOValue::Kind::Dictionary: {
      KODictionary out;
      out.reserve(value.dictionaryValue().size());
      for (const auto& [key, item] : value.dictionaryValue()) out.set(key, tagged(item));
      return out;
    }
    default:
      return value;
  }
}

KOValue untagged(KOValue value) {
  if (value.isArray()) {
    for (KOValue& item : value.arrayValue()) item = untagged(std::move(item));
  } else if (value.isDictionary()) {
    KODictionary& d = value.dictionaryValue();
    if (d.size() == 1) {
      const auto& [key, item] = *d.begin();
      if (key == "$date" && item.isNumber()) return KODate{item.doubleValue()};
      if (key == "$data" && item.isString()) return KOData{unbase64(item.stringValue())};
      if (key == "$url" && item.isString()) return KOURL{item.stringValue()};
    }
    for (auto& entry : d) entry.second = untagged(std::move(entry.second));
  }
  return value;
}

KOColor colorFrom(const KOValue& value) {
  // "#rrggbb" or "#rrggbbaa", as the description writes it.
  KOColor color;
  if (!value.isString()) return color;
  const std::string& hex = value.stringValue();
  unsigned r = 0, g = 0, b = 0, a = 255;
  const int read = std::sscanf(hex.c_str(), "#%2x%2x%2x%2x", &r, &g, &b, &a);
  if (read < 3) return color;
  return KOColor{r / 255.0, g / 255.0, b / 255.0, (read == 4 ? a : 255) / 255.0};
}

KORect rectFrom(const KOValue& value) {
  return KORect{number(value, "x"), number(value, "y"), number(value, "width"), number(value, "height")};
}

KOValue actionsValue(const std::vector<KONotificationAction>& actions) {
  KOArray list;
  for (const KONotificationAction& action : actions) {
    KODictionary a;
    a.set("identifier", action.identifier ? KOValue(*action.identifier) : KOValue::null());
    a.set("title", action.title ? KOValue(*action.title) : KOValue::null());
    a.set("options", static_cast<std::int64_t>(action.options));
    list.push_back(std::move(a));
  }
  return list;
}

std::vector<KONotificationAction> actionsFrom(const KOValue& value) {
  std::vector<KONotificationAction> actions;
  if (!value.isArray()) return actions;
  for (const KOValue& a : value.arrayValue()) {
    if (!a.isDictionary()) continue;
    KONotificationAction action;
    if (a["identifier"].isString()) action.identifier = a["identifier"].stringValue();
    if (a["title"].isString()) action.title = a["title"].stringValue();
    action.options = static_cast<int>(number(a, "options"));
    actions.push_back(std::move(action));
  }
  return actions;
}

KOValue identifierValue(const std::optional<std::string>& identifier) {
  return identifier ? KOValue(*identifier) : KOValue::null();
}

}  // namespace

std::string text(const KOValue& dictionary, std::string_view key) {
  if (!dictionary.isDictionary()) return {};
  const KOValue& v = dictionary[key];
  return v.isString() ? v.stringValue() : std::string();
}

double number(const KOValue& dictionary, std::string_view key, double fallback) {
  if (!dictionary.isDictionary()) return fallback;
  const KOValue& v = dictionary[key];
  return v.isNumber() ? v.doubleValue() : fallback;
}

std::string toPortJSON(const KOValue& value) { return tagged(value).toJSON(); }

KOValue fromPortJSON(std::string_view text) { return untagged(KOValue::fromJSON(text)); }

// ------------------------------------------------------------------------------------ screens

namespace {
constexpr std::pair<KOViewControllerKind, const char*> kScreenKinds[] = {
    {KOViewControllerKind::Plain, "plain"},
    {KOViewControllerKind::Navigation, "navigation"},
    {KOViewControllerKind::TabBar, "tabBar"},
    {KOViewControllerKind::Alert, "alert"},
};
}  // namespace

KOValue screenValue(const KOViewController& screen) {
  KODictionary d;
  d.set("name", screen.name);
  for (const auto& [kind, name] : kScreenKinds) {
    if (kind == screen.kind) d.set("kind", name);
  }
  if (!screen.children.empty()) {
    KOArray children;
    for (const auto& child : screen.children) {
      if (child) children.push_back(screenValue(*child));
    }
    d.set("children", std::move(children));
    d.set("selectedIndex", static_cast<std::int64_t>(screen.selectedIndex));
  }
  if (screen.presented) d.set("presented", screenValue(*screen.presented));
  return d;
}

std::shared_ptr<KOViewController> screenFrom(const KOValue& value) {
  if (!value.isDictionary()) return nullptr;
  auto screen = std::make_shared<KOViewController>();
  screen->name = text(value, "name");
  const std::string kind = text(value, "kind");
  for (const auto& [k, name] : kScreenKinds) {
    if (kind == name) screen->kind = k;
  }
  if (value["children"].isArray()) {
    for (const KOValue& child : value["children"].arrayValue()) {
      if (auto c = screenFrom(child)) screen->children.push_back(std::move(c));
    }
  }
  screen->selectedIndex = static_cast<std::size_t>(std::max(0.0, number(value, "selectedIndex")));
  screen->presented = screenFrom(value["presented"]);
  return screen;
}

// -------------------------------------------------------------------------- view descriptions

KOViewDescription viewFrom(const KOValue& value) {
  KOViewDescription view;
  if (!value.isDictionary()) return view;
  const std::string kind = text(value, "kind");
  for (KOViewKind k : {KOViewKind::Screen, KOViewKind::Container, KOViewKind::Label, KOViewKind::Image,
                       KOViewKind::Button, KOViewKind::List, KOViewKind::Row, KOViewKind::Rating, KOViewKind::TextField,
                       KOViewKind::WebView, KOViewKind::Activity}) {
    if (kind == KOViewDescription::kindName(k)) view.kind = k;
  }
  view.tag = static_cast<std::int64_t>(number(value, "tag"));
  view.frame = rectFrom(value["frame"]);
  view.text = text(value, "text");
  if (value["font"].isDictionary()) view.font = KOFont{text(value["font"], "name"), number(value["font"], "size", 17)};
  view.numberOfLines = static_cast<int>(number(value, "lines", 1));
  const std::string alignment = text(value, "alignment");
  view.alignment = alignment == "center"  ? KOTextAlignment::Center
                   : alignment == "right" ? KOTextAlignment::Right
                                          : KOTextAlignment::Left;
  if (value["textColor"].isString()) view.textColor = colorFrom(value["textColor"]);
  if (value["backgroundColor"].isString()) view.backgroundColor = colorFrom(value["backgroundColor"]);
  view.cornerRadius = number(value, "cornerRadius");
  view.borderWidth = number(value, "borderWidth");
  view.borderColor = colorFrom(value["borderColor"]);
  view.image = text(value, "image");
  if (value["frameDelaysMs"].isArray()) {
    for (const KOValue& ms : value["frameDelaysMs"].arrayValue()) {
      if (ms.isNumber()) view.imageFrameDelaysMs.push_back(static_cast<int>(ms.intValue()));
    }
  }
  view.entryAnimation = text(value, "entryAnimation");
  view.exitAnimation = text(value, "exitAnimation");
  view.deletable = value["deletable"].isBool() && value["deletable"].boolValue();
  view.value = number(value, "value");
  view.maximum = number(value, "maximum");
  if (value["children"].isArray()) {
    for (const KOValue& child : value["children"].arrayValue()) view.children.push_back(viewFrom(child));
  }
  return view;
}

namespace {
constexpr std::pair<KOViewEvent, const char*> kViewEvents[] = {
    {KOViewEvent::Tap, "tap"},
    {KOViewEvent::SwipeDelete, "swipeDelete"},
    {KOViewEvent::SwipeAway, "swipeAway"},
    {KOViewEvent::LoadStarted, "loadStarted"},
    {KOViewEvent::LoadFinished, "loadFinished"},
    {KOViewEvent::LoadFailed, "loadFailed"},
};
constexpr std::pair<KOWidgetKind, const char*> kWidgetKinds[] = {
    {KOWidgetKind::StarRating, "rating"}, {KOWidgetKind::TextField, "textField"}, {KOWidgetKind::TextView, "textView"},
    {KOWidgetKind::Switch, "switch"},     {KOWidgetKind::Slider, "slider"},       {KOWidgetKind::Other, "other"},
};
}  // namespace

const char* viewEventName(KOViewEvent event) {
  for (const auto& [e, name] : kViewEvents) {
    if (e == event) return name;
  }
  return "tap";
}

std::optional<KOViewEvent> viewEventFrom(std::string_view name) {
  for (const auto& [e, n] : kViewEvents) {
    if (name == n) return e;
  }
  return std::nullopt;
}

KOValue inputValue(const KOView& view) {
  KODictionary d;
  for (const auto& [kind, name] : kWidgetKinds) {
    if (kind == view.kind) d.set("kind", name);
  }
  d.set("value", view.numericValue);
  d.set("isOn", view.isOn);
  d.set("text", view.text);
  return d;
}

KOView inputFrom(const KOValue& value) {
  KOView view;
  const std::string kind = text(value, "kind");
  for (const auto& [k, name] : kWidgetKinds) {
    if (kind == name) view.kind = k;
  }
  view.numericValue = number(value, "value");
  view.isOn = value.isDictionary() && value["isOn"].isBool() && value["isOn"].boolValue();
  view.text = text(value, "text");
  return view;
}

// --------------------------------------------------------------------------------- categories

KOValue categoriesValue(const std::vector<std::shared_ptr<KOUserNotificationCategory>>& categories) {
  KOArray list;
  for (const auto& c : categories) {
    if (!c) continue;
    KOArray intents;
    for (const std::string& intent : c->intentIdentifiers) intents.push_back(intent);
    list.push_back(KODictionary{{"identifier", identifierValue(c->identifier)},
                                {"actions", actionsValue(c->actions)},
                                {"intentIdentifiers", std::move(intents)},
                                {"options", static_cast<std::int64_t>(c->options)}});
  }
  return list;
}

KOValue olderCategoriesValue(const std::vector<std::shared_ptr<KOMutableUserNotificationCategory>>& categories) {
  KOArray list;
  for (const auto& c : categories) {
    if (!c) continue;
    list.push_back(
        KODictionary{{"identifier", identifierValue(c->identifier)},
                     {"actions", actionsValue(c->actionsForContext(KOUserNotificationActionContextDefault))},
                     {"minimalActions", actionsValue(c->actionsForContext(KOUserNotificationActionContextMinimal))}});
  }
  return list;
}

std::vector<std::shared_ptr<KOUserNotificationCategory>> categoriesFrom(const KOValue& value) {
  std::vector<std::shared_ptr<KOUserNotificationCategory>> categories;
  if (!value.isArray()) return categories;
  for (const KOValue& c : value.arrayValue()) {
    if (!c.isDictionary()) continue;
    auto category = std::make_shared<KOUserNotificationCategory>();
    if (c["identifier"].isString()) category->identifier = c["identifier"].stringValue();
    category->actions = actionsFrom(c["actions"]);
    if (c["intentIdentifiers"].isArray()) {
      for (const KOValue& intent : c["intentIdentifiers"].arrayValue()) {
        if (intent.isString()) category->intentIdentifiers.push_back(intent.stringValue());
      }
    }
    category->options = static_cast<int>(number(c, "options"));
    categories.push_back(std::move(category));
  }
  return categories;
}

std::vector<std::shared_ptr<KOMutableUserNotificationCategory>> olderCategoriesFrom(const KOValue& value,
                                                                                    bool sdkKind) {
  std::vector<std::shared_ptr<KOMutableUserNotificationCategory>> categories;
  if (!value.isArray()) return categories;
  for (const KOValue& c : value.arrayValue()) {
    if (!c.isDictionary()) continue;
    std::shared_ptr<KOMutableUserNotificationCategory> category;
    if (sdkKind) {
      category = std::make_shared<KONotificationCategory>();
    } else {
      category = std::make_shared<KOMutableUserNotificationCategory>();
    }
    if (c["identifier"].isString()) category->identifier = c["identifier"].stringValue();
    category->setActions(actionsFrom(c["actions"]), KOUserNotificationActionContextDefault);
    if (c["minimalActions"].isArray()) {
      category->setActions(actionsFrom(c["minimalActions"]), KOUserNotificationActionContextMinimal);
    }
    categories.push_back(std::move(category));
  }
  return categories;
}

// ---------------------------------------------------------------------------- regions and fixes

KOValue regionValue(const KOCircularRegion& region) {
  return KODictionary{{"identifier", region.identifier},       {"latitude", region.center.latitude},
                      {"longitude", region.center.longitude},  {"radius", region.radius},
                      {"notifyOnEntry", region.notifyOnEntry}, {"notifyOnExit", region.notifyOnExit}};
}

KOCircularRegion regionFrom(const KOValue& value) {
  KOCircularRegion region;
  region.identifier = text(value, "identifier");
  region.center = KOLocationCoordinate{number(value, "latitude"), number(value, "longitude")};
  region.radius = number(value, "radius");
  if (value.isDictionary() && value["notifyOnEntry"].isBool())
    region.notifyOnEntry = value["notifyOnEntry"].boolValue();
  if (value.isDictionary() && value["notifyOnExit"].isBool()) region.notifyOnExit = value["notifyOnExit"].boolValue();
  return region;
}

KOValue locationValue(const KOLocation& location) {
  return KODictionary{{"latitude", location.coordinate.latitude},
                      {"longitude", location.coordinate.longitude},
                      {"accuracy", location.horizontalAccuracy},
                      {"timestamp", location.timestamp}};
}

KOLocation locationFrom(const KOValue& value) {
  KOLocation location;
  location.coordinate = KOLocationCoordinate{number(value, "latitude"), number(value, "longitude")};
  location.horizontalAccuracy = number(value, "accuracy", 5);
  location.timestamp = number(value, "timestamp");
  return location;
}

}  // namespace KOC
