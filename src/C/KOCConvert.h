// The JSON forms in which the port's compound values cross the C boundary, both ways: the adapter
// (C tables to the C++ port) writes what the simulated device's tables read, and the other way
// round. Compiled into libkovantis_c and libkovantis_sim_c alike.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kovantis/KOPlatform.h"
#include "kovantis/KOValue.h"
#include "kovantis/KOViewDescription.h"

namespace KOC {

// Values as ports carry them: JSON, where dates, data and URLs are one-key objects
// {"$date": seconds}, {"$data": "base64"}, {"$url": "text"}.
std::string toPortJSON(const KOValue& value);
/// Throws KOParseError on text that is not JSON.
KOValue fromPortJSON(std::string_view text);

// Screens: {"name", "kind", "children", "selectedIndex", "presented"}.
KOValue screenValue(const KOViewController& screen);
/// Nothing for a value that is no dictionary.
std::shared_ptr<KOViewController> screenFrom(const KOValue& value);

// View descriptions, as KOViewDescription::toValue writes them.
KOViewDescription viewFrom(const KOValue& value);
const char* viewEventName(KOViewEvent event);
std::optional<KOViewEvent> viewEventFrom(std::string_view name);
// What the user made of an input view: {"kind", "value", "isOn", "text"}.
KOValue inputValue(const KOView& view);
KOView inputFrom(const KOValue& value);

// Notification categories: [{"identifier", "actions": [{"identifier", "title", "options"}],
// "intentIdentifiers", "options"}]; the older kind has "minimalActions" beside "actions".
KOValue categoriesValue(const std::vector<std::shared_ptr<KOUserNotificationCategory>>& categories);
KOValue olderCategoriesValue(const std::vector<std::shared_ptr<KOMutableUserNotificationCategory>>& categories);
std::vector<std::shared_ptr<KOUserNotificationCategory>> categoriesFrom(const KOValue& value);
/// As the SDK's own kind (KONotificationCategory) or the platform's.
std::vector<std::shared_ptr<KOMutableUserNotificationCategory>> olderCategoriesFrom(const KOValue& value, bool sdkKind);

// Regions and fixes: {"identifier", "latitude", "longitude", "radius", "notifyOnEntry",
// "notifyOnExit"} and {"latitude", "longitude", "accuracy", "timestamp"}.
KOValue regionValue(const KOCircularRegion& region);
KOCircularRegion regionFrom(const KOValue& value);
KOValue locationValue(const KOLocation& location);
KOLocation locationFrom(const KOValue& value);

/// A string member, or "" when missing or not text.
std::string text(const KOValue& dictionary, std::string_view key);
/// A number member, or the fallback when missing or not a number.
double number(const KOValue& dictionary, std::string_view key, double fallback = 0);

}  // namespace KOC
