// kov_sim_device_*: the simulated device built, scripted and inspected from C.
#include <cstdlib>
#include <cstring>

#include "C/KOCConvert.h"
#include "KOCSim.h"

namespace KOCSim {

void answer(char** out, std::string_view text) {
  need(out, "the answer's pointer");
  auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (!copy) throw std::bad_alloc();
  std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  *out = copy;
}

namespace {

KOSimDeviceConfig configFrom(const char* json) {
  KOSimDeviceConfig config;
  if (!json) return config;
  const KOValue c = KOValue::fromJSON(json);
  if (!c.isDictionary()) fail(KOV_INVALID_JSON, "config_json must be a JSON object");
  config.rootDirectory = KOC::text(c, "rootDirectory");
  config.echoConsole = c["echoConsole"].isBool() && c["echoConsole"].boolValue();
  KOSimProfileSettings& profile = config.profile;
  const auto set = [&](const char* key, std::string& field) {
    if (c[key].isString()) field = c[key].stringValue();
  };
  set("bundleIdentifier", profile.bundleIdentifier);
  set("shortVersion", profile.shortVersion);
  set("buildVersion", profile.buildVersion);
  set("systemVersion", profile.systemVersion);
  set("localeIdentifier", profile.localeIdentifier);
  set("timeZoneName", profile.timeZoneName);
  return config;
}

KOSimDevice& device(kov_sim_device* d) { return *need(d, "device")->device; }

KODictionary object(const char* json, const char* name) {
  KOValue value = KOC::fromPortJSON(need(json, name));
  if (!value.isDictionary()) fail(KOV_INVALID_JSON, std::string(name) + " must be a JSON object");
  return std::move(value.dictionaryValue());
}

std::vector<std::string> attachments(const char* json) {
  std::vector<std::string> ids;
  if (!json) return ids;
  const KOValue list = KOValue::fromJSON(json);
  if (!list.isArray()) fail(KOV_INVALID_JSON, "attachments_json must be a JSON array");
  for (const KOValue& id : list.arrayValue()) {
    if (id.isString()) ids.push_back(id.stringValue());
  }
  return ids;
}

void tell(int* heard, bool value) {
  if (heard) *heard = value ? 1 : 0;
}

std::string viewOrNull(const std::optional<KOViewDescription>& view) {
  return view ? view->toValue().toJSON() : std::string("null");
}

// The app's own code, as the delegate C gave: each member only when set, so that the device
// reports pushes no code heard.
void applyDelegate(kov_sim_device* d, const kov_sim_app_delegate& delegate) {
  KOSimApplication& app = d->device->application();
  if (delegate.registered || delegate.registration_failed) {
    app.setRemoteNotificationHandlers(
        [delegate](const std::string& token) {
          if (delegate.registered) delegate.registered(delegate.ctx, token.data(), token.size());
        },
        [delegate] {
          if (delegate.registration_failed) delegate.registration_failed(delegate.ctx);
        });
  } else {
    app.setRemoteNotificationHandlers(nullptr, nullptr);
  }
  if (delegate.remote_notification) {
    app.setRemoteNotificationHandler([delegate](const KODictionary& payload) {
      delegate.remote_notification(delegate.ctx, KOC::toPortJSON(KOValue(payload)).c_str());
    });
  } else {
    app.setRemoteNotificationHandler(nullptr);
  }
  if (delegate.notification_action) {
    app.setNotificationActionHandler([delegate](const std::string& identifier, const KODictionary& payload) {
      delegate.notification_action(delegate.ctx, identifier.c_str(), KOC::toPortJSON(KOValue(payload)).c_str());
    });
  } else {
    app.setNotificationActionHandler(nullptr);
  }
}

}  // namespace

}  // namespace KOCSim

using KOCSim::device;
using KOCSim::fail;

