// The adapter's user interface, notification centre and location managers: the ports that hand
// the SDK's callbacks to the host and hear back through kov_handler.
#include <mutex>

#include "KOCConvert.h"
#include "KOCPorts.h"

namespace KOC {

namespace {

// ----------------------------------------------------------------------------- user interface

std::string viewJSON(const KOViewDescription& view) { return view.toValue().toJSON(); }

kov_handler* eventHandler(KOViewEventHandler onEvent) {
  return handler([onEvent = std::move(onEvent)](const KOValue& args) {
    const std::optional<KOViewEvent> event = viewEventFrom(text(args, "event"));
    if (event && onEvent) onEvent(static_cast<std::int64_t>(number(args, "tag")), *event);
  });
}

// A screen the host shows: its own pointer, released when the SDK lets go of the screen.
class Screen : public KOPresentedScreen {
 public:
  explicit Screen(const kov_user_interface_port& port) : p_(port) {}
  ~Screen() override {
    if (handle_) p_.release_screen(p_.ctx, handle_);
  }
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  void update(KOViewDescription screen) override { p_.update_screen(p_.ctx, handle_, viewJSON(screen).c_str()); }
  void remove() override { p_.remove_screen(p_.ctx, handle_); }
  std::optional<KOView> viewWithTag(std::int64_t tag) const override {
    const auto json = ask(p_.view_with_tag, p_.ctx, handle_, tag);
    if (!json) return std::nullopt;
    return inputFrom(KOValue::fromJSON(*json));
  }
  /// The host's pointer, or nothing shown.
  static std::shared_ptr<KOPresentedScreen> shown(std::shared_ptr<Screen> screen, void* handle) {
    if (!handle) return nullptr;
    screen->handle_ = handle;
    return screen;
  }

 private:
  kov_user_interface_port p_;
  void* handle_ = nullptr;
};

const char* styleName(KOAlertActionStyle style) {
  switch (style) {
    case KOAlertActionStyle::Cancel:
      return "cancel";
    case KOAlertActionStyle::Destructive:
      return "destructive";
    case KOAlertActionStyle::Default:
      break;
  }
  return "default";
}

class UserInterface : public KOUserInterface {
 public:
  explicit UserInterface(const kov_user_interface_port& port) : p_(port) {}

  bool supportsAlertController() const override { return p_.supports_alert_controller(p_.ctx) != 0; }
  void presentAlert(const std::string& title, const std::string& message, std::vector<KOAlertAction> actions,
                    const KOViewController* presenter) override {
    KOArray described;
    for (const KOAlertAction& action : actions) {
      described.push_back(KODictionary{{"title", action.title}, {"style", styleName(action.style)}});
    }
    auto shared = std::make_shared<std::vector<KOAlertAction>>(std::move(actions));
    p_.present_alert(p_.ctx, title.c_str(), message.c_str(), KOValue(std::move(described)).toJSON().c_str(),
                     presenter ? presenter->name.c_str() : nullptr, handler([shared](const KOValue& args) {
                       if (!args.isNumber() || args.intValue() < 0) return;
                       const auto index = static_cast<std::size_t>(args.intValue());
                       if (index < shared->size() && (*shared)[index].handler) (*shared)[index].handler();
                     }));
  }
  void presentShareSheet(const KOArray& items, const std::vector<std::string>& excludedActivityTypes,
                         const KOViewController* presenter, std::optional<KORect> popoverAnchor) override {
    KOArray excluded;
    for (const std::string& type : excludedActivityTypes) excluded.push_back(type);
    const std::string popover = popoverAnchor ? KOValue(KODictionary{{"x", popoverAnchor->x},
                                                                     {"y", popoverAnchor->y},
                                                                     {"width", popoverAnchor->width},
                                                                     {"height", popoverAnchor->height}})
                                                    .toJSON()
                                              : std::string();
    p_.present_share_sheet(p_.ctx, toPortJSON(KOValue(items)).c_str(), KOValue(std::move(excluded)).toJSON().c_str(),
                           presenter ? presenter->name.c_str() : nullptr, popoverAnchor ? popover.c_str() : nullptr);
  }
  KOSize sizeOfText(const std::string& text, const KOFont& font) const override {
    KOSize size;
    p_.size_of_text(p_.ctx, text.c_str(), font.name.c_str(), font.pointSize, &size.width, &size.height);
    return size;
  }
  double heightOfText(const std::string& text, double width, const KOFont& font) const override {
    return p_.height_of_text(p_.ctx, text.c_str(), width, font.name.c_str(), font.pointSize);
  }
  double systemFontSize() const override { return p_.system_font_size(p_.ctx); }
  std::shared_ptr<KOPresentedScreen> embedScreen(const KOViewController* host, KOViewDescription screen,
                                                 KOViewEventHandler onEvent) override {
    auto shown = std::make_shared<Screen>(p_);
    return Screen::shown(shown, p_.embed_screen(p_.ctx, host ? host->name.c_str() : nullptr, viewJSON(screen).c_str(),
                                                eventHandler(std::move(onEvent))));
  }
  std::shared_ptr<KOPresentedScreen> presentScreen(KOViewDescription screen, KOViewEventHandler onEvent) override {
    auto shown = std::make_shared<Screen>(p_);
    return Screen::shown(shown, p_.present_screen(p_.ctx, viewJSON(screen).c_str(), eventHandler(std::move(onEvent))));
  }
  void setPasteboardString(const std::string& text) override { p_.set_pasteboard(p_.ctx, text.c_str()); }
  std::shared_ptr<KOPresentedScreen> presentBrowser(
      const std::string& url, const KOViewController* presenter,
      std::function<void(std::shared_ptr<KOPresentedScreen>)> didFinish) override {
    // The handler holds the browser: the host keeps it until the browser is gone.
    auto browser = std::make_shared<Screen>(p_);
    kov_handler* finished = handler([browser, didFinish = std::move(didFinish)](const KOValue&) {
      if (didFinish) didFinish(browser);
    });
    return Screen::shown(
        browser, p_.present_browser(p_.ctx, url.c_str(), presenter ? presenter->name.c_str() : nullptr, finished));
  }

