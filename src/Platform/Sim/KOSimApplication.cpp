#include "KOSimApplication.h"

#include <atomic>
#include <random>

KOSimApplication::KOSimApplication(KODispatch& dispatch, std::shared_ptr<KOSimScreen> screen)
    : dispatch_(dispatch), screen_(std::move(screen)) {}

KOApplicationState KOSimApplication::applicationState() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return state_;
}

void KOSimApplication::setApplicationState(KOApplicationState state) {
  std::lock_guard<std::mutex> lock(mutex_);
  state_ = state;
}

std::int64_t KOSimApplication::applicationIconBadgeNumber() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return badge_;
}

void KOSimApplication::setApplicationIconBadgeNumber(std::int64_t badge) {
  std::lock_guard<std::mutex> lock(mutex_);
  badge_ = badge;
}

KOBackgroundTaskIdentifier KOSimApplication::beginBackgroundTask(const std::string& name,
                                                                 std::function<void()> expirationHandler) {
  std::lock_guard<std::mutex> lock(mutex_);
  const KOBackgroundTaskIdentifier id = nextTask_++;
  tasks_.emplace(id, Task{name, std::move(expirationHandler)});
  return id;
}

void KOSimApplication::endBackgroundTask(KOBackgroundTaskIdentifier task) {
  std::lock_guard<std::mutex> lock(mutex_);
  tasks_.erase(task);
}

std::vector<std::string> KOSimApplication::activeBackgroundTasks() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> names;
  for (const auto& [id, task] : tasks_) names.push_back(task.name);
  return names;
}

void KOSimApplication::expireBackgroundTasks() {
  std::vector<std::function<void()>> handlers;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [id, task] : tasks_) {
      if (task.expiration) handlers.push_back(task.expiration);
    }
  }
  for (auto& handler : handlers) handler();
}

bool KOSimApplication::canOpenURL(const std::string& url) const {
  if (urlHandlerFor(url)) return true;
  const auto colon = url.find(':');
  if (colon == std::string::npos || colon == 0) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  return schemes_.count(url.substr(0, colon)) > 0;
}

void KOSimApplication::openURL(const std::string& url, std::function<void(bool success)> completion) {
  const bool ok = canOpenURL(url);
  if (ok) screen_->record(KOSimScreen::OpenURL, {{"url", url}});
  if (auto handler = urlHandlerFor(url)) {
    // The app hears its URL later on the main queue, and the opener hears what it answered.
    dispatch_.asyncMain([handler = std::move(handler), url, completion = std::move(completion)] {
      const bool handled = handler(url);
      if (completion) completion(handled);
    });
    return;
  }
  if (completion) dispatch_.asyncMain([completion = std::move(completion), ok] { completion(ok); });
}

void KOSimApplication::setURLHandler(const std::string& prefix, std::function<bool(const std::string&)> handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (handler) {
    urlHandlers_[prefix] = std::move(handler);
  } else {
    urlHandlers_.erase(prefix);
  }
}

std::function<bool(const std::string&)> KOSimApplication::urlHandlerFor(const std::string& url) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const std::function<bool(const std::string&)>* found = nullptr;
  std::size_t longest = 0;
  for (const auto& [prefix, handler] : urlHandlers_) {
    if (!prefix.empty() && url.starts_with(prefix) && prefix.size() > longest) {
      found = &handler;
      longest = prefix.size();
    }
  }
  return found ? *found : nullptr;
}

void KOSimApplication::addOpenableScheme(const std::string& scheme) {
  std::lock_guard<std::mutex> lock(mutex_);
  schemes_.insert(scheme);
}

std::vector<std::string> KOSimApplication::openedURLs() const {
  std::vector<std::string> urls;
  for (const auto& e : screen_->entries(KOSimScreen::OpenURL)) urls.push_back(e["url"].stringValue());
  return urls;
}

void KOSimApplication::openSettings() {
  std::lock_guard<std::mutex> lock(mutex_);
  ++settingsOpened_;
}

