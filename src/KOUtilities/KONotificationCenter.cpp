#include "kovantis/KONotificationCenter.h"

#include <atomic>
#include <mutex>
#include <vector>

namespace {

struct Registration {
  KONotificationObserverToken token;
  std::string name;
  KONotificationCenter::Observer observer;
  std::atomic<bool> active{true};
};

}  // namespace

struct KONotificationCenter::State {
  std::mutex mutex;
  KONotificationObserverToken nextToken = 1;
  std::vector<std::shared_ptr<Registration>> registrations;
};

KONotificationCenter& KONotificationCenter::defaultCenter() {
  // Never destroyed: observers may still be posted to while the process exits.
  static auto* center = new KONotificationCenter();
  return *center;
}

KONotificationCenter::KONotificationCenter() : state_(std::make_unique<State>()) {}
KONotificationCenter::~KONotificationCenter() = default;

KONotificationObserverToken KONotificationCenter::addObserver(std::string name, Observer observer) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  auto registration = std::make_shared<Registration>();
  registration->token = state_->nextToken++;
  registration->name = std::move(name);
  registration->observer = std::move(observer);
  state_->registrations.push_back(registration);
  return registration->token;
}

void KONotificationCenter::removeObserver(KONotificationObserverToken token) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  auto& regs = state_->registrations;
  for (auto it = regs.begin(); it != regs.end(); ++it) {
    if ((*it)->token == token) {
      (*it)->active = false;
      regs.erase(it);
      return;
    }
  }
}

void KONotificationCenter::post(std::string_view name, const KODictionary& userInfo) {
  std::vector<std::shared_ptr<Registration>> targets;
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    for (const auto& r : state_->registrations) {
      if (r->name.empty() || r->name == name) targets.push_back(r);
    }
  }
  if (targets.empty()) return;
  const KONotification notification{std::string(name), userInfo};
  for (const auto& r : targets) {
    if (!r->active) continue;
    try {
      r->observer(notification);
    } catch (...) {
      // An observer's failure is its own; the others still hear the notification.
    }
  }
}
