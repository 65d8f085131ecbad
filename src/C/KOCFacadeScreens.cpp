// The facade's inbox, in-process notifications, in-apps and geofences, for C: what the host hears
// back goes through the SDK's delegate classes, each a small object holding the C callbacks.
#include <mutex>

#include "KOCBoundary.h"
#include "KOCConvert.h"
#include "KOCFacade.h"
#include "kovantis/KOGeoDelegate.h"
#include "kovantis/KOInAppDelegate.h"
#include "kovantis/KOInbox.h"
#include "kovantis/KONotificationCenter.h"

namespace KOC {

namespace {

class InboxSelection : public KOInboxCellSelectedDelegate {
 public:
  InboxSelection(kov_json_callback selected, void* ctx) : selected_(selected), ctx_(ctx) {}
  void inboxCellSelectedWithData(const KODictionary& data) override {
    selected_(ctx_, toPortJSON(KOValue(data)).c_str());
  }

 private:
  kov_json_callback selected_;
  void* ctx_;
};

class InAppCallbacks : public KOInAppDelegate {
 public:
  InAppCallbacks(kov_inapp_clicked_callback clicked, kov_json_callback selfHandled, void* ctx)
      : clicked_(clicked), selfHandled_(selfHandled), ctx_(ctx) {}
  void inAppClickedForWidget(int widget, const std::string& screenName, const KODictionary& dataDict) override {
    if (clicked_) clicked_(ctx_, widget, screenName.c_str(), toPortJSON(KOValue(dataDict)).c_str());
  }
  void selfHandledInAppWithData(const KODictionary& data) override {
    if (selfHandled_) selfHandled_(ctx_, toPortJSON(KOValue(data)).c_str());
  }

 private:
  kov_inapp_clicked_callback clicked_;
  kov_json_callback selfHandled_;
  void* ctx_;
};

class GeoCallbacks : public KOGeoDelegate {
 public:
  GeoCallbacks(kov_json_callback entered, kov_json_callback exited, void* ctx)
      : entered_(entered), exited_(exited), ctx_(ctx) {}
  void locManagerDidEnterRegion(KOLocationManager&, const KOCircularRegion& region) override {
    if (entered_) entered_(ctx_, regionValue(region).toJSON().c_str());
  }
  void locManagerDidExitRegion(KOLocationManager&, const KOCircularRegion& region) override {
    if (exited_) exited_(ctx_, regionValue(region).toJSON().c_str());
  }

 private:
  kov_json_callback entered_;
  kov_json_callback exited_;
  void* ctx_;
};

// The SDK holds its delegates weakly: the boundary keeps the ones C set alive, one of each kind.
struct Delegates {
  std::mutex mutex;
  std::shared_ptr<InboxSelection> inbox;
  std::shared_ptr<InAppCallbacks> inApp;
  std::shared_ptr<GeoCallbacks> geo;
};

Delegates& delegates() {
  static auto* held = new Delegates();
  return *held;
}

KOColor colorFrom(const KOValue& v) {
  return KOColor{number(v, "red"), number(v, "green"), number(v, "blue"), number(v, "alpha", 1)};
}

KOFont fontFrom(const KOValue& v) { return KOFont{text(v, "name"), number(v, "size", 17)}; }

// The inbox screen's look, set after it loads: each setter restyles the shown screen.
void restyle(KOInboxViewController& inbox, const KOValue& style) {
  if (!style.isDictionary()) fail(KOV_INVALID_JSON, "style_json must be a JSON object");
  if (style["title"].isString()) inbox.setInboxTitle(style["title"].stringValue());
  if (style["tableBackgroundColor"].isDictionary()) {
    inbox.setTableBackgroundColor(colorFrom(style["tableBackgroundColor"]));
    inbox.viewWillAppear();  // where the list's background is applied
  }
  const auto color = [&](const char* key, void (KOInboxViewController::*set)(std::optional<KOColor>)) {
    if (style[key].isDictionary()) (inbox.*set)(colorFrom(style[key]));
  };
  const auto font = [&](const char* key, void (KOInboxViewController::*set)(std::optional<KOFont>)) {
    if (style[key].isDictionary()) (inbox.*set)(fontFrom(style[key]));
  };
  color("textColor", &KOInboxViewController::setNotificationTextLabelColor);
  color("dateColor", &KOInboxViewController::setDateTextLabelColor);
  font("font", &KOInboxViewController::setNotificationTextLabelFont);
  font("unreadFont", &KOInboxViewController::setNotificationTextLabelUnreadFont);
  font("dateFont", &KOInboxViewController::setDateTextLabelFont);
  // The last setter also redraws the title and the background set above.
  inbox.setCellBackgroundColor(style["cellBackgroundColor"].isDictionary()
                                   ? std::optional<KOColor>(colorFrom(style["cellBackgroundColor"]))
                                   : inbox.cellBackgroundColor());
}

// A campaign id from C, as the in-app calls take it.
std::string campaign(const char* id) { return std::string(need(id, "campaign_id")); }

}  // namespace

std::shared_ptr<KOViewController> screenNamed(const char* name) {
  if (!name) return nullptr;
  auto screen = std::make_shared<KOViewController>();
  screen->name = name;
  return screen;
}

}  // namespace KOC

