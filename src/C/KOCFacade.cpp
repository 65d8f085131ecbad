// The facade's start, events, attributes, sync and push, for C. Each function checks what C can
// get wrong (a missing pointer, text that is not JSON, JSON of another shape) before the SDK sees
// it, in the SDK's own words where it has words for that fault, then forwards.
#include "KOCFacade.h"

#include "KOCBoundary.h"
#include "KOCConvert.h"
#include "kovantis/KOPayloadBuilder.h"
#include "kovantis/Kovantis.h"

struct kov_payload {
  KOPayloadBuilder builder;
};

namespace KOC {

namespace {

constexpr const char* kMissingAppId = "Kovantis - Please check the initialize call. You have missed the APP ID";
constexpr const char* kEventNameKind =
    "Kovantis - While tracking events, the name of the event has to be a NSString type";
constexpr const char* kPayloadKind =
    "Kovantis - While tracking events, the payload with the event has to be a NSDictionary of NSMutable Dictionary "
    "type";
constexpr const char* kAttributeKind = "Kovantis - The attribue value should be either of string, integer or bool";

// The attributes of an event: a JSON object, or nothing.
KOValue attributes(const char* json) {
  if (!json) return KOValue();
  KOValue parsed = parse(json, "attributes_json");
  if (!parsed.isDictionary()) fail(KOV_INVALID_JSON, kPayloadKind);
  return parsed;
}

// A user attribute's value: text or a number, as the SDK takes them.
KOValue attributeValue(const char* json, const char* key) {
  if (!json) fail(KOV_INVALID_ARGUMENT, std::string("Kovantis - Tried setting nil user attribute for key ") + key);
  KOValue value = parse(json, "value_json");
  if (value.isNull())
    fail(KOV_INVALID_ARGUMENT, std::string("Kovantis - Tried setting nil user attribute for key ") + key);
  if (!value.isString() && !value.isNumber()) fail(KOV_INVALID_JSON, kAttributeKind);
  return value;
}

KOValue textValue(const char* text, const char* key) {
  if (!text) fail(KOV_INVALID_ARGUMENT, std::string("Kovantis - Tried setting nil user attribute for key ") + key);
  return KOValue(std::string(text));
}

KODictionary launchOptions(const char* json) {
  if (!json) return {};
  KOValue options = fromPortJSON(need(json, "launch_options_json"));
  if (!options.isDictionary()) fail(KOV_INVALID_JSON, "launch_options_json must be a JSON object");
  return std::move(options.dictionaryValue());
}

void start(const char* appId, const char* launchOptionsJSON, int openDeeplinks, bool development) {
  requireInstalled();
  if (!appId || !*appId) fail(KOV_INVALID_ARGUMENT, kMissingAppId);
  const KODictionary options = launchOptions(launchOptionsJSON);
  if (development) {
    sdk().initializeDevWithApiKey(KOValue(appId), nullptr, options, openDeeplinks != 0);
  } else {
    sdk().initializeProdWithApiKey(KOValue(appId), nullptr, options, openDeeplinks != 0);
  }
}

// A category set as the SDK takes it: absent for NULL, the platform's kind or the SDK's older one.
KONotificationCategorySet categorySet(const char* json, const char* name, bool older) {
  if (!json) return std::nullopt;
  const KOValue list = parse(json, name);
  if (!list.isArray()) fail(KOV_INVALID_JSON, std::string(name) + " must be a JSON array");
  std::vector<std::shared_ptr<KONotificationCategoryBase>> set;
  if (older) {
    for (auto& c : olderCategoriesFrom(list, true)) set.push_back(std::move(c));
  } else {
    for (auto& c : categoriesFrom(list)) set.push_back(std::move(c));
  }
  return set;
}

KOValue payload(const char* json) {
  KOValue parsed = parse(json, "payload_json");
  if (!parsed.isDictionary()) fail(KOV_INVALID_JSON, "payload_json must be a JSON object");
  return parsed;
}

// The host's notification-centre delegate as the SDK sees it: one that answers responses, by
// handing them to the SDK.
class AnsweringDelegate : public KOUserNotificationCenterDelegate {
 public:
  bool handlesNotificationResponses() const override { return true; }
  void userNotificationCenter(KOUserNotificationCenter& center, const KONotificationResponse& response,
                              std::function<void()> completion) override {
    Kovantis::sharedInstance().userNotificationCenter(&center, response);
    if (completion) completion();
  }
};

}  // namespace

Kovantis& sdk() { return Kovantis::sharedInstance(); }

}  // namespace KOC