 private:
  kov_user_interface_port p_;
};

// ------------------------------------------------------------------------ notification centre

class NotificationCenter : public KOUserNotificationCenter {
 public:
  explicit NotificationCenter(const kov_notification_center_port& port) : p_(port) {}

  void requestAuthorizationWithOptions(
      int options, std::function<void(bool granted, std::optional<std::string> error)> completion) override {
    p_.request_authorization(p_.ctx, options, handler([completion = std::move(completion)](const KOValue& args) {
                               if (!completion) return;
                               const bool granted =
                                   args.isDictionary() && args["granted"].isNumber() && args["granted"].boolValue();
                               std::optional<std::string> error;
                               if (args.isDictionary() && args["error"].isString()) error = args["error"].stringValue();
                               completion(granted, error);
                             }));
  }
  void getNotificationSettingsWithCompletionHandler(std::function<void(int alertSetting)> completion) override {
    p_.get_settings(p_.ctx, handler([completion = std::move(completion)](const KOValue& args) {
                      if (completion) completion(args.isNumber() ? static_cast<int>(args.intValue()) : 0);
                    }));
  }
  void setNotificationCategories(std::vector<std::shared_ptr<KOUserNotificationCategory>> categories) override {
    p_.set_categories(p_.ctx, categoriesValue(categories).toJSON().c_str());
  }
  void setDelegate(std::shared_ptr<KOUserNotificationCenterDelegate> delegate) override {
    const int kind = !delegate ? -1 : delegate->handlesNotificationResponses() ? 1 : 0;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      delegate_ = std::move(delegate);
    }
    p_.set_delegate(p_.ctx, kind);
  }
  std::shared_ptr<KOUserNotificationCenterDelegate> delegate() const override {
    std::lock_guard<std::mutex> lock(mutex_);
    return delegate_;
  }
  void registerUserNotificationSettings(
      int types, std::vector<std::shared_ptr<KOMutableUserNotificationCategory>> categories) override {
    p_.register_settings(p_.ctx, types, olderCategoriesValue(categories).toJSON().c_str());
  }

 private:
  kov_notification_center_port p_;
  mutable std::mutex mutex_;
  std::shared_ptr<KOUserNotificationCenterDelegate> delegate_;
};

// ---------------------------------------------------------------------------------- location

class LocationManager : public KOLocationManager {
 public:
  explicit LocationManager(const kov_location_port& port) : p_(port) {}
  ~LocationManager() override {
    if (handle_) p_.release_manager(p_.ctx, handle_);
  }
  LocationManager(const LocationManager&) = delete;
  LocationManager& operator=(const LocationManager&) = delete;

