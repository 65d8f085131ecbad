#include "KOCPorts.h"

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>

#include "KOCConvert.h"

namespace KOC {

namespace {

std::string orEmpty(std::optional<std::string> text) { return text ? std::move(*text) : std::string(); }

KOFileError fileError(int code) { return KOFileError{code, std::strerror(code)}; }

// Sets the error when given and says whether the port succeeded.
bool succeeded(int code, KOFileError* error) {
  if (code == 0) return true;
  if (error) *error = fileError(code);
  return false;
}

// ------------------------------------------------------------------------------------ device

class Device : public KOAppInfo, public KODeviceInfo, public KOAdvertising, public KOLocale, public KOClock {
 public:
  explicit Device(const kov_device_port& port) : p_(port) {}

  std::optional<std::string> shortVersion() const override { return ask(p_.short_version, p_.ctx); }
  std::optional<std::string> buildVersion() const override { return ask(p_.build_version, p_.ctx); }
  std::optional<std::string> bundleIdentifier() const override { return ask(p_.bundle_identifier, p_.ctx); }
  KODictionary infoDictionary() const override {
    const auto json = ask(p_.info_dictionary, p_.ctx);
    if (!json) return {};
    KOValue info = fromPortJSON(*json);
    return info.isDictionary() ? std::move(info.dictionaryValue()) : KODictionary();
  }

  std::string identifierForVendor() const override { return orEmpty(ask(p_.identifier_for_vendor, p_.ctx)); }
  std::string model() const override { return orEmpty(ask(p_.model, p_.ctx)); }
  std::string name() const override { return orEmpty(ask(p_.name, p_.ctx)); }
  std::string systemName() const override { return orEmpty(ask(p_.system_name, p_.ctx)); }
  std::string systemVersion() const override { return orEmpty(ask(p_.system_version, p_.ctx)); }
  std::string localizedModel() const override { return orEmpty(ask(p_.localized_model, p_.ctx)); }
  KOUserInterfaceIdiom idiom() const override {
    return p_.idiom(p_.ctx) == 1 ? KOUserInterfaceIdiom::Pad : KOUserInterfaceIdiom::Phone;
  }
  KOSize screenSize() const override {
    double width = 0, height = 0, scale = 1;
    p_.screen(p_.ctx, &width, &height, &scale);
    return KOSize{width, height};
  }
  double screenScale() const override {
    double width = 0, height = 0, scale = 1;
    p_.screen(p_.ctx, &width, &height, &scale);
    return scale;
  }

  bool isAvailable() const override { return p_.advertising_available(p_.ctx) != 0; }
  bool isAdvertisingTrackingEnabled() const override { return p_.advertising_tracking_enabled(p_.ctx) != 0; }
  std::string advertisingIdentifier() const override { return orEmpty(ask(p_.advertising_identifier, p_.ctx)); }

  std::string localeIdentifier() const override { return orEmpty(ask(p_.locale_identifier, p_.ctx)); }
  std::string languageCode() const override { return orEmpty(ask(p_.language_code, p_.ctx)); }
  std::string countryCode() const override { return orEmpty(ask(p_.country_code, p_.ctx)); }
  std::string displayNameForLanguage(const std::string& code) const override {
    return orEmpty(ask(p_.language_name, p_.ctx, code.c_str()));
  }
  std::string displayNameForCountry(const std::string& code) const override {
    return orEmpty(ask(p_.country_name, p_.ctx, code.c_str()));
  }
  std::string timeZoneName() const override { return orEmpty(ask(p_.time_zone_name, p_.ctx)); }
  std::int64_t secondsFromGMT(double at) const override { return p_.seconds_from_gmt(p_.ctx, at); }

  double now() const override { return p_.now(p_.ctx); }

 private:
  kov_device_port p_;
};

// ------------------------------------------------------------------------------------- files

class MappedFile : public KOMappedFile {
 public:
  MappedFile(const kov_files_port& port, kov_mapping mapping) : p_(port), m_(mapping) {}
  ~MappedFile() override { p_.unmap_file(p_.ctx, &m_); }
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;
  char* data() override { return static_cast<char*>(m_.data); }
  std::size_t size() const override { return m_.size; }
  bool resize(std::size_t size) override { return p_.resize_mapping(p_.ctx, &m_, size) == 0; }

 private:
  kov_files_port p_;
  kov_mapping m_;
};

class Files : public KOFileSystem {
 public:
  explicit Files(const kov_files_port& port) : p_(port) {}

