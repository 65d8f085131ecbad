// The simulated device behind kovantis_sim_c.h: its ports as C tables (KOCSimPorts.cpp,
// KOCSimScreenPorts.cpp), so that a wrapper's tests run the SDK through the same adapter a real
// bridge's ports go through, and the calls that script and inspect it (KOCSimDevice.cpp).
#pragma once

#include <exception>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "Sim/KOSimDevice.h"
#include "kovantis/kovantis_sim_c.h"

/// What the device's port functions are handed as their context. It outlives the device (ports
/// are copied into the installed platform, which lives until the process ends): it holds the
/// device's parts, not the device, whose end only stops its queues.
struct KOCSimContext {
  std::shared_ptr<const KOPlatform> parts;
  std::shared_ptr<KOSimLocationServices> location;
  KOSimDeviceProfile* profile;
  KOSimFaultyFileSystem* files;
  KOSimPreferences* preferences;
  KOSimKeychain* keychain;
  KOSimApplication* application;
  KOSimDispatch* dispatch;
  KOSimUserInterface* userInterface;
  KOSimNotificationCenter* notificationCenter;
  KOSimConsole* console;
  KOSimClock* clock;

  std::mutex mutex;
  kov_sim_app_delegate delegate{};
};

struct kov_sim_device {
  std::unique_ptr<KOSimDevice> device;
  KOCSimContext* context;
};

namespace KOCSim {

struct Failure {
  kov_status status;
  std::string message;
};
[[noreturn]] inline void fail(kov_status status, std::string message) { throw Failure{status, std::move(message)}; }

/// Runs a call's body; a failure becomes its status and the thread's last error.
template <typename Body>
kov_status call(Body&& body) noexcept {
  try {
    body();
    return KOV_OK;
  } catch (const Failure& f) {
    return kov_set_last_error(f.status, f.message.c_str());
  } catch (const KOParseError& e) {
    return kov_set_last_error(KOV_INVALID_JSON, e.what());
  } catch (const std::invalid_argument& e) {
    return kov_set_last_error(KOV_INVALID_ARGUMENT, e.what());
  } catch (const std::exception& e) {
    return kov_set_last_error(KOV_FAILED, e.what());
  } catch (...) {
    return kov_set_last_error(KOV_FAILED, "unknown failure");
  }
}

template <typename T>
T* need(T* pointer, const char* name) {
  if (!pointer) fail(KOV_INVALID_ARGUMENT, std::string(name) + " is missing");
  return pointer;
}

/// Hands text out through a char** answer (kov_free frees it).
void answer(char** out, std::string_view text);

/// A handler of the SDK, released when the last copy of the callback holding it goes.
class Handler {
 public:
  explicit Handler(kov_handler* handler) : handler_(handler) {}
  ~Handler() { kov_handler_release(handler_); }
  Handler(const Handler&) = delete;
  Handler& operator=(const Handler&) = delete;
  void call(const std::string& argsJSON) const { kov_handler_call(handler_, argsJSON.c_str()); }

 private:
  kov_handler* handler_;
};

/// A task of the SDK: run once, or dropped with the last copy of the callback holding it.
class Task {
 public:
  explicit Task(kov_task* task) : task_(task) {}
  ~Task() {
    if (task_) kov_task_drop(task_);
  }
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;
  void run() {
    if (kov_task* task = std::exchange(task_, nullptr)) kov_task_run(task);
  }

 private:
  kov_task* task_;
};

void fillPorts(KOCSimContext& context, kov_platform& platform);
void fillScreenPorts(KOCSimContext& context, kov_platform& platform);

}  // namespace KOCSim