int KOSimApplication::settingsOpenedCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return settingsOpened_;
}

void KOSimApplication::registerForRemoteNotifications() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    registeredForRemote_ = true;
  }
  deliverToken();
}

void KOSimApplication::setRemoteNotificationHandlers(std::function<void(const std::string& token)> registered,
                                                     std::function<void()> failed) {
  std::lock_guard<std::mutex> lock(mutex_);
  tokenHandler_ = std::move(registered);
  failureHandler_ = std::move(failed);
}

void KOSimApplication::setRemoteNotificationRegistrationFails(bool fails) {
  std::lock_guard<std::mutex> lock(mutex_);
  registrationFails_ = fails;
}

std::string KOSimApplication::deviceToken() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return token_;
}

void KOSimApplication::rotateDeviceToken() {
  bool registered = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    token_ = newToken();
    registered = registeredForRemote_;
  }
  if (registered) deliverToken();
}

std::string KOSimApplication::newToken() {
  // 32 bytes, as the push service issues them; distinct per call so that a rotation is visible.
  static std::atomic<std::uint64_t> counter{0};
  std::mt19937_64 random(std::random_device{}() ^ counter.fetch_add(1));
  std::string token(32, '\0');
  for (char& c : token) c = static_cast<char>(random() & 0xFF);
  return token;
}

void KOSimApplication::deliverToken() {
  // The system answers a registration later, on the main queue, through the app delegate.
  dispatch_.asyncMain([this] {
    std::function<void(const std::string&)> registered;
    std::function<void()> failed;
    std::string token;
    bool fails = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (token_.empty()) token_ = newToken();
      registered = tokenHandler_;
      failed = failureHandler_;
      token = token_;
      fails = registrationFails_;
    }
    if (fails) {
      if (failed) failed();
    } else if (registered) {
      registered(token);
    }
  });
}

bool KOSimApplication::isRegisteredForRemoteNotifications() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return registeredForRemote_;
}

std::shared_ptr<KOViewController> KOSimApplication::keyWindowRootViewController() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return keyRoot_;
}

std::shared_ptr<KOViewController> KOSimApplication::delegateWindowRootViewController() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return delegateRoot_;
}

void KOSimApplication::setKeyWindowRootViewController(std::shared_ptr<KOViewController> root) {
  std::lock_guard<std::mutex> lock(mutex_);
  keyRoot_ = std::move(root);
}

void KOSimApplication::setDelegateWindowRootViewController(std::shared_ptr<KOViewController> root) {
  std::lock_guard<std::mutex> lock(mutex_);
  delegateRoot_ = std::move(root);
}

bool KOSimApplication::isKeyboardShown() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return keyboardShown_;
}

void KOSimApplication::setKeyboardShown(bool shown) {
  std::lock_guard<std::mutex> lock(mutex_);
  keyboardShown_ = shown;
}

bool KOSimApplication::delegateHandlesNotificationResponses() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return delegateHandlesResponses_;
}

void KOSimApplication::setDelegateHandlesNotificationResponses(bool handles) {
  std::lock_guard<std::mutex> lock(mutex_);
  delegateHandlesResponses_ = handles;
}

void KOSimApplication::setRemoteNotificationHandler(std::function<void(const KODictionary&)> handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  remoteNotificationHandler_ = std::move(handler);
}

void KOSimApplication::setNotificationActionHandler(
    std::function<void(const std::string&, const KODictionary&)> handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  actionHandler_ = std::move(handler);
}

bool KOSimApplication::deliverRemoteNotification(const KODictionary& userInfo) {
  std::function<void(const KODictionary&)> handler;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    handler = remoteNotificationHandler_;
  }
  if (!handler) return false;
  handler(userInfo);
  return true;
}

bool KOSimApplication::deliverNotificationAction(const std::string& identifier, const KODictionary& userInfo) {
  std::function<void(const std::string&, const KODictionary&)> handler;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    handler = actionHandler_;
  }
  if (!handler) return false;
  handler(identifier, userInfo);
  return true;
}
