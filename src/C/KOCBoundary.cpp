#include "KOCBoundary.h"

#include <cstdlib>
#include <exception>

#include "kovantis/KOConstants.h"
#include "kovantis/KOPlatform.h"

namespace KOC {

namespace {

thread_local std::string gLastError;
thread_local Capture* gCapture = nullptr;

// The words of a logged line: without the severity label (debug level 2) and without the location
// the detailed format puts first ("<0x... file - F, line number - N , method - 'M'> words").
// Nothing when the line reports no fault: a plain line of debug level 1.
std::optional<std::string> faultWords(std::string_view line) {
  bool fault = false;
  for (std::string_view label : {"[EXCEPTION]\t", "[ERROR]\t"}) {
    if (line.starts_with(label)) {
      line.remove_prefix(label.size());
      fault = true;
    }
  }
  if (line.starts_with('<') && line.find(" file - ") != std::string_view::npos) {
    if (const auto end = line.find("'> "); end != std::string_view::npos) {
      line.remove_prefix(end + 3);
      fault = true;
    }
  }
  if (!fault) return std::nullopt;
  return std::string(line);
}

}  // namespace

void fail(kov_status status, std::string message) { throw Failure{status, std::move(message)}; }

kov_status setError(kov_status status, std::string_view message) {
  try {
    gLastError.assign(message);
  } catch (...) {
    gLastError.clear();
  }
  return status;
}

Capture::Capture() noexcept : previous_(gCapture) { gCapture = this; }
Capture::~Capture() { gCapture = previous_; }

void consoleLine(std::string_view line) {
  if (!gCapture) return;
  if (std::optional<std::string> words = faultWords(line)) gCapture->take(std::move(*words));
}

kov_status statusOfCurrentException() noexcept {
  try {
    throw;
  } catch (const Failure& f) {
    return setError(f.status, f.message);
  } catch (const KOParseError& e) {
    return setError(KOV_INVALID_JSON, e.what());
  } catch (const std::bad_alloc&) {
    return setError(KOV_FAILED, "out of memory");
  } catch (const std::exception& e) {
    return setError(KOV_FAILED, e.what());
  } catch (...) {
    return setError(KOV_FAILED, "unknown failure");
  }
}

void requireInstalled() {
  if (!KOPlatform::isInstalled()) fail(KOV_NOT_INSTALLED, "no platform is installed: call kov_platform_install first");
}

const char* need(const char* text, const char* name) {
  if (!text) fail(KOV_INVALID_ARGUMENT, std::string(name) + " is missing");
  return text;
}

KOValue parse(const char* text, const char* name) {
  try {
    return KOValue::fromJSON(need(text, name));
  } catch (const KOParseError& e) {
    fail(KOV_INVALID_JSON, std::string(name) + " is not JSON: " + e.what());
  }
}

void answer(char** out, std::string_view text) {
  needPointer(out, "the answer's pointer");
  auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (!copy) throw std::bad_alloc();
  std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  *out = copy;
}

}  // namespace KOC

// ------------------------------------------------------------------------------ the C functions

extern "C" {

const char* kov_last_error(void) { return KOC::gLastError.c_str(); }

kov_status kov_set_last_error(kov_status status, const char* message) {
  return KOC::setError(status, message ? message : "");
}

void kov_free(void* memory) { std::free(memory); }

const char* kov_version(void) { return LIBRARY_VERSION; }

void kov_out_set(kov_out* out, const void* bytes, size_t length) {
  if (!out) return;
  try {
    out->bytes.assign(static_cast<const char*>(bytes), bytes ? length : 0);
    out->set = true;
  } catch (...) {
    out->set = false;
  }
}

void kov_out_set_text(kov_out* out, const char* text) { kov_out_set(out, text, text ? std::strlen(text) : 0); }

void kov_task_run(kov_task* task) {
  if (!task) return;
  try {
    if (task->work) task->work();
  } catch (...) {
    // The SDK's work logs its own failures; nothing may unwind into the port.
  }
  delete task;
}

void kov_task_drop(kov_task* task) { delete task; }

kov_status kov_handler_call(kov_handler* handler, const char* args_json) {
  return KOC::plainCall([&] {
    KOC::needPointer(handler, "handler");
    const KOValue args = args_json ? KOC::parse(args_json, "args_json") : KOValue::null();
    if (handler->call) handler->call(args);
  });
}

void kov_handler_release(kov_handler* handler) { delete handler; }

}  // extern "C"
