#include "KOSimNotificationCenter.h"

#include <stdexcept>

#include "KOSimFiles.h"

namespace {
// How a decision is kept in the state file.
constexpr const char* kAnswerNames[] = {"granted", "denied", "denied-with-error"};
}  // namespace

KOSimNotificationCenter::KOSimNotificationCenter(KODispatch& dispatch, KOFileSystem& files, std::string stateFile)
    : dispatch_(dispatch), files_(files), stateFile_(std::move(stateFile)) {
  const KOValue state = KOSimFiles::readPropertyList(files_, stateFile_);
  if (!state.isDictionary()) return;
  for (int i = 0; i < 3; ++i) {
    if (state["answered"] == KOValue(kAnswerNames[i])) answered_ = static_cast<Answer>(i);
  }
  if (state["alertSetting"].isNumber()) alertSetting_ = static_cast<int>(state["alertSetting"].intValue());
}

void KOSimNotificationCenter::saveLocked() {
  KODictionary state;
  if (answered_) state.set("answered", KOValue(kAnswerNames[static_cast<int>(*answered_)]));
  if (alertSetting_) state.set("alertSetting", KOValue(*alertSetting_));
  KOSimFiles::writePropertyList(files_, stateFile_, KOValue(std::move(state)));
}

void KOSimNotificationCenter::forget() {
  std::lock_guard<std::mutex> lock(mutex_);
  answered_.reset();
  alertSetting_.reset();
  installed_.clear();
  registeredTypes_.reset();
  registeredCategories_.clear();
  files_.removeItem(stateFile_);
}

void KOSimNotificationCenter::checkThrows() const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (throws_) throw std::runtime_error("notification centre unavailable");
}

void KOSimNotificationCenter::requestAuthorizationWithOptions(
    int, std::function<void(bool, std::optional<std::string>)> completionHandler) {
  checkThrows();
  Answer answer;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ++requests_;
    answer = answer_;
    answered_ = answer;
    saveLocked();
  }
  dispatch_.asyncBackground([answer, completionHandler = std::move(completionHandler)] {
    if (!completionHandler) return;
    if (answer == Answer::DenyWithError) {
      completionHandler(false, std::string("Notifications are not allowed for this application"));
    } else {
      completionHandler(answer == Answer::Grant, std::nullopt);
    }
  });
}

void KOSimNotificationCenter::getNotificationSettingsWithCompletionHandler(std::function<void(int)> completion) {
  checkThrows();
  int setting = KONotificationSettingDisabled;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (alertSetting_) {
      setting = *alertSetting_;
    } else if (answered_ == Answer::Grant) {
      setting = KONotificationSettingEnabled;
    }
  }
  dispatch_.asyncBackground([setting, completion = std::move(completion)] {
    if (completion) completion(setting);
  });
}

void KOSimNotificationCenter::setNotificationCategories(std::vector<std::shared_ptr<KOUserNotificationCategory>> c) {
  checkThrows();
  std::lock_guard<std::mutex> lock(mutex_);
  installed_ = std::move(c);
}

void KOSimNotificationCenter::setDelegate(std::shared_ptr<KOUserNotificationCenterDelegate> delegate) {
  checkThrows();
  std::lock_guard<std::mutex> lock(mutex_);
  delegate_ = std::move(delegate);
}

void KOSimNotificationCenter::registerUserNotificationSettings(
    int types, std::vector<std::shared_ptr<KOMutableUserNotificationCategory>> categories) {
  checkThrows();
  std::function<void(int)> handler;
  int granted = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    registeredTypes_ = types;
    registeredCategories_ = std::move(categories);
    answered_ = answer_;
    saveLocked();
    granted = answer_ == Answer::Grant ? types : 0;
    handler = settingsHandler_;
  }
  // The older interface answers through the app delegate, on the main queue.
  if (handler) dispatch_.asyncMain([handler, granted] { handler(granted); });
}

void KOSimNotificationCenter::setAuthorizationAnswer(Answer answer) {
  std::lock_guard<std::mutex> lock(mutex_);
  answer_ = answer;
}

void KOSimNotificationCenter::setAlertSetting(int setting) {
  std::lock_guard<std::mutex> lock(mutex_);
  alertSetting_ = setting;
  saveLocked();
}

void KOSimNotificationCenter::setUserNotificationSettingsHandler(std::function<void(int)> handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  settingsHandler_ = std::move(handler);
}

void KOSimNotificationCenter::setThrows(bool throws) {
  std::lock_guard<std::mutex> lock(mutex_);
  throws_ = throws;
}

std::vector<std::shared_ptr<KOUserNotificationCategory>> KOSimNotificationCenter::installedCategories() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return installed_;
}

std::optional<int> KOSimNotificationCenter::registeredTypes() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return registeredTypes_;
}

std::vector<std::shared_ptr<KOMutableUserNotificationCategory>> KOSimNotificationCenter::registeredCategories() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return registeredCategories_;
}

int KOSimNotificationCenter::authorizationRequests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

std::shared_ptr<KOUserNotificationCenterDelegate> KOSimNotificationCenter::delegate() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return delegate_;
}