using KOC::fail;
using KOC::sdk;

extern "C" {

// --------------------------------------------------------------------------------------- start

kov_status kov_initialize_dev(const char* app_id, const char* launch_options_json, int open_deeplinks_automatically) {
  return KOC::call([&] { KOC::start(app_id, launch_options_json, open_deeplinks_automatically, true); });
}

kov_status kov_initialize_prod(const char* app_id, const char* launch_options_json, int open_deeplinks_automatically) {
  return KOC::call([&] { KOC::start(app_id, launch_options_json, open_deeplinks_automatically, false); });
}

kov_status kov_app_status(int status) {
  return KOC::call([&] {
    KOC::requireInstalled();
    if (status != KOV_APP_STATUS_INSTALL && status != KOV_APP_STATUS_UPDATE) {
      fail(KOV_INVALID_ARGUMENT, "status must be KOV_APP_STATUS_INSTALL or KOV_APP_STATUS_UPDATE");
    }
    sdk().appStatus(status);
  });
}

kov_status kov_debug(int level) {
  return KOC::call([&] {
    if (level < 0 || level > 2) fail(KOV_INVALID_ARGUMENT, "level must be 0, 1 or 2");
    Kovantis::debug(level);
  });
}

kov_status kov_set_app_group_id(const char* group_id) {
  return KOC::call([&] {
    KOC::requireInstalled();
    Kovantis::setAppGroupID(KOValue(std::string(KOC::need(group_id, "group_id"))));
  });
}

kov_status kov_set_data_redirection(int redirect) {
  return KOC::call([&] {
    KOC::requireInstalled();
    Kovantis::setDataRedirection(redirect != 0);
  });
}

kov_status kov_set_switch(kov_switch which, int on) {
  return KOC::call([&] {
    switch (which) {
      case KOV_SWITCH_DISABLE_INBOX:
        return sdk().setDisableInbox(on != 0);
      case KOV_SWITCH_DISABLE_IN_APPS:
        return sdk().setDisableInApps(on != 0);
      case KOV_SWITCH_DISABLE_BADGE_RESET:
        return sdk().setDisableBadgeReset(on != 0);
    }
    fail(KOV_INVALID_ARGUMENT, "no such switch");
  });
}

kov_status kov_get_switch(kov_switch which, int* on) {
  return KOC::call([&] {
    int& answer = *KOC::needPointer(on, "on");
    switch (which) {
      case KOV_SWITCH_DISABLE_INBOX:
        answer = sdk().disableInbox();
        return;
      case KOV_SWITCH_DISABLE_IN_APPS:
        answer = sdk().disableInApps();
        return;
      case KOV_SWITCH_DISABLE_BADGE_RESET:
        answer = sdk().disableBadgeReset();
        return;
    }
    fail(KOV_INVALID_ARGUMENT, "no such switch");
  });
}

// -------------------------------------------------------------------------------------- events

kov_status kov_track_event(const char* name, const char* attributes_json) {
  return KOC::call([&] {
    KOC::requireInstalled();
    if (!name) fail(KOV_INVALID_ARGUMENT, KOC::kEventNameKind);
    sdk().trackEvent(KOValue(std::string(name)), KOC::attributes(attributes_json));
  });
}

kov_status kov_payload_create(const char* attributes_json, kov_payload** payload) {
  return KOC::call([&] {
    kov_payload*& out = *KOC::needPointer(payload, "payload");
    KOValue attributes = KOC::attributes(attributes_json);
    auto dictionary =
        std::make_shared<KODictionary>(attributes.isNil() ? KODictionary() : std::move(attributes.dictionaryValue()));
    out = new kov_payload{KOPayloadBuilder(std::move(dictionary))};
  });
}

kov_status kov_payload_set_date(kov_payload* payload, const char* key, double seconds_since_1970) {
  return KOC::call([&] {
    KOC::needPointer(payload, "payload")
        ->builder.setDate(KOValue(KODate{seconds_since_1970}), KOValue(std::string(KOC::need(key, "key"))));
  });
}

kov_status kov_payload_set_timestamp(kov_payload* payload, const char* key, double seconds_since_1970) {
  return KOC::call([&] {
    KOC::needPointer(payload, "payload")
        ->builder.setTimeStamp(seconds_since_1970, KOValue(std::string(KOC::need(key, "key"))));
  });
}

kov_status kov_payload_set_location(kov_payload* payload, const char* key, double latitude, double longitude) {
  return KOC::call([&] {
    KOC::needPointer(payload, "payload")
        ->builder.setLocationLat(latitude, longitude, KOValue(std::string(KOC::need(key, "key"))));
  });
}

kov_status kov_track_event_with_payload(const char* name, kov_payload* payload) {
  return KOC::call([&] {
    KOC::requireInstalled();
    if (!name) fail(KOV_INVALID_ARGUMENT, KOC::kEventNameKind);
    sdk().trackEvent(KOValue(std::string(name)), KOC::needPointer(payload, "payload")->builder);
  });
}

void kov_payload_destroy(kov_payload* payload) { delete payload; }

// ----------------------------------------------------------------------------- user attributes

kov_status kov_set_user_attribute(const char* key, const char* value_json) {
  return KOC::call([&] {
    KOC::requireInstalled();
    const char* k = KOC::need(key, "key");
    sdk().setUserAttribute(KOC::attributeValue(value_json, k), KOValue(std::string(k)));
  });
}

kov_status kov_set_user_attribute_timestamp(const char* key, double seconds_since_1970) {
  return KOC::call([&] {
    KOC::requireInstalled();
    sdk().setUserAttributeTimestamp(seconds_since_1970, KOValue(std::string(KOC::need(key, "key"))));
  });
}

kov_status kov_set_user_attribute_location(const char* key, double latitude, double longitude) {
  return KOC::call([&] {
    KOC::requireInstalled();
    sdk().setUserAttributeLocationLatitude(latitude, longitude, KOValue(std::string(KOC::need(key, "key"))));
  });
}

#define KOC_USER_TEXT_SETTER(cname, method, key) \
  kov_status cname(const char* value) {          \
    return KOC::call([&] {                       \
      KOC::requireInstalled();                   \
      sdk().method(KOC::textValue(value, key));  \
    });                                          \
  }
KOC_USER_TEXT_SETTER(kov_set_user_unique_id, setUserUniqueID, USER_ATTRIBUTE_UNIQUE_ID)
KOC_USER_TEXT_SETTER(kov_set_user_email, setUserEmailID, USER_ATTRIBUTE_USER_EMAIL)
KOC_USER_TEXT_SETTER(kov_set_user_name, setUserName, USER_ATTRIBUTE_USER_NAME)
KOC_USER_TEXT_SETTER(kov_set_user_first_name, setUserFirstName, USER_ATTRIBUTE_USER_FIRST_NAME)
KOC_USER_TEXT_SETTER(kov_set_user_last_name, setUserLastName, USER_ATTRIBUTE_USER_LAST_NAME)
KOC_USER_TEXT_SETTER(kov_set_user_mobile, setUserMobileNo, USER_ATTRIBUTE_USER_MOBILE)
#undef KOC_USER_TEXT_SETTER

kov_status kov_set_user_gender(int gender) {
  return KOC::call([&] {
    KOC::requireInstalled();
    if (gender != KOV_GENDER_MALE && gender != KOV_GENDER_FEMALE) {
      fail(KOV_INVALID_ARGUMENT, "gender must be KOV_GENDER_MALE or KOV_GENDER_FEMALE");
    }
    sdk().setUserGender(gender);
  });
}

kov_status kov_set_user_date_of_birth(double seconds_since_1970) {
  return KOC::call([&] {
    KOC::requireInstalled();
    sdk().setUserDateOfBirth(KOValue(KODate{seconds_since_1970}));
  });
}

kov_status kov_set_user_location(double latitude, double longitude) {
  return KOC::call([&] {
    KOC::requireInstalled();
    sdk().setUserLocationLatitude(latitude, longitude);
  });
}

kov_status kov_set_device_attribute(const char* key, const char* value_json) {
  return KOC::call([&] {
    KOC::requireInstalled();
    const char* k = KOC::need(key, "key");
    sdk().setDeviceAttribute(KOC::fromPortJSON(KOC::need(value_json, "value_json")), KOValue(std::string(k)));
  });
}

// ---------------------------------------------------------------------------- sync and logout

kov_status kov_sync_now(void) {
  return KOC::call([&] {
    KOC::requireInstalled();
    sdk().syncNow();
  });
}

kov_status kov_flush(kov_bool_callback completion, void* ctx) {
  return KOC::call([&] {
    KOC::requireInstalled();
    sdk().flush([completion, ctx](bool all) {
      if (completion) completion(ctx, all ? 1 : 0);
    });
  });
}

kov_status kov_add_device(kov_bool_callback completion, void* ctx) {
  return KOC::call([&] {
    KOC::requireInstalled();
    sdk().addDeviceWithCompletion([completion, ctx](bool added) {
      if (completion) completion(ctx, added ? 1 : 0);
    });
  });
}

kov_status kov_reset_user(void) {
  return KOC::call([&] {
    KOC::requireInstalled();
    sdk().resetUser();
  });
}

// ---------------------------------------------------------------------------------------- push

kov_status kov_register_for_remote_notifications(const char* categories_json, const char* earlier_categories_json,
                                                 int delegate_answers_responses) {
  return KOC::call([&] {
    KOC::requireInstalled();
    auto current = KOC::categorySet(categories_json, "categories_json", false);
    auto earlier = KOC::categorySet(earlier_categories_json, "earlier_categories_json", true);
    std::shared_ptr<KOUserNotificationCenterDelegate> delegate;
    if (delegate_answers_responses) delegate = std::make_shared<KOC::AnsweringDelegate>();
    sdk().registerForRemoteNotificationWithCategories(current, earlier, std::move(delegate));
  });
}

kov_status kov_register_for_push(const void* token, size_t length) {
  return KOC::call([&] {
    KOC::requireInstalled();
    if (!token || length == 0) fail(KOV_INVALID_ARGUMENT, "token is missing");
    const auto* bytes = static_cast<const std::uint8_t*>(token);
    sdk().registerForPush(KOValue(KOData{std::vector<std::uint8_t>(bytes, bytes + length)}));
  });
}

kov_status kov_save_and_register_with_token(const char* hex_token) {
  return KOC::call([&] {
    KOC::requireInstalled();
    sdk().saveAndRegisterWithToken(KOValue(std::string(KOC::need(hex_token, "hex_token"))));
  });
}

kov_status kov_did_fail_to_register_for_push(void) {
  return KOC::call([&] {
    KOC::requireInstalled();
    sdk().didFailToRegisterForPush();
  });
}

kov_status kov_did_register_for_user_notification_settings(int granted_types) {
  return KOC::call([&] {
    KOC::requireInstalled();
    sdk().didRegisterForUserNotificationSettings(granted_types);
  });
}

kov_status kov_set_user_notification_categories(const char* categories_json) {
  return KOC::call([&] {
    KOC::requireInstalled();
    sdk().setUserNotificationCategories(KOC::categorySet(categories_json, "categories_json", false));
  });
}

kov_status kov_set_earlier_notification_categories(const char* categories_json) {
  return KOC::call([&] {
    KOC::requireInstalled();
    sdk().setNotificationCategoriesForEarlieriOSVersionsWithCategories(
        KOC::categorySet(categories_json, "categories_json", true));
  });
}

kov_status kov_did_receive_notification(const char* payload_json, int open_deeplinks_automatically) {
  return KOC::call([&] {
    KOC::requireInstalled();
    sdk().didReceieveNotificationinApplication(nullptr, KOC::payload(payload_json), open_deeplinks_automatically != 0);
  });
}

kov_status kov_did_receive_notification_response(const char* action_identifier, const char* payload_json,
                                                 const char* attachments_json) {
  return KOC::call([&] {
    KOC::requireInstalled();
    KONotificationResponse response;
    response.actionIdentifier = KOValue(std::string(KOC::need(action_identifier, "action_identifier")));
    response.userInfo = KOC::payload(payload_json);
    if (attachments_json) {
      const KOValue list = KOC::parse(attachments_json, "attachments_json");
      if (!list.isArray()) fail(KOV_INVALID_JSON, "attachments_json must be a JSON array");
      for (const KOValue& id : list.arrayValue()) {
        if (id.isString()) response.attachments.push_back(id.stringValue());
      }
    }
    sdk().userNotificationCenter(KOPlatform::current().notificationCenter.get(), response);
  });
}

kov_status kov_handle_action_with_identifier(const char* identifier, const char* payload_json) {
  return KOC::call([&] {
    KOC::requireInstalled();
    sdk().handleActionWithIdentifier(KOValue(std::string(KOC::need(identifier, "identifier"))),
                                     KOC::payload(payload_json));
  });
}

}  // extern "C"