using KOC::fail;
using KOC::sdk;

extern "C" {

// --------------------------------------------------------------------------------------- inbox

kov_status kov_inbox_fetch(kov_bool_callback completion, void* ctx) {
  return KOC::call([&] {
    KOC::requireInstalled();
    KOInbox::fetchInboxMessagesWithCompletion([completion, ctx](bool answered) {
      if (completion) completion(ctx, answered ? 1 : 0);
    });
  });
}

kov_status kov_inbox_messages(char** messages_json) {
  return KOC::call([&] {
    KOC::requireInstalled();
    KOC::answer(messages_json, KOC::toPortJSON(KOValue(KOInbox::getInboxMessages())));
  });
}

kov_status kov_inbox_remove_all(void) {
  return KOC::call([&] {
    KOC::requireInstalled();
    KOInbox::removeInboxMessages();
  });
}

kov_status kov_inbox_remove_message(const char* campaign_id) {
  return KOC::call([&] {
    KOC::requireInstalled();
    KOInbox::removeMessageWithCampaignID(KOValue(KOC::campaign(campaign_id)));
  });
}

kov_status kov_inbox_mark_read(const char* campaign_id) {
  return KOC::call([&] {
    KOC::requireInstalled();
    const KOValue wanted(KOC::campaign(campaign_id));
    // What the inbox screen does when its row is tapped, without showing the screen.
    KOInboxViewController inbox;
    inbox.viewDidLoad();
    const KOArray& rows = inbox.inboxMessagesArray();
    for (std::size_t row = 0; row < rows.size(); ++row) {
      if (rows[row].isDictionary() && rows[row]["cid"] == wanted) return inbox.didSelectRowAtIndexPath(row);
    }
    fail(KOV_INVALID_ARGUMENT, "no inbox message of the campaign " + wanted.stringValue());
  });
}

kov_status kov_inbox_show(const char* host_screen, const char* style_json, kov_json_callback selected, void* ctx) {
  return KOC::call([&] {
    KOC::requireInstalled();
    const KOValue style = style_json ? KOC::parse(style_json, "style_json") : KOValue(KODictionary());
    const auto host = KOC::screenNamed(KOC::need(host_screen, "host_screen"));
    std::shared_ptr<KOInboxViewController> inbox = KOInbox::initializeInboxOnController(host.get());
    if (!inbox) fail(KOV_REFUSED, "the platform did not show the inbox screen");
    KOC::restyle(*inbox, style);
    auto selection = selected ? std::make_shared<KOC::InboxSelection>(selected, ctx) : nullptr;
    inbox->setDelegate(selection);
    std::lock_guard<std::mutex> lock(KOC::delegates().mutex);
    KOC::delegates().inbox = std::move(selection);
  });
}

// ------------------------------------------------------------------- in-process notifications

kov_status kov_add_observer(const char* name, kov_notification_callback observer, void* ctx, uint64_t* token) {
  return KOC::call([&] {
    std::string n = KOC::need(name, "name");
    if (!observer) fail(KOV_INVALID_ARGUMENT, "observer is missing");
    uint64_t& out = *KOC::needPointer(token, "token");
    out =
        KONotificationCenter::defaultCenter().addObserver(std::move(n), [observer, ctx](const KONotification& posted) {
          observer(ctx, posted.name.c_str(), KOC::toPortJSON(KOValue(posted.userInfo)).c_str());
        });
  });
}

kov_status kov_remove_observer(uint64_t token) {
  return KOC::call([&] { KONotificationCenter::defaultCenter().removeObserver(token); });
}

kov_status kov_post_notification(const char* name, const char* user_info_json) {
  return KOC::call([&] {
    const std::string n = KOC::need(name, "name");
    KOValue info = user_info_json ? KOC::fromPortJSON(user_info_json) : KOValue(KODictionary());
    if (!info.isDictionary()) fail(KOV_INVALID_JSON, "user_info_json must be a JSON object");
    KONotificationCenter::defaultCenter().post(n, info.dictionaryValue());
  });
}

// -------------------------------------------------------------------------------------- in-app

kov_status kov_set_inapp_callbacks(kov_inapp_clicked_callback clicked, kov_json_callback self_handled, void* ctx) {
  return KOC::call([&] {
    auto callbacks =
        clicked || self_handled ? std::make_shared<KOC::InAppCallbacks>(clicked, self_handled, ctx) : nullptr;
    sdk().setDelegate(callbacks);
    std::lock_guard<std::mutex> lock(KOC::delegates().mutex);
    KOC::delegates().inApp = std::move(callbacks);
  });
}

kov_status kov_show_inapp(const char* screen) {
  return KOC::call([&] {
    KOC::requireInstalled();
    sdk().handleInAppMessageForViewController(KOC::screenNamed(screen).get());
  });
}

kov_status kov_get_self_handled_inapp(const char* screen) {
  return KOC::call([&] {
    KOC::requireInstalled();
    sdk().getSelfHandledInAppForViewController(KOC::screenNamed(screen).get());
  });
}

kov_status kov_self_handled_inapp_shown(const char* campaign_id) {
  return KOC::call([&] {
    KOC::requireInstalled();
    sdk().selfHandledInAppViewShownWithCampaignID(KOC::campaign(campaign_id));
  });
}

kov_status kov_self_handled_inapp_clicked(const char* campaign_id, kov_self_handled_action action) {
  return KOC::call([&] {
    KOC::requireInstalled();
    const std::string id = KOC::campaign(campaign_id);
    switch (action) {
      case KOV_SELF_HANDLED_PRIMARY:
        return sdk().selfHandledInAppClickedWithPrimaryActionAndCampaignID(id);
      case KOV_SELF_HANDLED_SECONDARY:
        return sdk().selfHandledInAppClickedWithSecondaryActionAndCampaignID(id);
      case KOV_SELF_HANDLED_DISMISS:
        return sdk().selfHandledInAppClickedWithDismissActionAndCampaignID(id);
    }
    fail(KOV_INVALID_ARGUMENT, "no such action");
  });
}

kov_status kov_get_nudge_view(const char* screen, kov_nudge_callback completion, void* ctx) {
  return KOC::call([&] {
    KOC::requireInstalled();
    if (!completion) fail(KOV_INVALID_ARGUMENT, "completion is missing");
    sdk().getNudgeViewForViewController(
        KOC::screenNamed(screen).get(), [completion, ctx](const KOViewDescription& nudge, const std::string& id) {
          completion(ctx, id.empty() ? "null" : nudge.toValue().toJSON().c_str(), id.c_str());
        });
  });
}

kov_status kov_nudge_view_shown(const char* campaign_id) {
  return KOC::call([&] {
    KOC::requireInstalled();
    sdk().nudgeViewShownWithCampaignID(KOC::campaign(campaign_id));
  });
}

kov_status kov_show_nudge_view(const char* screen, int position) {
  return KOC::call([&] {
    KOC::requireInstalled();
    if (position != KOV_NUDGE_TOP && position != KOV_NUDGE_BOTTOM) {
      fail(KOV_INVALID_ARGUMENT, "position must be KOV_NUDGE_TOP or KOV_NUDGE_BOTTOM");
    }
    if (!screen) return sdk().showNudgeViewAtNudgePosition(position);
    sdk().showNudgeViewInViewController(KOC::screenNamed(screen).get(), position);
  });
}

kov_status kov_dont_show_inapp_in(const char* screen) {
  return KOC::call([&] {
    KOC::requireInstalled();
    sdk().dontShowInAppInViewController(KOC::screenNamed(KOC::need(screen, "screen")).get());
  });
}

kov_status kov_inapp_decision_report(const char* screen, char** report_json) {
  return KOC::call([&] {
    KOC::requireInstalled();
    KOC::needPointer(report_json, "report_json");
    KOC::answer(report_json, KOValue(sdk().inAppDecisionReport(KOC::screenNamed(screen).get())).toJSON());
  });
}

// ----------------------------------------------------------------------------------- geofences

kov_status kov_start_geofencing(int with_location, double latitude, double longitude) {
  return KOC::call([&] {
    KOC::requireInstalled();
    std::optional<KOLocation> here;
    if (with_location) {
      here = KOLocation{};
      here->coordinate = KOLocationCoordinate{latitude, longitude};
      here->timestamp = KOPlatform::current().clock->now();
    }
    sdk().startGeofencingWithLocationManager(nullptr, here);
  });
}

kov_status kov_set_geo_callbacks(kov_json_callback entered, kov_json_callback exited, void* ctx) {
  return KOC::call([&] {
    auto callbacks = entered || exited ? std::make_shared<KOC::GeoCallbacks>(entered, exited, ctx) : nullptr;
    sdk().setGeoDelegate(callbacks);
    std::lock_guard<std::mutex> lock(KOC::delegates().mutex);
    KOC::delegates().geo = std::move(callbacks);
  });
}

}  // extern "C"
