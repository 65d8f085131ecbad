// What every kov_ function shares: the thread's last error, the status a failure returns, the
// capture of the line the SDK logs while a call runs, and the objects a port hands back (kov_out,
// kov_task, kov_handler). No exception crosses into C: each function's body runs inside call().
#pragma once

#include <cstring>
#include <functional>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "kovantis/KOValue.h"
#include "kovantis/kovantis_c.h"

struct kov_out {
  std::string bytes;
  bool set = false;
};

struct kov_task {
  std::function<void()> work;
};

struct kov_handler {
  std::function<void(const KOValue& args)> call;
};

namespace KOC {

/// Thrown inside a call to end it with this status and message.
struct Failure {
  kov_status status;
  std::string message;
};
[[noreturn]] void fail(kov_status status, std::string message);

/// Sets the thread's last error; returns the status.
kov_status setError(kov_status status, std::string_view message);

/// The console's lines reach this: while a facade call runs on this thread, the last line that
/// reports a fault (labelled, or located at the code that logged it) is kept as its refusal.
void consoleLine(std::string_view line);

/// Collects the refusal of one facade call; the one before comes back when it ends (a callback
/// may call in again).
class Capture {
 public:
  Capture() noexcept;
  ~Capture();
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;
  const std::optional<std::string>& refusal() const { return refusal_; }
  void take(std::string message) { refusal_ = std::move(message); }

 private:
  Capture* previous_;
  std::optional<std::string> refusal_;
};

kov_status statusOfCurrentException() noexcept;

/// Runs a facade call's body: a Failure, an exception or a fault the SDK logged meanwhile becomes
/// the status and the thread's last error.
/// A refusal the boundary states itself gives way to the SDK's own line, when it logged one.
template <typename Body>
kov_status call(Body&& body) noexcept {
  Capture capture;
  try {
    body();
    if (capture.refusal()) return setError(KOV_REFUSED, *capture.refusal());
    return KOV_OK;
  } catch (const Failure& f) {
    if (f.status == KOV_REFUSED && capture.refusal()) return setError(KOV_REFUSED, *capture.refusal());
    return setError(f.status, f.message);
  } catch (...) {
    return statusOfCurrentException();
  }
}

/// The same without the capture: calls of the device and the emulator, which run whatever the
/// main queue holds.
template <typename Body>
kov_status plainCall(Body&& body) noexcept {
  try {
    body();
    return KOV_OK;
  } catch (...) {
    return statusOfCurrentException();
  }
}

/// Fails unless a platform is installed.
void requireInstalled();
/// The argument, or a KOV_INVALID_ARGUMENT failure naming it.
const char* need(const char* text, const char* name);
template <typename T>
T* needPointer(T* pointer, const char* name) {
  if (!pointer) fail(KOV_INVALID_ARGUMENT, std::string(name) + " is missing");
  return pointer;
}
/// Parsed JSON text, or a KOV_INVALID_JSON failure naming the argument.
KOValue parse(const char* text, const char* name);
/// Hands text out through a char** answer (malloc'd; kov_free frees it).
void answer(char** out, std::string_view text);

}  // namespace KOC