// ------------------------------------------------------------------------------------- privacy

namespace {

KOTrackingConsent consentOf(kov_consent consent) {
  switch (consent) {
    case KOV_CONSENT_GRANTED:
      return KOTrackingConsent::Granted;
    case KOV_CONSENT_DENIED:
      return KOTrackingConsent::Denied;
    case KOV_CONSENT_PENDING:
      return KOTrackingConsent::Pending;
  }
  KOC::fail(KOV_INVALID_ARGUMENT, "consent must be KOV_CONSENT_GRANTED, KOV_CONSENT_DENIED or KOV_CONSENT_PENDING");
}

}  // namespace

kov_status kov_set_tracking_consent(kov_consent consent, kov_pending_data pending_data) {
  return KOC::call([&] {
    KOC::requireInstalled();
    if (pending_data != KOV_PENDING_SEND && pending_data != KOV_PENDING_DISCARD) {
      KOC::fail(KOV_INVALID_ARGUMENT, "pending_data must be KOV_PENDING_SEND or KOV_PENDING_DISCARD");
    }
    sdk().setTrackingConsent(consentOf(consent),
                             pending_data == KOV_PENDING_SEND ? KOPendingData::Send : KOPendingData::Discard);
  });
}

kov_status kov_tracking_consent(kov_consent* consent) {
  return KOC::call([&] {
    KOC::requireInstalled();
    KOC::needPointer(consent, "consent");
    *consent = static_cast<kov_consent>(static_cast<int>(sdk().trackingConsent()));
  });
}

kov_status kov_set_default_tracking_consent(kov_consent consent) {
  return KOC::call([&] { Kovantis::setDefaultTrackingConsent(consentOf(consent)); });
}

kov_status kov_wipe_data(int keep_persistent_device_id) {
  return KOC::call([&] {
    KOC::requireInstalled();
    if (keep_persistent_device_id != 0 && keep_persistent_device_id != 1) {
      KOC::fail(KOV_INVALID_ARGUMENT, "keep_persistent_device_id must be 0 or 1");
    }
    KOWipeOptions options;
    options.keepPersistentDeviceId = keep_persistent_device_id == 1;
    sdk().wipeData(options);
  });
}

kov_status kov_export_user_data(char** data_json) {
  return KOC::call([&] {
    KOC::requireInstalled();
    KOC::needPointer(data_json, "data_json");
    KOC::answer(data_json, sdk().exportUserDataJSON());
  });
}
