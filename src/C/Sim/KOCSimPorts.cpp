// The simulated device's bundle, hardware, files, preferences, keychain, application, queues and
// console as C tables: each function turns its C arguments back into the device's C++ call.
#include <cerrno>
#include <cstring>

#include "C/KOCConvert.h"
#include "KOCSim.h"

namespace KOCSim {

namespace {

KOCSimContext& sim(void* ctx) { return *static_cast<KOCSimContext*>(ctx); }

void put(kov_out* out, std::string_view text) { kov_out_set(out, text.data(), text.size()); }
void putOptional(kov_out* out, const std::optional<std::string>& text) {
  if (text) put(out, *text);
}

// The port's answer for a failed file call: its errno value, never 0.
int code(const KOFileError& error) { return error.code != 0 ? error.code : EIO; }

void fillDevice(kov_device_port& p) {
  p.short_version = [](void* c, kov_out* o) { putOptional(o, sim(c).profile->shortVersion()); };
  p.build_version = [](void* c, kov_out* o) { putOptional(o, sim(c).profile->buildVersion()); };
  p.bundle_identifier = [](void* c, kov_out* o) { putOptional(o, sim(c).profile->bundleIdentifier()); };
  p.info_dictionary = [](void* c, kov_out* o) { put(o, KOC::toPortJSON(KOValue(sim(c).profile->infoDictionary()))); };
  p.identifier_for_vendor = [](void* c, kov_out* o) { put(o, sim(c).profile->identifierForVendor()); };
  p.model = [](void* c, kov_out* o) { put(o, sim(c).profile->model()); };
  p.name = [](void* c, kov_out* o) { put(o, sim(c).profile->name()); };
  p.system_name = [](void* c, kov_out* o) { put(o, sim(c).profile->systemName()); };
  p.system_version = [](void* c, kov_out* o) { put(o, sim(c).profile->systemVersion()); };
  p.localized_model = [](void* c, kov_out* o) { put(o, sim(c).profile->localizedModel()); };
  p.idiom = [](void* c) { return sim(c).profile->idiom() == KOUserInterfaceIdiom::Pad ? 1 : 0; };
  p.screen = [](void* c, double* width, double* height, double* scale) {
    const KOSize size = sim(c).profile->screenSize();
    *width = size.width;
    *height = size.height;
    *scale = sim(c).profile->screenScale();
  };
  p.advertising_available = [](void* c) { return sim(c).profile->isAvailable() ? 1 : 0; };
  p.advertising_tracking_enabled = [](void* c) { return sim(c).profile->isAdvertisingTrackingEnabled() ? 1 : 0; };
  p.advertising_identifier = [](void* c, kov_out* o) { put(o, sim(c).profile->advertisingIdentifier()); };
  p.locale_identifier = [](void* c, kov_out* o) { put(o, sim(c).profile->localeIdentifier()); };
  p.language_code = [](void* c, kov_out* o) { put(o, sim(c).profile->languageCode()); };
  p.country_code = [](void* c, kov_out* o) { put(o, sim(c).profile->countryCode()); };
  p.language_name = [](void* c, const char* code, kov_out* o) { put(o, sim(c).profile->displayNameForLanguage(code)); };
  p.country_name = [](void* c, const char* code, kov_out* o) { put(o, sim(c).profile->displayNameForCountry(code)); };
  p.time_zone_name = [](void* c, kov_out* o) { put(o, sim(c).profile->timeZoneName()); };
  p.seconds_from_gmt = [](void* c, double at) { return sim(c).profile->secondsFromGMT(at); };
  p.now = [](void* c) { return sim(c).clock->now(); };
}

void fillFiles(kov_files_port& p) {
  p.documents_directory = [](void* c, kov_out* o) { put(o, sim(c).files->documentsDirectory()); };
  p.caches_directory = [](void* c, kov_out* o) { put(o, sim(c).files->cachesDirectory()); };
  p.temporary_directory = [](void* c, kov_out* o) { put(o, sim(c).files->temporaryDirectory()); };
  p.read_file = [](void* c, const char* path, kov_out* o) {
    KOFileError error;
    const std::optional<std::string> bytes = sim(c).files->readFile(path, &error);
    if (!bytes) return error.code != 0 ? error.code : ENOENT;
    put(o, *bytes);
    return 0;
  };
  p.write_file = [](void* c, const char* path, const void* bytes, size_t length, unsigned mode) {
    KOFileError error;
    const std::string_view data(static_cast<const char*>(bytes), bytes ? length : 0);
    return sim(c).files->writeFile(path, data, &error, mode) ? 0 : code(error);
  };
  p.rename_file = [](void* c, const char* from, const char* to) {
    KOFileError error;
    return sim(c).files->renameFile(from, to, &error) ? 0 : code(error);
  };
  p.remove_item = [](void* c, const char* path) {
    KOFileError error;
    return sim(c).files->removeItem(path, &error) ? 0 : code(error);
  };
  p.create_directories = [](void* c, const char* path) {
    KOFileError error;
    return sim(c).files->createDirectories(path, &error) ? 0 : code(error);
  };
  p.file_exists = [](void* c, const char* path) { return sim(c).files->fileExists(path) ? 1 : 0; };
  p.list_directory = [](void* c, const char* path, kov_out* o) {
    KOArray names;
    for (const std::string& name : sim(c).files->listDirectory(path)) names.push_back(name);
    put(o, KOValue(std::move(names)).toJSON());
  };
  // The mapping's handle is the device's own mapped file.
  p.map_file = [](void* c, const char* path, size_t size, kov_mapping* mapping) {
    KOFileError error;
    std::unique_ptr<KOMappedFile> mapped = sim(c).files->mapFile(path, size, &error);
    if (!mapped) return code(error);
    mapping->data = mapped->data();
    mapping->size = mapped->size();
    mapping->handle = mapped.release();
    return 0;
  };
  p.resize_mapping = [](void*, kov_mapping* mapping, size_t size) {
    auto* mapped = static_cast<KOMappedFile*>(mapping->handle);
    if (!mapped->resize(size)) return ENOSPC;
    mapping->data = mapped->data();
    mapping->size = mapped->size();
    return 0;
  };
  p.unmap_file = [](void*, kov_mapping* mapping) {
    delete static_cast<KOMappedFile*>(mapping->handle);
    *mapping = kov_mapping{nullptr, 0, nullptr};
  };
}

KOPreferenceStore* store(void* c, const char* suite) {
  KOSimPreferences& preferences = *sim(c).preferences;
  return suite ? preferences.suite(suite) : &preferences.standard();
}

void fillPreferences(kov_preferences_port& p) {
  p.has_suite = [](void* c, const char* suite) { return sim(c).preferences->suite(suite) ? 1 : 0; };
  p.get = [](void* c, const char* suite, const char* key, kov_out* o) {
    KOPreferenceStore* s = store(c, suite);
    if (!s) return;
    const KOValue value = s->objectForKey(key);
    if (!value.isNil()) put(o, KOC::toPortJSON(value));
  };
  p.set = [](void* c, const char* suite, const char* key, const char* value) {
    KOPreferenceStore* s = store(c, suite);
    if (!s) return;
    if (value) {
      s->setObject(KOC::fromPortJSON(value), key);
    } else {
      s->removeObjectForKey(key);
    }
  };
  p.synchronize = [](void* c, const char* suite) {
    KOPreferenceStore* s = store(c, suite);
    return s && s->synchronize() ? 1 : 0;
  };
  p.dictionary = [](void* c, const char* suite, kov_out* o) {
    if (KOPreferenceStore* s = store(c, suite)) put(o, KOC::toPortJSON(KOValue(s->dictionaryRepresentation())));
  };
  p.unreadable = [](void* c, const char* suite) {
    KOPreferenceStore* s = store(c, suite);
    return s && s->unreadable() ? 1 : 0;
  };
}

void fillKeychain(kov_keychain_port& p) {
  p.add = [](void* c, const char* service, const char* account, const void* data, size_t length,
             const char* accessibility) {
    return sim(c).keychain->add(service, account, std::string_view(static_cast<const char*>(data), data ? length : 0),
                                accessibility ? accessibility : "");
  };
  p.copy_matching = [](void* c, const char* service, const char* account, kov_out* o) {
    std::string data;
    const int status = sim(c).keychain->copyMatching(service, account, &data);
    if (status == KOKeychainSuccess) put(o, data);
    return status;
  };
  p.remove = [](void* c, const char* service, const char* account) {
    return sim(c).keychain->remove(service, account);
  };
}

void putScreen(kov_out* o, const std::shared_ptr<KOViewController>& root) {
  if (root) put(o, KOC::screenValue(*root).toJSON());
}

void fillApplication(kov_application_port& p) {
  p.state = [](void* c) {
    switch (sim(c).application->applicationState()) {
      case KOApplicationState::Active:
        return 0;
      case KOApplicationState::Inactive:
        return 1;
      case KOApplicationState::Background:
        break;
    }
    return 2;
  };
  p.badge = [](void* c) { return sim(c).application->applicationIconBadgeNumber(); };
  p.set_badge = [](void* c, int64_t badge) { sim(c).application->setApplicationIconBadgeNumber(badge); };
  p.begin_background_task = [](void* c, const char* name, kov_task* expiration) -> uint64_t {
    auto task = std::make_shared<Task>(expiration);
    return sim(c).application->beginBackgroundTask(name, [task] { task->run(); });
  };
  p.end_background_task = [](void* c, uint64_t task) { sim(c).application->endBackgroundTask(task); };
  p.can_open_url = [](void* c, const char* url) { return sim(c).application->canOpenURL(url) ? 1 : 0; };
  p.open_url = [](void* c, const char* url, kov_handler* completion) {
    auto done = std::make_shared<Handler>(completion);
    sim(c).application->openURL(url, [done](bool opened) { done->call(opened ? "true" : "false"); });
  };
  p.open_settings = [](void* c) { sim(c).application->openSettings(); };
  p.register_for_remote_notifications = [](void* c) { sim(c).application->registerForRemoteNotifications(); };
  p.is_registered_for_remote_notifications = [](void* c) {
    return sim(c).application->isRegisteredForRemoteNotifications() ? 1 : 0;
  };
  p.key_window_root = [](void* c, kov_out* o) { putScreen(o, sim(c).application->keyWindowRootViewController()); };
  p.delegate_window_root = [](void* c, kov_out* o) {
    putScreen(o, sim(c).application->delegateWindowRootViewController());
  };
  p.keyboard_shown = [](void* c) { return sim(c).application->isKeyboardShown() ? 1 : 0; };
  p.delegate_handles_notification_responses = [](void* c) {
    return sim(c).application->delegateHandlesNotificationResponses() ? 1 : 0;
  };
}

std::function<void()> runs(kov_task* task) {
  auto held = std::make_shared<Task>(task);
  return [held] { held->run(); };
}

void fillDispatch(kov_dispatch_port& p) {
  p.async_main = [](void* c, kov_task* task) { sim(c).dispatch->asyncMain(runs(task)); };
  p.async_background = [](void* c, kov_task* task) { sim(c).dispatch->asyncBackground(runs(task)); };
  p.after_main = [](void* c, double delay, kov_task* task) { return sim(c).dispatch->afterMain(delay, runs(task)); };
  p.after_background = [](void* c, double delay, kov_task* task) {
    return sim(c).dispatch->afterBackground(delay, runs(task));
  };
  p.cancel = [](void* c, uint64_t token) { return sim(c).dispatch->cancel(token) ? 1 : 0; };
  p.is_main_thread = [](void* c) { return sim(c).dispatch->isMainThread() ? 1 : 0; };
}

}  // namespace

void fillPorts(KOCSimContext& context, kov_platform& platform) {
  platform = kov_platform{};
  void* ctx = &context;
  platform.device.ctx = platform.files.ctx = platform.preferences.ctx = platform.keychain.ctx = ctx;
  platform.application.ctx = platform.dispatch.ctx = platform.console.ctx = ctx;
  fillDevice(platform.device);
  fillFiles(platform.files);
  fillPreferences(platform.preferences);
  fillKeychain(platform.keychain);
  fillApplication(platform.application);
  fillDispatch(platform.dispatch);
  platform.console.write_line = [](void* c, const char* line, size_t length) {
    sim(c).console->writeLine(std::string_view(line, length));
  };
  fillScreenPorts(context, platform);
}

}  // namespace KOCSim
