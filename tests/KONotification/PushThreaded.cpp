// The permission answers arrive on background threads and track events and attributes from there
// while the main thread starts sessions and tracks its own events.
#include <gtest/gtest.h>

#include "KOSDKTestDevice.h"
#include "KOUtilities/KOInternalConstants.h"
#include "kovantis/KOConstants.h"

class PushThreaded : public KOSDKTestDevice {};

TEST_F(PushThreaded, PermissionAnswersFromBackgroundThreadsDuringSessionStarts) {
  startClean();
  sdk().registerForRemoteNotificationWithCategories(std::nullopt);
  constexpr int kSessions = 40;
  for (int i = 0; i < kSessions; ++i) {
    // The user flips the setting every few sessions; each start reads it on a background thread.
    device().notificationCenter().setAlertSetting(i / 3 % 2 == 0 ? KONotificationSettingEnabled
                                                                 : KONotificationSettingDisabled);
    device().resignActive();
    device().becomeActive();
    sdk().trackEvent(KOValue("MAIN"), KOValue(KODictionary{{"i", i}}));
    device().pumpMain();
  }
  ASSERT_TRUE(settle());
  ASSERT_TRUE(deliverAll());
  // However the answers interleave, an event marks each change of the stored status: enables and
  // disables alternate from "off", so there is one more enable than disable exactly when the
  // stored status ends on. (Batches travel concurrently, so only counts are compared.)
  int enables = 0, disables = 0;
  for (const KOValue& e : storedEvents(KO_PUSH_PREF_CHANGED_EVENT)) {
    (e["EVENT_ATTRS"]["push_preference_status"].boolValue() ? enables : disables)++;
  }
  const bool on = device().preferences().standard().objectForKey(KO_PUSH_PREFERENCE_KEY) == KOValue(true);
  EXPECT_GT(enables, 1);
  EXPECT_EQ(enables - disables, on ? 1 : 0);
  EXPECT_EQ(storedEventNames("MAIN").size(), static_cast<std::size_t>(kSessions));
  EXPECT_TRUE(emulator().duplicates().empty());
}