extern "C" {

kov_status kov_sim_device_create(const char* config_json, kov_sim_device** out) {
  return KOCSim::call([&] {
    kov_sim_device*& made = *KOCSim::need(out, "device");
    auto d = std::make_unique<KOSimDevice>(KOCSim::configFrom(config_json));
    auto* context = new KOCSimContext();
    context->parts = d->platform();
    context->location = d->location().shared_from_this();
    context->profile = &d->profile();
    context->files = &d->files();
    context->preferences = &d->preferences();
    context->keychain = &d->keychain();
    context->application = &d->application();
    context->dispatch = &d->dispatch();
    context->userInterface = &d->userInterface();
    context->notificationCenter = &d->notificationCenter();
    context->console = &d->console();
    context->clock = &d->clock();
    made = new kov_sim_device{std::move(d), context};
  });
}

void kov_sim_device_destroy(kov_sim_device* d) {
  // The context stays: the installed platform's ports still point at it.
  delete d;
}

kov_status kov_sim_device_ports(kov_sim_device* d, kov_platform* platform) {
  return KOCSim::call([&] {
    KOCSim::need(d, "device");
    KOCSim::fillPorts(*d->context, *KOCSim::need(platform, "platform"));
  });
}

kov_status kov_sim_device_root_directory(kov_sim_device* d, char** path) {
  return KOCSim::call([&] { KOCSim::answer(path, device(d).rootDirectory()); });
}

kov_status kov_sim_device_uninstall(kov_sim_device* d) {
  return KOCSim::call([&] { device(d).uninstall(); });
}

kov_status kov_sim_device_lifecycle(kov_sim_device* d, kov_sim_lifecycle step) {
  return KOCSim::call([&] {
    KOSimDevice& sim = device(d);
    switch (step) {
      case KOV_SIM_LAUNCH:
        return sim.launch();
      case KOV_SIM_BECOME_ACTIVE:
        return sim.becomeActive();
      case KOV_SIM_RESIGN_ACTIVE:
        return sim.resignActive();
      case KOV_SIM_ENTER_BACKGROUND:
        return sim.enterBackground();
      case KOV_SIM_ENTER_FOREGROUND:
        return sim.enterForeground();
      case KOV_SIM_TERMINATE:
        return sim.terminate();
    }
    fail(KOV_INVALID_ARGUMENT, "no such step of the lifecycle");
  });
}

kov_status kov_sim_device_pump_main(kov_sim_device* d, size_t* ran) {
  return KOCSim::call([&] {
    const std::size_t count = device(d).pumpMain();
    if (ran) *ran = count;
  });
}

kov_status kov_sim_device_run_main_until(kov_sim_device* d, kov_sim_condition condition, void* ctx,
                                         double timeout_seconds, int* met) {
  return KOCSim::call([&] {
    KOCSim::need(condition, "condition");
    KOCSim::tell(met, device(d).runMainUntil([&] { return condition(ctx) != 0; }, timeout_seconds));
  });
}

kov_status kov_sim_device_fix_clock(kov_sim_device* d, double seconds_since_1970) {
  return KOCSim::call([&] { device(d).clock().setNow(seconds_since_1970); });
}

kov_status kov_sim_device_advance_clock(kov_sim_device* d, double seconds) {
  return KOCSim::call([&] { device(d).clock().advance(seconds); });
}

kov_status kov_sim_device_use_real_time(kov_sim_device* d) {
  return KOCSim::call([&] { device(d).clock().useRealTime(); });
}

kov_status kov_sim_device_set_app_delegate(kov_sim_device* d, const kov_sim_app_delegate* delegate) {
  return KOCSim::call([&] {
    KOCSim::need(d, "device");
    const kov_sim_app_delegate given = delegate ? *delegate : kov_sim_app_delegate{};
    {
      std::lock_guard<std::mutex> lock(d->context->mutex);
      d->context->delegate = given;
    }
    KOCSim::applyDelegate(d, given);
  });
}

kov_status kov_sim_device_receive_push(kov_sim_device* d, const char* payload_json, int* heard) {
  return KOCSim::call(
      [&] { KOCSim::tell(heard, device(d).receivePush(KOCSim::object(payload_json, "payload_json"))); });
}

kov_status kov_sim_device_open_push(kov_sim_device* d, const char* payload_json, const char* attachments_json,
                                    int* heard) {
  return KOCSim::call([&] {
    KOCSim::tell(
        heard, device(d).openPush(KOCSim::object(payload_json, "payload_json"), KOCSim::attachments(attachments_json)));
  });
}

kov_status kov_sim_device_respond_to_push(kov_sim_device* d, const char* payload_json, const char* action_identifier,
                                          const char* attachments_json, int* heard) {
  return KOCSim::call([&] {
    KOCSim::tell(heard, device(d).respondToPush(KOCSim::object(payload_json, "payload_json"),
                                                KOCSim::need(action_identifier, "action_identifier"),
                                                KOCSim::attachments(attachments_json)));
  });
}

kov_status kov_sim_device_launch_from_push(kov_sim_device* d, const char* payload_json, char** launch_options_json) {
  return KOCSim::call([&] {
    const KODictionary options = device(d).launchFromPush(KOCSim::object(payload_json, "payload_json"));
    KOCSim::answer(launch_options_json, KOC::toPortJSON(KOValue(options)));
  });
}

kov_status kov_sim_device_set_push_permission_answer(kov_sim_device* d, int answer) {
  return KOCSim::call([&] {
    if (answer < 0 || answer > 2) fail(KOV_INVALID_ARGUMENT, "answer must be 0, 1 or 2");
    device(d).notificationCenter().setAuthorizationAnswer(static_cast<KOSimNotificationCenter::Answer>(answer));
  });
}

kov_status kov_sim_device_add_openable_scheme(kov_sim_device* d, const char* scheme) {
  return KOCSim::call([&] { device(d).application().addOpenableScheme(KOCSim::need(scheme, "scheme")); });
}

kov_status kov_sim_device_set_screens(kov_sim_device* d, const char* root_screen_json) {
  return KOCSim::call([&] {
    auto root = KOC::screenFrom(KOValue::fromJSON(KOCSim::need(root_screen_json, "root_screen_json")));
    if (!root) fail(KOV_INVALID_JSON, "root_screen_json must be a JSON object");
    device(d).application().setKeyWindowRootViewController(std::move(root));
  });
}

kov_status kov_sim_device_screen_record(kov_sim_device* d, char** entries_json) {
  return KOCSim::call([&] {
    KOArray entries;
    for (KODictionary& entry : device(d).screen().entries()) entries.push_back(std::move(entry));
    KOCSim::answer(entries_json, KOC::toPortJSON(KOValue(std::move(entries))));
  });
}

kov_status kov_sim_device_presented_screen(kov_sim_device* d, char** view_json) {
  return KOCSim::call(
      [&] { KOCSim::answer(view_json, KOCSim::viewOrNull(device(d).userInterface().presentedScreen())); });
}

kov_status kov_sim_device_embedded_screen(kov_sim_device* d, char** view_json) {
  return KOCSim::call(
      [&] { KOCSim::answer(view_json, KOCSim::viewOrNull(device(d).userInterface().embeddedScreen())); });
}

kov_status kov_sim_device_tap_view(kov_sim_device* d, int64_t tag) {
  return KOCSim::call([&] {
    if (!device(d).userInterface().tapView(tag)) {
      fail(KOV_INVALID_ARGUMENT, "no shown view has the tag " + std::to_string(tag));
    }
  });
}

kov_status kov_sim_device_swipe_to_delete(kov_sim_device* d, int64_t tag) {
  return KOCSim::call([&] {
    if (!device(d).userInterface().swipeToDelete(tag)) {
      fail(KOV_INVALID_ARGUMENT, "no shown row with the tag " + std::to_string(tag) + " can be deleted");
    }
  });
}

kov_status kov_sim_device_tap_alert_action(kov_sim_device* d, size_t alert, size_t action) {
  return KOCSim::call([&] {
    if (!device(d).userInterface().tapAlertAction(alert, action)) {
      fail(KOV_INVALID_ARGUMENT,
           "no open alert " + std::to_string(alert) + " with an action " + std::to_string(action));
    }
  });
}

kov_status kov_sim_device_finish_browser(kov_sim_device* d) {
  return KOCSim::call([&] {
    if (!device(d).userInterface().finishBrowser()) fail(KOV_INVALID_ARGUMENT, "no browser is shown");
  });
}

kov_status kov_sim_device_pasteboard(kov_sim_device* d, char** text) {
  return KOCSim::call([&] { KOCSim::answer(text, device(d).userInterface().pasteboardString()); });
}

kov_status kov_sim_device_console_lines(kov_sim_device* d, char** lines_json) {
  return KOCSim::call([&] {
    KOArray lines;
    for (std::string& line : device(d).console().lines()) lines.push_back(std::move(line));
    KOCSim::answer(lines_json, KOValue(std::move(lines)).toJSON());
  });
}

kov_status kov_sim_device_move_to(kov_sim_device* d, double latitude, double longitude) {
  return KOCSim::call([&] { device(d).location().moveTo(KOLocationCoordinate{latitude, longitude}); });
}

kov_status kov_sim_device_monitored_regions(kov_sim_device* d, char** regions_json) {
  return KOCSim::call([&] {
    KOArray regions;
    for (const KOCircularRegion& region : device(d).location().monitoredRegions()) {
      regions.push_back(KOC::regionValue(region));
    }
    KOCSim::answer(regions_json, KOValue(std::move(regions)).toJSON());
  });
}

}  // extern "C"
