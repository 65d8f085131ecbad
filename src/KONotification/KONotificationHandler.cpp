#include "KONotificationHandler.h"

#include <cstdlib>

#include "KODataHandler/KOEventsHandler.h"
#include "KODataHandler/KOUserAttributesHandler.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOStringFormat.h"
#include "KOUtilities/KovantisUtils.h"
#include "Network/KOServerInterface.h"
#include "kovantis/KOConstants.h"
#include "kovantis/KONotificationCenter.h"

namespace {

constexpr const char* kCategoriesException = "Kovantis - Exception while setting categories : %@";

KOPreferenceStore& prefs() { return KOPlatform::current().preferences->standard(); }

void setPushPreferenceAttribute(bool on) {
  KOUserAttributesHandler::sharedInstance().setUserAttribute(KOValue(on), KOValue(KO_PUSH_PREFERENCE));
}

// One category as the service takes it: its name and the titles and identifiers of the actions
// that have both; nothing when it has no name or no usable action.
std::optional<KOValue> serialise(const std::optional<std::string>& identifier,
                                 const std::vector<KONotificationAction>& actions) {
  if (!identifier || identifier->empty()) return std::nullopt;
  KOArray titles, identifiers;
  for (const KONotificationAction& action : actions) {
    if (!action.title || !action.identifier) continue;
    titles.push_back(KOValue(*action.title));
    identifiers.push_back(KOValue(*action.identifier));
  }
  if (titles.empty()) return std::nullopt;
  return KOValue(KODictionary{
      {"name", *identifier}, {"actions", std::move(titles)}, {"actionsIdentifier", std::move(identifiers)}});
}

}  // namespace

KONotificationHandler& KONotificationHandler::sharedInstance() {
  static auto* instance = new KONotificationHandler();
  return *instance;
}

KONotificationHandler::KONotificationHandler() {
  // Every session start settles the preference again. Never removed: the handler lives as long as
  // the process.
  KONotificationCenter::defaultCenter().addObserver(KOApplicationDidBecomeActiveNotification,
                                                    [this](const KONotification&) { checkForPushPermission(); });
}

bool KONotificationHandler::usesCurrentNotificationInterface() {
  return std::strtod(KovantisUtils::getDeviceSystemVersion().c_str(), nullptr) >= 10.0;
}

void KONotificationHandler::didFailToRegisterForPush() {
  try {
    setPushPreferenceAttribute(false);
  } catch (const std::exception& e) {
    KOLogger::logError(KO_HERE, this, "Kovantis - Exception while registering for push : %@", e);
  }
}

void KONotificationHandler::didRegisterForUserNotificationSettings(int grantedTypes) {
  if (grantedTypes != 0) {
    pushEnabled();
  } else {
    pushDisabled();
  }
}

void KONotificationHandler::pushEnabled() {
  try {
    {
      std::lock_guard<std::mutex> lock(preferenceMutex_);
      const KOValue stored = prefs().objectForKey(KO_PUSH_PREFERENCE_KEY);
      if (!(stored.isNumber() && stored.boolValue())) trackPushPreferenceChangedEventWithStatus(true);
    }
    setPushPreferenceAttribute(true);
  } catch (const std::exception& e) {
    KOLogger::logError(KO_HERE, this, "Kovantis - Exception while registering for push : %@", e);
  }
}

void KONotificationHandler::pushDisabled() {
  try {
    {
      std::lock_guard<std::mutex> lock(preferenceMutex_);
      const KOValue stored = prefs().objectForKey(KO_PUSH_PREFERENCE_KEY);
      if (stored.isNumber() && stored.boolValue()) trackPushPreferenceChangedEventWithStatus(false);
    }
    setPushPreferenceAttribute(false);
  } catch (const std::exception& e) {
    KOLogger::logError(KO_HERE, this, "Kovantis - Exception while registering for push : %@", e);
  }
}

void KONotificationHandler::trackPushPreferenceChangedEventWithStatus(bool status) {
  prefs().setObject(KOValue(status), KO_PUSH_PREFERENCE_KEY);
  prefs().synchronize();
  KOEventsHandler::sharedInstance().trackEvent(KOValue(KO_PUSH_PREF_CHANGED_EVENT),
                                               KOValue(KODictionary{{"push_preference_status", status}}));
}

void KONotificationHandler::checkForPushPermission() {
  try {
    if (!usesCurrentNotificationInterface()) return;  // the settings callback covers older systems
    KOPlatform::current().notificationCenter->getNotificationSettingsWithCompletionHandler([this](int alertSetting) {
      if (alertSetting == KONotificationSettingEnabled) {
        pushEnabled();
      } else {
        pushDisabled();
      }
    });
  } catch (const std::exception& e) {
    KOLogger::logError(KO_HERE, this, "Kovantis - Exception while registering for push : %@", e);
  }
}

void KONotificationHandler::setNotificationCategories(
    const std::vector<std::shared_ptr<KOUserNotificationCategory>>& categories) {
  try {
    KOArray serialised;
    for (const auto& category : categories) {
      if (!category) continue;
      if (auto entry = serialise(category->identifier, category->actions)) serialised.push_back(std::move(*entry));
    }
    handOver(std::move(serialised));
  } catch (const std::exception& e) {
    KOLogger::logError(KO_HERE, this, kCategoriesException, e);
  }
}

void KONotificationHandler::setNotificationCategoriesForEarlierVersions(
    const std::vector<std::shared_ptr<KONotificationCategory>>& categories) {
  try {
    KOArray serialised;
    for (const auto& category : categories) {
      if (!category) continue;
      static const std::vector<KONotificationAction> kNone;
      const auto& actions = category->minimalContextActions ? *category->minimalContextActions : kNone;
      if (auto entry = serialise(category->identifier, actions)) serialised.push_back(std::move(*entry));
    }
    handOver(std::move(serialised));
  } catch (const std::exception& e) {
    KOLogger::logError(KO_HERE, this, kCategoriesException, e);
  }
}

void KONotificationHandler::handOver(KOArray serialised) {
  // Kept even when empty: what was last handed over is what the service was told.
  prefs().setObject(KOValue(serialised), KOV_NOTIFICATION_CATEGORIES);
  prefs().synchronize();
  KOServerInterface::sharedInstance().setNotificationCategoriesWithCategories(serialised);
}