  std::string documentsDirectory() const override { return orEmpty(ask(p_.documents_directory, p_.ctx)); }
  std::string cachesDirectory() const override { return orEmpty(ask(p_.caches_directory, p_.ctx)); }
  std::string temporaryDirectory() const override { return orEmpty(ask(p_.temporary_directory, p_.ctx)); }
  std::optional<std::string> readFile(const std::string& path, KOFileError* error) const override {
    kov_out out;
    if (!succeeded(p_.read_file(p_.ctx, path.c_str(), &out), error)) return std::nullopt;
    return std::move(out.bytes);
  }
  bool writeFile(const std::string& path, std::string_view bytes, KOFileError* error, unsigned mode) override {
    return succeeded(p_.write_file(p_.ctx, path.c_str(), bytes.data(), bytes.size(), mode), error);
  }
  bool renameFile(const std::string& from, const std::string& to, KOFileError* error) override {
    return succeeded(p_.rename_file(p_.ctx, from.c_str(), to.c_str()), error);
  }
  bool removeItem(const std::string& path, KOFileError* error) override {
    return succeeded(p_.remove_item(p_.ctx, path.c_str()), error);
  }
  bool createDirectories(const std::string& path, KOFileError* error) override {
    return succeeded(p_.create_directories(p_.ctx, path.c_str()), error);
  }
  bool fileExists(const std::string& path) const override { return p_.file_exists(p_.ctx, path.c_str()) != 0; }
  std::vector<std::string> listDirectory(const std::string& path) const override {
    std::vector<std::string> names;
    const auto json = ask(p_.list_directory, p_.ctx, path.c_str());
    if (!json) return names;
    const KOValue list = KOValue::fromJSON(*json);
    if (!list.isArray()) return names;
    for (const KOValue& name : list.arrayValue()) {
      if (name.isString()) names.push_back(name.stringValue());
    }
    return names;
  }
  std::unique_ptr<KOMappedFile> mapFile(const std::string& path, std::size_t size, KOFileError* error) override {
    if (!p_.map_file) return KOFileSystem::mapFile(path, size, error);
    kov_mapping mapping{nullptr, 0, nullptr};
    if (!succeeded(p_.map_file(p_.ctx, path.c_str(), size, &mapping), error)) return nullptr;
    return std::make_unique<MappedFile>(p_, mapping);
  }

 private:
  kov_files_port p_;
};

// ------------------------------------------------------------------------------- preferences

class PreferenceStore : public KOPreferenceStore {
 public:
  PreferenceStore(const kov_preferences_port& port, std::optional<std::string> suite)
      : p_(port), suite_(std::move(suite)) {}

  KOValue objectForKey(std::string_view key) const override {
    const auto json = ask(p_.get, p_.ctx, suite(), std::string(key).c_str());
    return json ? fromPortJSON(*json) : KOValue();
  }
  void setObject(const KOValue& value, std::string_view key) override {
    if (value.isNil()) return removeObjectForKey(key);
    p_.set(p_.ctx, suite(), std::string(key).c_str(), toPortJSON(value).c_str());
  }
  void removeObjectForKey(std::string_view key) override { p_.set(p_.ctx, suite(), std::string(key).c_str(), nullptr); }
  bool synchronize() override { return p_.synchronize(p_.ctx, suite()) != 0; }
  KODictionary dictionaryRepresentation() const override {
    const auto json = ask(p_.dictionary, p_.ctx, suite());
    if (!json) return {};
    KOValue all = fromPortJSON(*json);
    return all.isDictionary() ? std::move(all.dictionaryValue()) : KODictionary();
  }
  bool unreadable() const override { return p_.unreadable && p_.unreadable(p_.ctx, suite()) != 0; }

 private:
  const char* suite() const { return suite_ ? suite_->c_str() : nullptr; }
  kov_preferences_port p_;
  std::optional<std::string> suite_;
};

class Preferences : public KOPreferences {
 public:
  explicit Preferences(const kov_preferences_port& port) : p_(port), standard_(port, std::nullopt) {}
  KOPreferenceStore& standard() override { return standard_; }
  KOPreferenceStore* suite(std::string_view groupIdentifier) override {
    const std::string group(groupIdentifier);
    if (p_.has_suite(p_.ctx, group.c_str()) == 0) return nullptr;
    std::lock_guard<std::mutex> lock(mutex_);
    auto& store = suites_[group];
    if (!store) store = std::make_unique<PreferenceStore>(p_, group);
    return store.get();
  }

