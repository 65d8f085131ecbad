// The simulated device's user interface, notification centre and location managers as C tables.
// The SDK's handlers travel with the device's callbacks and are released when those go.
#include "C/KOCConvert.h"
#include "KOCSim.h"

namespace KOCSim {

namespace {

KOCSimContext& sim(void* ctx) { return *static_cast<KOCSimContext*>(ctx); }

void put(kov_out* out, std::string_view text) { kov_out_set(out, text.data(), text.size()); }

// A screen the device shows, as the port's pointer.
using ScreenHandle = std::shared_ptr<KOPresentedScreen>;
ScreenHandle& screen(void* handle) { return *static_cast<ScreenHandle*>(handle); }
void* handleOf(ScreenHandle shown) { return shown ? new ScreenHandle(std::move(shown)) : nullptr; }

KOViewDescription view(const char* json) { return KOC::viewFrom(KOValue::fromJSON(json)); }

// A named screen for the calls that take one; nothing for NULL.
struct Named {
  explicit Named(const char* name) {
    if (name) controller.name = name;
    given = name != nullptr;
  }
  const KOViewController* get() const { return given ? &controller : nullptr; }
  KOViewController controller;
  bool given;
};

KOViewEventHandler events(kov_handler* onEvent) {
  auto held = std::make_shared<Handler>(onEvent);
  return [held](std::int64_t tag, KOViewEvent event) {
    held->call(KOValue(KODictionary{{"tag", tag}, {"event", KOC::viewEventName(event)}}).toJSON());
  };
}

KOAlertActionStyle styleFrom(const std::string& name) {
  if (name == "cancel") return KOAlertActionStyle::Cancel;
  if (name == "destructive") return KOAlertActionStyle::Destructive;
  return KOAlertActionStyle::Default;
}

void fillUserInterface(kov_user_interface_port& p) {
  p.supports_alert_controller = [](void* c) { return sim(c).userInterface->supportsAlertController() ? 1 : 0; };
  p.present_alert = [](void* c, const char* title, const char* message, const char* actionsJSON, const char* presenter,
                       kov_handler* onAction) {
    auto tapped = std::make_shared<Handler>(onAction);
    std::vector<KOAlertAction> actions;
    const KOValue described = KOValue::fromJSON(actionsJSON);
    if (described.isArray()) {
      for (std::size_t i = 0; i < described.arrayValue().size(); ++i) {
        const KOValue& a = described.arrayValue()[i];
        actions.push_back(KOAlertAction{KOC::text(a, "title"), styleFrom(KOC::text(a, "style")),
                                        [tapped, i] { tapped->call(std::to_string(i)); }});
      }
    }
    sim(c).userInterface->presentAlert(title, message, std::move(actions), Named(presenter).get());
  };
  p.present_share_sheet = [](void* c, const char* itemsJSON, const char* excludedJSON, const char* presenter,
                             const char* popoverJSON) {
    const KOValue items = KOC::fromPortJSON(itemsJSON);
    std::vector<std::string> excluded;
    const KOValue types = KOValue::fromJSON(excludedJSON);
    if (types.isArray()) {
      for (const KOValue& type : types.arrayValue()) {
        if (type.isString()) excluded.push_back(type.stringValue());
      }
    }
    std::optional<KORect> popover;
    if (popoverJSON) {
      const KOValue r = KOValue::fromJSON(popoverJSON);
      popover = KORect{KOC::number(r, "x"), KOC::number(r, "y"), KOC::number(r, "width"), KOC::number(r, "height")};
    }
    sim(c).userInterface->presentShareSheet(items.isArray() ? items.arrayValue() : KOArray(), excluded,
                                            Named(presenter).get(), popover);
  };
  p.size_of_text = [](void* c, const char* text, const char* font, double size, double* width, double* height) {
    const KOSize measured = sim(c).userInterface->sizeOfText(text, KOFont{font, size});
    *width = measured.width;
    *height = measured.height;
  };
  p.height_of_text = [](void* c, const char* text, double width, const char* font, double size) {
    return sim(c).userInterface->heightOfText(text, width, KOFont{font, size});
  };
  p.system_font_size = [](void* c) { return sim(c).userInterface->systemFontSize(); };
  p.embed_screen = [](void* c, const char* host, const char* viewJSON, kov_handler* onEvent) {
    return handleOf(sim(c).userInterface->embedScreen(Named(host).get(), view(viewJSON), events(onEvent)));
  };
  p.present_screen = [](void* c, const char* viewJSON, kov_handler* onEvent) {
    return handleOf(sim(c).userInterface->presentScreen(view(viewJSON), events(onEvent)));
  };
  p.present_browser = [](void* c, const char* url, const char* presenter, kov_handler* didFinish) {
    auto finished = std::make_shared<Handler>(didFinish);
    return handleOf(sim(c).userInterface->presentBrowser(
        url, Named(presenter).get(), [finished](std::shared_ptr<KOPresentedScreen>) { finished->call("null"); }));
  };
  p.update_screen = [](void*, void* handle, const char* viewJSON) { screen(handle)->update(view(viewJSON)); };
  p.remove_screen = [](void*, void* handle) { screen(handle)->remove(); };
  p.view_with_tag = [](void*, void* handle, int64_t tag, kov_out* o) {
    if (const std::optional<KOView> input = screen(handle)->viewWithTag(tag)) put(o, KOC::inputValue(*input).toJSON());
  };
  p.release_screen = [](void*, void* handle) { delete static_cast<ScreenHandle*>(handle); };
  p.set_pasteboard = [](void* c, const char* text) { sim(c).userInterface->setPasteboardString(text); };
}

// The host's notification-centre delegate on the device: it hands the user's answers to the app's
// delegate's notification_response, as a host's delegate hands them to the SDK.
class ResponseForwarder : public KOUserNotificationCenterDelegate {
 public:
  ResponseForwarder(KOCSimContext& context, bool answers) : context_(context), answers_(answers) {}
  bool handlesNotificationResponses() const override { return answers_; }
  void userNotificationCenter(KOUserNotificationCenter&, const KONotificationResponse& response,
                              std::function<void()> completion) override {
    kov_sim_app_delegate delegate;
    {
      std::lock_guard<std::mutex> lock(context_.mutex);
      delegate = context_.delegate;
    }
    if (answers_ && delegate.notification_response) {
      KOArray attachments;
      for (const std::string& id : response.attachments) attachments.push_back(id);
      const std::string action = response.actionIdentifier.isString() ? response.actionIdentifier.stringValue() : "";
      delegate.notification_response(delegate.ctx, action.c_str(), KOC::toPortJSON(response.userInfo).c_str(),
                                     KOValue(std::move(attachments)).toJSON().c_str());
    }
    if (completion) completion();
  }

