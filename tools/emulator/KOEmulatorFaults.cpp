#include "KOEmulatorFaults.h"

#include <algorithm>
#include <stdexcept>

#include "KOEmulatorJSON.h"
#include "KOEmulatorStore.h"

void KOEmulatorFaults::validate(const KOEmulatorFault& f) {
  if (f.path.empty() || (f.path != "*" && f.path.front() != '/')) {
    throw std::invalid_argument("fault path must start with \"/\" or be \"*\"");
  }
  if (f.status != 0 && (f.status < 100 || f.status > 599)) {
    throw std::invalid_argument("fault status must be between 100 and 599");
  }
  if (f.delayMs < 0 || f.delayMs > 600000) {
    throw std::invalid_argument("fault delay_ms must be between 0 and 600000");
  }
  if (!(f.share > 0.0 && f.share <= 1.0)) {
    throw std::invalid_argument("fault share must be in (0, 1]");
  }
  if (f.count == 0 || f.count < -1) {
    throw std::invalid_argument("fault count must be positive");
  }
  if (f.status == 0 && !f.drop && f.delayMs == 0) {
    throw std::invalid_argument("fault needs a status, a delay or drop");
  }
}

bool KOEmulatorFaults::matches(const std::string& faultPath, const std::string& path) {
  return faultPath == "*" || KOEmulatorStore::pathMatches(faultPath, path);
}

void KOEmulatorFaults::add(const KOEmulatorFault& fault) {
  validate(fault);
  std::lock_guard lock(mutex_);
  auto it = std::find_if(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.fault.path == fault.path; });
  if (it != entries_.end()) {
    *it = Entry{fault, 0};
  } else {
    entries_.push_back(Entry{fault, 0});
  }
}

void KOEmulatorFaults::clear(const std::string& path) {
  std::lock_guard lock(mutex_);
  if (path.empty()) {
    entries_.clear();
    return;
  }
  std::erase_if(entries_, [&](const Entry& e) { return e.fault.path == path; });
}

std::vector<KOEmulatorFault> KOEmulatorFaults::list() const {
  std::lock_guard lock(mutex_);
  std::vector<KOEmulatorFault> out;
  for (const auto& e : entries_) out.push_back(e.fault);
  return out;
}

std::optional<KOEmulatorFault> KOEmulatorFaults::take(const std::string& path, const std::string& body) {
  std::lock_guard lock(mutex_);
  for (auto it = entries_.begin(); it != entries_.end(); ++it) {
    if (!matches(it->fault.path, path)) continue;
    if (!it->fault.bodyContains.empty() && body.find(it->fault.bodyContains) == std::string::npos) continue;
    // Spread the hits evenly instead of at random, so a test sees the same pattern every run.
    it->credit += it->fault.share;
    if (it->credit < 1.0 - 1e-9) return std::nullopt;
    it->credit -= 1.0;
    KOEmulatorFault hit = it->fault;
    if (it->fault.count > 0 && --it->fault.count == 0) entries_.erase(it);
    return hit;
  }
  return std::nullopt;
}

KOEmulatorFault KOEmulatorFaults::fromJSON(const std::string& text) {
  rapidjson::Document doc;
  std::string error;
  if (!KOEmulatorJSON::parse(text, doc, error)) throw std::invalid_argument(error);
  if (!doc.IsObject()) throw std::invalid_argument("fault must be a JSON object");
  KOEmulatorFault f;
  for (auto& m : doc.GetObject()) {
    std::string key = m.name.GetString();
    const auto& v = m.value;
    auto bad = [&](const char* what) {
      return std::invalid_argument("fault \"" + key + "\" must be " + what + ", got " + KOEmulatorJSON::typeName(v));
    };
    if (key == "path") {
      if (!v.IsString()) throw bad("a string");
      f.path = v.GetString();
    } else if (key == "status") {
      if (!v.IsInt()) throw bad("an integer");
      f.status = v.GetInt();
    } else if (key == "delay_ms") {
      if (!v.IsInt64()) throw bad("an integer");
      f.delayMs = v.GetInt64();
    } else if (key == "drop") {
      if (!v.IsBool()) throw bad("a boolean");
      f.drop = v.GetBool();
    } else if (key == "count") {
      if (!v.IsInt64()) throw bad("an integer");
      f.count = v.GetInt64();
    } else if (key == "body_contains") {
      if (!v.IsString()) throw bad("a string");
      f.bodyContains = v.GetString();
    } else if (key == "share") {
      if (!v.IsNumber()) throw bad("a number");
      f.share = v.GetDouble();
    } else {
      throw std::invalid_argument("fault: unknown key \"" + key + "\"");
    }
  }
  validate(f);
  return f;
}