 private:
  kov_preferences_port p_;
  PreferenceStore standard_;
  std::mutex mutex_;
  std::map<std::string, std::unique_ptr<PreferenceStore>> suites_;
};

// ---------------------------------------------------------------------------------- keychain

class Keychain : public KOKeychainStore {
 public:
  explicit Keychain(const kov_keychain_port& port) : p_(port) {}
  int add(const std::string& service, const std::string& account, std::string_view data,
          std::string_view accessibility) override {
    return p_.add(p_.ctx, service.c_str(), account.c_str(), data.data(), data.size(),
                  std::string(accessibility).c_str());
  }
  int copyMatching(const std::string& service, const std::string& account, std::string* data) const override {
    kov_out out;
    const int status = p_.copy_matching(p_.ctx, service.c_str(), account.c_str(), &out);
    if (status == KOKeychainSuccess && data) *data = std::move(out.bytes);
    return status;
  }
  int remove(const std::string& service, const std::string& account) override {
    return p_.remove(p_.ctx, service.c_str(), account.c_str());
  }

 private:
  kov_keychain_port p_;
};

// ------------------------------------------------------------------------------- application

class Application : public KOApplication {
 public:
  explicit Application(const kov_application_port& port) : p_(port) {}

  KOApplicationState applicationState() const override {
    switch (p_.state(p_.ctx)) {
      case 0:
        return KOApplicationState::Active;
      case 2:
        return KOApplicationState::Background;
      default:
        return KOApplicationState::Inactive;
    }
  }
  std::int64_t applicationIconBadgeNumber() const override { return p_.badge(p_.ctx); }
  void setApplicationIconBadgeNumber(std::int64_t badge) override { p_.set_badge(p_.ctx, badge); }
  KOBackgroundTaskIdentifier beginBackgroundTask(const std::string& name,
                                                 std::function<void()> expirationHandler) override {
    return p_.begin_background_task(p_.ctx, name.c_str(), task(std::move(expirationHandler)));
  }
  void endBackgroundTask(KOBackgroundTaskIdentifier id) override { p_.end_background_task(p_.ctx, id); }
  bool canOpenURL(const std::string& url) const override { return p_.can_open_url(p_.ctx, url.c_str()) != 0; }
  void openURL(const std::string& url, std::function<void(bool)> completion) override {
    p_.open_url(p_.ctx, url.c_str(), handler([completion = std::move(completion)](const KOValue& args) {
                  if (completion) completion(args.isNumber() && args.boolValue());
                }));
  }
  void openSettings() override { p_.open_settings(p_.ctx); }
  void registerForRemoteNotifications() override { p_.register_for_remote_notifications(p_.ctx); }
  bool isRegisteredForRemoteNotifications() const override {
    return p_.is_registered_for_remote_notifications(p_.ctx) != 0;
  }
  std::shared_ptr<KOViewController> keyWindowRootViewController() const override { return screen(p_.key_window_root); }
  std::shared_ptr<KOViewController> delegateWindowRootViewController() const override {
    return screen(p_.delegate_window_root);
  }
  bool isKeyboardShown() const override { return p_.keyboard_shown(p_.ctx) != 0; }
  bool delegateHandlesNotificationResponses() const override {
    return p_.delegate_handles_notification_responses && p_.delegate_handles_notification_responses(p_.ctx) != 0;
  }

 private:
  std::shared_ptr<KOViewController> screen(void (*fn)(void*, kov_out*)) const {
    const auto json = ask(fn, p_.ctx);
    return json ? screenFrom(KOValue::fromJSON(*json)) : nullptr;
  }
  kov_application_port p_;
};

// ---------------------------------------------------------------------------------- dispatch

class Dispatch : public KODispatch {
 public:
  explicit Dispatch(const kov_dispatch_port& port) : p_(port) {}
  void asyncMain(std::function<void()> work) override { p_.async_main(p_.ctx, task(std::move(work))); }
  void asyncBackground(std::function<void()> work) override { p_.async_background(p_.ctx, task(std::move(work))); }
  KODispatchToken afterMain(double delaySeconds, std::function<void()> work) override {
    return p_.after_main(p_.ctx, delaySeconds, task(std::move(work)));
  }
  KODispatchToken afterBackground(double delaySeconds, std::function<void()> work) override {
    return p_.after_background(p_.ctx, delaySeconds, task(std::move(work)));
  }
  bool cancel(KODispatchToken token) override { return p_.cancel(p_.ctx, token) != 0; }
  bool isMainThread() const override { return p_.is_main_thread(p_.ctx) != 0; }