 private:
  KOCSimContext& context_;
  bool answers_;
};

void fillNotificationCenter(kov_notification_center_port& p) {
  p.request_authorization = [](void* c, int options, kov_handler* completion) {
    auto done = std::make_shared<Handler>(completion);
    sim(c).notificationCenter->requestAuthorizationWithOptions(options, [done](bool granted,
                                                                               std::optional<std::string> error) {
      done->call(
          KOValue(KODictionary{{"granted", granted}, {"error", error ? KOValue(*error) : KOValue::null()}}).toJSON());
    });
  };
  p.get_settings = [](void* c, kov_handler* completion) {
    auto done = std::make_shared<Handler>(completion);
    sim(c).notificationCenter->getNotificationSettingsWithCompletionHandler(
        [done](int setting) { done->call(std::to_string(setting)); });
  };
  p.set_categories = [](void* c, const char* json) {
    sim(c).notificationCenter->setNotificationCategories(KOC::categoriesFrom(KOValue::fromJSON(json)));
  };
  p.set_delegate = [](void* c, int delegate) {
    sim(c).notificationCenter->setDelegate(delegate < 0 ? nullptr
                                                        : std::make_shared<ResponseForwarder>(sim(c), delegate == 1));
  };
  p.register_settings = [](void* c, int types, const char* json) {
    sim(c).notificationCenter->registerUserNotificationSettings(
        types, KOC::olderCategoriesFrom(KOValue::fromJSON(json), false));
  };
}

// A location manager of the device with the delegate that reports to the SDK's events handler.
class Reporter : public KOLocationManagerDelegate {
 public:
  explicit Reporter(kov_handler* events) : events_(events) {}
  void locationManager(KOLocationManager&, const std::vector<KOLocation>& fixes) override {
    KOArray list;
    for (const KOLocation& fix : fixes) list.push_back(KOC::locationValue(fix));
    report(KODictionary{{"event", "locations"}, {"locations", std::move(list)}});
  }
  void locationManager(KOLocationManager&, const KOLocationError& error) override {
    report(KODictionary{{"event", "error"}, {"code", error.code}, {"message", error.message}});
  }
  void locationManager(KOLocationManager&, KOAuthorizationStatus status) override {
    report(KODictionary{{"event", "authorization"}, {"status", static_cast<int>(status)}});
  }
  void locationManagerDidEnterRegion(KOLocationManager&, const KOCircularRegion& region) override {
    report(KODictionary{{"event", "enter"}, {"region", KOC::regionValue(region)}});
  }
  void locationManagerDidExitRegion(KOLocationManager&, const KOCircularRegion& region) override {
    report(KODictionary{{"event", "exit"}, {"region", KOC::regionValue(region)}});
  }
  void locationManager(KOLocationManager&, const KOCircularRegion& region, const KOLocationError& error) override {
    report(KODictionary{{"event", "monitoringFailed"},
                        {"region", KOC::regionValue(region)},
                        {"code", error.code},
                        {"message", error.message}});
  }

