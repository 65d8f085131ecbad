#include "KOSimDevice.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "kovantis/KOConstants.h"
#include "kovantis/KONotificationCenter.h"

namespace {

std::string makeTemporaryRoot() {
  std::string pattern = (std::filesystem::temp_directory_path() / "kovantis-sim-XXXXXX").string();
  if (!::mkdtemp(pattern.data())) throw std::runtime_error("cannot create a temporary device directory");
  return pattern;
}

}  // namespace

KOSimDevice::KOSimDevice(KOSimDeviceConfig config) : config_(std::move(config)) {
  if (config_.rootDirectory.empty()) {
    root_ = makeTemporaryRoot();
    ownsRoot_ = true;
  } else {
    root_ = config_.rootDirectory;
    std::filesystem::create_directories(root_);
  }
  files_ = std::make_shared<KOSimFileSystem>(sandboxDirectory());
  faulty_ = std::make_shared<KOSimFaultyFileSystem>(files_);
  dispatch_ = std::make_shared<KOSimDispatch>(config_.backgroundThreads);
  profile_ = std::make_shared<KOSimDeviceProfile>(*files_, root_ + "/Device/identifierForVendor", config_.profile);
  preferences_ =
      std::make_shared<KOSimPreferences>(*faulty_, standardPreferencesPath(), root_ + "/AppGroups", config_.appGroups);
  keychain_ = std::make_shared<KOSimKeychain>(*files_, keychainDirectory());
  screen_ = std::make_shared<KOSimScreen>();
  application_ = std::make_shared<KOSimApplication>(*dispatch_, screen_);
  userInterface_ = std::make_shared<KOSimUserInterface>(*dispatch_, screen_);
  notificationCenter_ =
      std::make_shared<KOSimNotificationCenter>(*dispatch_, *files_, root_ + "/Device/notificationSettings.plist");
  location_ = std::make_shared<KOSimLocationServices>(dispatch_);
  console_ = std::make_shared<KOSimConsole>(config_.echoConsole);
  clock_ = std::make_shared<KOSimClock>();
  dispatch_->setClock(clock_.get());
  clock_->setObserver([dispatch = std::weak_ptr<KOSimDispatch>(dispatch_)] {
    if (auto d = dispatch.lock()) d->clockMoved();
  });

  platform_ = std::make_shared<KOPlatform>();
  platform_->appInfo = profile_;
  platform_->deviceInfo = profile_;
  platform_->advertising = profile_;
  platform_->locale = profile_;
  platform_->preferences = preferences_;
  platform_->fileSystem = faulty_;
  platform_->keychain = keychain_;
  platform_->application = application_;
  platform_->userInterface = userInterface_;
  platform_->notificationCenter = notificationCenter_;
  platform_->clock = clock_;
  platform_->console = console_;
  platform_->dispatch = dispatch_;
  // Installed platforms live until the process ends; the device's location services do not.
  platform_->makeLocationManager = [location = std::weak_ptr<KOSimLocationServices>(location_)] {
    auto services = location.lock();
    return services ? std::shared_ptr<KOLocationManager>(services->makeManager()) : nullptr;
  };
}

KOSimDevice::~KOSimDevice() {
  // Queued work must stop before the directory it may write to disappears.
  dispatch_->shutdown();
  if (ownsRoot_) {
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
  }
}

void KOSimDevice::install() {
  KOPlatform::install(platform_);
  installed_ = true;
}

void KOSimDevice::setServiceEndpoints(const KOServiceEndpoints& endpoints) {
  // An installed platform is never changed in place: work in flight may be reading it.
  auto next = std::make_shared<KOPlatform>(*platform_);
  next->endpoints = endpoints;
  platform_ = std::move(next);
  if (installed_) KOPlatform::install(platform_);
}

std::string KOSimDevice::standardPreferencesPath() const {
  return sandboxDirectory() + "/Library/Preferences/" + config_.profile.bundleIdentifier + ".plist";
}