 private:
  kov_dispatch_port p_;
};

// ------------------------------------------------------------------------------------ console

// Every line also goes to the capture of the facade call running on this thread, if any.
class Console : public KOConsole {
 public:
  explicit Console(const kov_console_port& port) : p_(port) {}
  void writeLine(std::string_view line) override {
    consoleLine(line);
    const std::string text(line);
    p_.write_line(p_.ctx, text.c_str(), text.size());
  }

 private:
  kov_console_port p_;
};

KOServiceEndpoints endpointsFrom(const kov_endpoints& e) {
  KOServiceEndpoints endpoints;
  if (e.scheme) endpoints.scheme = e.scheme;
  if (e.api_host) endpoints.apiHost = e.api_host;
  if (e.india_api_host) endpoints.indiaApiHost = e.india_api_host;
  if (e.inbox_host) endpoints.inboxHost = e.inbox_host;
  if (e.log_host) endpoints.logHost = e.log_host;
  if (e.port > 0) endpoints.port = e.port;
  if (e.skip_certificate_verification) endpoints.verifyCertificates = false;
  if (e.timeout_seconds > 0) endpoints.timeoutSeconds = e.timeout_seconds;
  return endpoints;
}

// The first required function of the tables that is missing, named as the header spells it.
std::optional<std::string> missingFunction(const kov_platform& p) {
  const std::pair<bool, const char*> required[] = {
#define KOC_REQUIRED(table, fn) {p.table.fn != nullptr, #table "." #fn}
      KOC_REQUIRED(device, short_version),
      KOC_REQUIRED(device, build_version),
      KOC_REQUIRED(device, bundle_identifier),
      KOC_REQUIRED(device, info_dictionary),
      KOC_REQUIRED(device, identifier_for_vendor),
      KOC_REQUIRED(device, model),
      KOC_REQUIRED(device, name),
      KOC_REQUIRED(device, system_name),
      KOC_REQUIRED(device, system_version),
      KOC_REQUIRED(device, localized_model),
      KOC_REQUIRED(device, idiom),
      KOC_REQUIRED(device, screen),
      KOC_REQUIRED(device, advertising_available),
      KOC_REQUIRED(device, advertising_tracking_enabled),
      KOC_REQUIRED(device, advertising_identifier),
      KOC_REQUIRED(device, locale_identifier),
      KOC_REQUIRED(device, language_code),
      KOC_REQUIRED(device, country_code),
      KOC_REQUIRED(device, language_name),
      KOC_REQUIRED(device, country_name),
      KOC_REQUIRED(device, time_zone_name),
      KOC_REQUIRED(device, seconds_from_gmt),
      KOC_REQUIRED(device, now),
      KOC_REQUIRED(files, documents_directory),
      KOC_REQUIRED(files, caches_directory),
      KOC_REQUIRED(files, temporary_directory),
      KOC_REQUIRED(files, read_file),
      KOC_REQUIRED(files, write_file),
      KOC_REQUIRED(files, rename_file),
      KOC_REQUIRED(files, remove_item),
      KOC_REQUIRED(files, create_directories),
      KOC_REQUIRED(files, file_exists),
      KOC_REQUIRED(files, list_directory),
      KOC_REQUIRED(preferences, has_suite),
      KOC_REQUIRED(preferences, get),
      KOC_REQUIRED(preferences, set),
      KOC_REQUIRED(preferences, synchronize),
      KOC_REQUIRED(preferences, dictionary),
      KOC_REQUIRED(keychain, add),
      KOC_REQUIRED(keychain, copy_matching),
      KOC_REQUIRED(keychain, remove),
      KOC_REQUIRED(application, state),
      KOC_REQUIRED(application, badge),
      KOC_REQUIRED(application, set_badge),
      KOC_REQUIRED(application, begin_background_task),
      KOC_REQUIRED(application, end_background_task),
      KOC_REQUIRED(application, can_open_url),
      KOC_REQUIRED(application, open_url),
      KOC_REQUIRED(application, open_settings),
      KOC_REQUIRED(application, register_for_remote_notifications),
      KOC_REQUIRED(application, is_registered_for_remote_notifications),
      KOC_REQUIRED(application, key_window_root),
      KOC_REQUIRED(application, delegate_window_root),
      KOC_REQUIRED(application, keyboard_shown),
      KOC_REQUIRED(dispatch, async_main),
      KOC_REQUIRED(dispatch, async_background),
      KOC_REQUIRED(dispatch, after_main),
      KOC_REQUIRED(dispatch, after_background),
      KOC_REQUIRED(dispatch, cancel),
      KOC_REQUIRED(dispatch, is_main_thread),
      KOC_REQUIRED(user_interface, supports_alert_controller),
      KOC_REQUIRED(user_interface, present_alert),
      KOC_REQUIRED(user_interface, present_share_sheet),
      KOC_REQUIRED(user_interface, size_of_text),
      KOC_REQUIRED(user_interface, height_of_text),
      KOC_REQUIRED(user_interface, system_font_size),
      KOC_REQUIRED(user_interface, embed_screen),
      KOC_REQUIRED(user_interface, present_screen),
      KOC_REQUIRED(user_interface, present_browser),
      KOC_REQUIRED(user_interface, update_screen),
      KOC_REQUIRED(user_interface, remove_screen),
      KOC_REQUIRED(user_interface, view_with_tag),
      KOC_REQUIRED(user_interface, release_screen),
      KOC_REQUIRED(user_interface, set_pasteboard),
      KOC_REQUIRED(notification_center, request_authorization),
      KOC_REQUIRED(notification_center, get_settings),
      KOC_REQUIRED(notification_center, set_categories),
      KOC_REQUIRED(notification_center, set_delegate),
      KOC_REQUIRED(notification_center, register_settings),
      KOC_REQUIRED(console, write_line),
#undef KOC_REQUIRED
  };
  for (const auto& [present, name] : required) {
    if (!present) return std::string(name);
  }
  // Mapping is all or nothing; location managers need every call once they can be made.
  const bool mapping[] = {p.files.map_file != nullptr, p.files.resize_mapping != nullptr,
                          p.files.unmap_file != nullptr};
  if (mapping[0] != mapping[1] || mapping[0] != mapping[2]) {
    return std::string("files.map_file, files.resize_mapping and files.unmap_file (all or none)");
  }
  const kov_location_port& l = p.location;
  if (l.make_manager &&
      !(l.services_enabled && l.authorization_status && l.offers_always && l.request_always && l.offers_when_in_use &&
        l.request_when_in_use && l.start_updating && l.stop_updating && l.monitoring_available && l.start_monitoring &&
        l.stop_monitoring && l.monitored_regions && l.release_manager)) {
    return std::string("a function of location (every one is needed once make_manager is set)");
  }
  return std::nullopt;
}

}  // namespace

}  // namespace KOC

