// The adapter from the C port tables to the C++ port: one class per table, built by
// kov_platform_install. The screens, the notification centre and location live in
// KOCScreenPorts.cpp; the rest in KOCPorts.cpp.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "KOCBoundary.h"
#include "kovantis/KOPlatform.h"
#include "kovantis/kovantis_c.h"

namespace KOC {

/// A task that runs the work once, or drops it.
inline kov_task* task(std::function<void()> work) { return new kov_task{std::move(work)}; }
/// A handler the port calls with JSON arguments and releases.
inline kov_handler* handler(std::function<void(const KOValue& args)> call) { return new kov_handler{std::move(call)}; }

/// What a port function answered through a kov_out, or nothing when it left it unset.
template <typename Fn, typename... Args>
std::optional<std::string> ask(Fn fn, void* ctx, Args... args) {
  kov_out out;
  fn(ctx, args..., &out);
  if (!out.set) return std::nullopt;
  return std::move(out.bytes);
}

std::shared_ptr<KOUserInterface> makeUserInterface(const kov_user_interface_port& port);
std::shared_ptr<KOUserNotificationCenter> makeNotificationCenter(const kov_notification_center_port& port);
/// Nothing when the port offers no location managers.
std::function<std::shared_ptr<KOLocationManager>()> makeLocationManagers(const kov_location_port& port);

}  // namespace KOC