void KOSimDevice::uninstall() {
  std::error_code ec;
  std::filesystem::remove_all(sandboxDirectory(), ec);
  std::filesystem::remove_all(root_ + "/AppGroups", ec);
  profile_->resetVendorId();
  notificationCenter_->forget();
  location_->forget();
  files_->prepareSandbox();
  preferences_->reloadAll();
  application_->setApplicationState(KOApplicationState::Inactive);
  application_->setApplicationIconBadgeNumber(0);
}

void KOSimDevice::post(const char* name, KOApplicationState state) {
  application_->setApplicationState(state);
  KONotificationCenter::defaultCenter().post(name);
}

void KOSimDevice::launch() { post(KOApplicationDidFinishLaunchingNotification, KOApplicationState::Inactive); }
void KOSimDevice::becomeActive() { post(KOApplicationDidBecomeActiveNotification, KOApplicationState::Active); }
void KOSimDevice::resignActive() { post(KOApplicationWillResignActiveNotification, KOApplicationState::Inactive); }
void KOSimDevice::enterBackground() {
  post(KOApplicationDidEnterBackgroundNotification, KOApplicationState::Background);
}
void KOSimDevice::enterForeground() {
  post(KOApplicationWillEnterForegroundNotification, KOApplicationState::Inactive);
}
void KOSimDevice::terminate() { post(KOApplicationWillTerminateNotification, KOApplicationState::Background); }

// ------------------------------------------------------------------------------------------ pushes

bool KOSimDevice::currentNotificationInterface() const {
  return std::strtod(profile_->systemVersion().c_str(), nullptr) >= 10.0;
}

bool KOSimDevice::respondThroughDelegate(const KODictionary& payload, const std::string& actionIdentifier,
                                         std::vector<std::string> attachments) {
  if (!currentNotificationInterface()) return false;
  std::shared_ptr<KOUserNotificationCenterDelegate> delegate = notificationCenter_->delegate();
  if (!delegate || !delegate->handlesNotificationResponses()) return false;
  KONotificationResponse response{KOValue(actionIdentifier), KOValue(payload), std::move(attachments)};
  delegate->userNotificationCenter(*notificationCenter_, response, [] {});
  return true;
}

bool KOSimDevice::receivePush(const KODictionary& payload) { return application_->deliverRemoteNotification(payload); }

bool KOSimDevice::openPush(const KODictionary& payload, std::vector<std::string> attachments) {
  const bool wasActive = application_->applicationState() == KOApplicationState::Active;
  if (application_->applicationState() == KOApplicationState::Background) enterForeground();
  bool heard = respondThroughDelegate(payload, KONotificationDefaultActionIdentifier, std::move(attachments));
  // Without a delegate an open app heard the push when it arrived; a tap on it adds nothing.
  if (!heard && !wasActive) {
    application_->setApplicationState(KOApplicationState::Inactive);
    heard = application_->deliverRemoteNotification(payload);
  }
  if (!wasActive) becomeActive();
  return heard;
}

bool KOSimDevice::respondToPush(const KODictionary& payload, const std::string& actionIdentifier,
                                std::vector<std::string> attachments) {
  if (currentNotificationInterface()) return respondThroughDelegate(payload, actionIdentifier, std::move(attachments));
  if (actionIdentifier == KONotificationDismissActionIdentifier || actionIdentifier == KOV_DISMISS_ACTION) return false;
  return application_->deliverNotificationAction(actionIdentifier, payload);
}

KODictionary KOSimDevice::launchFromPush(const KODictionary& payload) {
  application_->setApplicationState(KOApplicationState::Inactive);
  if (currentNotificationInterface()) {
    dispatch_->asyncMain(
        [this, payload] { respondThroughDelegate(payload, KONotificationDefaultActionIdentifier, {}); });
  }
  return KODictionary{{KOApplicationLaunchOptionsRemoteNotificationKey, payload}};
}