extern "C" {

kov_status kov_platform_install(const kov_platform* platform) {
  return KOC::plainCall([&] {
    const kov_platform& p = *KOC::needPointer(platform, "platform");
    if (auto missing = KOC::missingFunction(p))
      KOC::fail(KOV_INVALID_ARGUMENT, "the port's " + *missing + " is missing");
    auto installed = std::make_shared<KOPlatform>();
    auto device = std::make_shared<KOC::Device>(p.device);
    installed->appInfo = device;
    installed->deviceInfo = device;
    installed->advertising = device;
    installed->locale = device;
    installed->clock = device;
    installed->fileSystem = std::make_shared<KOC::Files>(p.files);
    installed->preferences = std::make_shared<KOC::Preferences>(p.preferences);
    installed->keychain = std::make_shared<KOC::Keychain>(p.keychain);
    installed->application = std::make_shared<KOC::Application>(p.application);
    installed->dispatch = std::make_shared<KOC::Dispatch>(p.dispatch);
    installed->userInterface = KOC::makeUserInterface(p.user_interface);
    installed->notificationCenter = KOC::makeNotificationCenter(p.notification_center);
    installed->makeLocationManager = KOC::makeLocationManagers(p.location);
    installed->console = std::make_shared<KOC::Console>(p.console);
    installed->endpoints = KOC::endpointsFrom(p.endpoints);
    KOPlatform::install(std::move(installed));
  });
}

kov_status kov_set_service_endpoints(const kov_endpoints* endpoints) {
  return KOC::plainCall([&] {
    KOC::requireInstalled();
    auto changed = std::make_shared<KOPlatform>(KOPlatform::current());
    changed->endpoints = KOC::endpointsFrom(*KOC::needPointer(endpoints, "endpoints"));
    KOPlatform::install(std::move(changed));
  });
}

}  // extern "C"