 private:
  void report(KODictionary args) { events_.call(KOValue(std::move(args)).toJSON()); }
  Handler events_;
};

struct Manager {
  std::shared_ptr<KOSimLocationManager> manager;
  std::shared_ptr<Reporter> reporter;  // the manager holds its delegate weakly
};

KOSimLocationManager& manager(void* handle) { return *static_cast<Manager*>(handle)->manager; }

void fillLocation(kov_location_port& p) {
  p.make_manager = [](void* c, kov_handler* events) -> void* {
    auto reporter = std::make_shared<Reporter>(events);
    auto made = sim(c).location->makeManager();
    if (!made) return nullptr;
    made->setDelegate(reporter);
    return new Manager{std::move(made), std::move(reporter)};
  };
  p.services_enabled = [](void*, void* m) { return manager(m).locationServicesEnabled() ? 1 : 0; };
  p.authorization_status = [](void*, void* m) { return static_cast<int>(manager(m).authorizationStatus()); };
  p.offers_always = [](void*, void* m) { return manager(m).respondsToRequestAlwaysAuthorization() ? 1 : 0; };
  p.request_always = [](void*, void* m) { manager(m).requestAlwaysAuthorization(); };
  p.offers_when_in_use = [](void*, void* m) { return manager(m).respondsToRequestWhenInUseAuthorization() ? 1 : 0; };
  p.request_when_in_use = [](void*, void* m) { manager(m).requestWhenInUseAuthorization(); };
  p.start_updating = [](void*, void* m) { manager(m).startUpdatingLocation(); };
  p.stop_updating = [](void*, void* m) { manager(m).stopUpdatingLocation(); };
  p.monitoring_available = [](void*, void* m) { return manager(m).isMonitoringAvailableForCircularRegions() ? 1 : 0; };
  p.start_monitoring = [](void*, void* m, const char* region) {
    manager(m).startMonitoringForRegion(KOC::regionFrom(KOValue::fromJSON(region)));
  };
  p.stop_monitoring = [](void*, void* m, const char* identifier) {
    KOCircularRegion region;
    region.identifier = identifier;
    manager(m).stopMonitoringForRegion(region);
  };
  p.monitored_regions = [](void*, void* m, kov_out* o) {
    KOArray regions;
    for (const KOCircularRegion& region : manager(m).monitoredRegions()) regions.push_back(KOC::regionValue(region));
    put(o, KOValue(std::move(regions)).toJSON());
  };
  p.release_manager = [](void*, void* m) { delete static_cast<Manager*>(m); };
}

}  // namespace

void fillScreenPorts(KOCSimContext& context, kov_platform& platform) {
  platform.user_interface.ctx = platform.notification_center.ctx = platform.location.ctx = &context;
  fillUserInterface(platform.user_interface);
  fillNotificationCenter(platform.notification_center);
  fillLocation(platform.location);
}

}  // namespace KOCSim