  static std::shared_ptr<KOLocationManager> make(const kov_location_port& port) {
    auto manager = std::make_shared<LocationManager>(port);
    std::weak_ptr<LocationManager> weak = manager;
    manager->handle_ = port.make_manager(port.ctx, handler([weak](const KOValue& args) {
                                           if (auto m = weak.lock()) m->report(args);
                                         }));
    if (!manager->handle_) return nullptr;
    return manager;
  }

  bool locationServicesEnabled() const override { return p_.services_enabled(p_.ctx, handle_) != 0; }
  KOAuthorizationStatus authorizationStatus() const override {
    return static_cast<KOAuthorizationStatus>(p_.authorization_status(p_.ctx, handle_));
  }
  bool respondsToRequestAlwaysAuthorization() const override { return p_.offers_always(p_.ctx, handle_) != 0; }
  void requestAlwaysAuthorization() override { p_.request_always(p_.ctx, handle_); }
  bool respondsToRequestWhenInUseAuthorization() const override { return p_.offers_when_in_use(p_.ctx, handle_) != 0; }
  void requestWhenInUseAuthorization() override { p_.request_when_in_use(p_.ctx, handle_); }
  void startUpdatingLocation() override { p_.start_updating(p_.ctx, handle_); }
  void stopUpdatingLocation() override { p_.stop_updating(p_.ctx, handle_); }
  void setDelegate(std::weak_ptr<KOLocationManagerDelegate> delegate) override {
    std::lock_guard<std::mutex> lock(mutex_);
    delegate_ = std::move(delegate);
  }
  std::shared_ptr<KOLocationManagerDelegate> delegate() const override {
    std::lock_guard<std::mutex> lock(mutex_);
    return delegate_.lock();
  }
  bool isMonitoringAvailableForCircularRegions() const override {
    return p_.monitoring_available(p_.ctx, handle_) != 0;
  }
  void startMonitoringForRegion(const KOCircularRegion& region) override {
    p_.start_monitoring(p_.ctx, handle_, regionValue(region).toJSON().c_str());
  }
  void stopMonitoringForRegion(const KOCircularRegion& region) override {
    p_.stop_monitoring(p_.ctx, handle_, region.identifier.c_str());
  }
  std::vector<KOCircularRegion> monitoredRegions() const override {
    std::vector<KOCircularRegion> regions;
    const auto json = ask(p_.monitored_regions, p_.ctx, handle_);
    if (!json) return regions;
    const KOValue list = KOValue::fromJSON(*json);
    if (!list.isArray()) return regions;
    for (const KOValue& region : list.arrayValue()) regions.push_back(regionFrom(region));
    return regions;
  }

 private:
  // What the host's manager reported, handed to the delegate as the platform's would.
  void report(const KOValue& args) {
    const std::shared_ptr<KOLocationManagerDelegate> d = delegate();
    if (!d) return;
    const std::string event = text(args, "event");
    if (event == "locations") {
      std::vector<KOLocation> fixes;
      if (args["locations"].isArray()) {
        for (const KOValue& fix : args["locations"].arrayValue()) fixes.push_back(locationFrom(fix));
      }
      d->locationManager(*this, fixes);
    } else if (event == "error") {
      d->locationManager(*this, KOLocationError{static_cast<int>(number(args, "code")), text(args, "message")});
    } else if (event == "authorization") {
      d->locationManager(*this, static_cast<KOAuthorizationStatus>(number(args, "status")));
    } else if (event == "enter") {
      d->locationManagerDidEnterRegion(*this, regionFrom(args["region"]));
    } else if (event == "exit") {
      d->locationManagerDidExitRegion(*this, regionFrom(args["region"]));
    } else if (event == "monitoringFailed") {
      d->locationManager(*this, regionFrom(args["region"]),
                         KOLocationError{static_cast<int>(number(args, "code")), text(args, "message")});
    }
  }

  kov_location_port p_;
  void* handle_ = nullptr;
  mutable std::mutex mutex_;
  std::weak_ptr<KOLocationManagerDelegate> delegate_;
};

}  // namespace

std::shared_ptr<KOUserInterface> makeUserInterface(const kov_user_interface_port& port) {
  return std::make_shared<UserInterface>(port);
}

std::shared_ptr<KOUserNotificationCenter> makeNotificationCenter(const kov_notification_center_port& port) {
  return std::make_shared<NotificationCenter>(port);
}

std::function<std::shared_ptr<KOLocationManager>()> makeLocationManagers(const kov_location_port& port) {
  if (!port.make_manager) return nullptr;
  return [port] { return LocationManager::make(port); };
}

}  // namespace KOC
