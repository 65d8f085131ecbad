// The platform port: everything the SDK needs from the phone, as small interfaces.
//
// The core never calls the operating system directly. A host installs one KOPlatform before it
// starts the SDK; the simulated device (Kovantis::sim) implements every interface in-process for
// Linux, and a bridge to a real phone implements the same interfaces.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kovantis/KOConstants.h"
#include "kovantis/KOValue.h"

// Exported from the shared library (see KOExport.h).
#pragma GCC visibility push(default)

// ------------------------------------------------------------------------------- geometry and UI

struct KOSize {
  double width = 0;
  double height = 0;
  friend bool operator==(const KOSize&, const KOSize&) = default;
};

struct KORect {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;
  friend bool operator==(const KORect&, const KORect&) = default;
};

/// An sRGB colour with components from 0 to 1.
struct KOColor {
  double red = 0;
  double green = 0;
  double blue = 0;
  double alpha = 1;
  friend bool operator==(const KOColor&, const KOColor&) = default;
};

/// A font by name and point size; an empty name means the system font.
struct KOFont {
  std::string name;
  double pointSize = 17;
};

/// An image as far as layout needs it.
struct KOImage {
  KOSize size;
};

/// The kinds of input widget whose value the SDK reads back from in-app forms.
enum class KOWidgetKind { StarRating, TextField, TextView, Switch, Slider, Other };

/// A view on screen, reduced to what the SDK reads from it.
struct KOView {
  KOWidgetKind kind = KOWidgetKind::Other;
  double numericValue = 0;  // star rating, slider
  bool isOn = false;        // switch
  std::string text;         // text field, text view
};

enum class KOViewControllerKind { Plain, Navigation, TabBar, Alert };

/// A screen of the host application: the tree the top-screen lookup walks.
struct KOViewController {
  std::string name;
  KOViewControllerKind kind = KOViewControllerKind::Plain;
  std::shared_ptr<KOViewController> presented;              // modally presented on top
  std::vector<std::shared_ptr<KOViewController>> children;  // navigation stack or tab items
  std::size_t selectedIndex = 0;                            // tab bar selection

  /// The last controller of a navigation stack.
  std::shared_ptr<KOViewController> topViewController() const { return children.empty() ? nullptr : children.back(); }
  /// The selected controller of a tab bar.
  std::shared_ptr<KOViewController> selectedViewController() const {
    return selectedIndex < children.size() ? children[selectedIndex] : nullptr;
  }
};

enum class KOAlertActionStyle { Default, Cancel, Destructive };

struct KOAlertAction {
  std::string title;
  KOAlertActionStyle style = KOAlertActionStyle::Default;
  std::function<void()> handler;
};

enum class KOUserInterfaceIdiom { Phone, Pad };

/// A place on earth, in degrees.
struct KOLocationCoordinate {
  double latitude = 0;
  double longitude = 0;
};

/// Where the service lives. Production by default; the simulated device and the tests point every
/// host at the local emulator.
struct KOServiceEndpoints {
  std::string scheme = PROD_SCHEME;
  std::string apiHost = PROD_URL;
  std::string indiaApiHost = PROD_URL_INDIA;
  std::string inboxHost = INBOX_HOST;
  std::string logHost = LOGENTRIES_HOST;
  int port = 443;
  bool verifyCertificates = true;
  /// Timeout of one request, in seconds.
  double timeoutSeconds = 60;

  /// Every host at one plain-HTTP address, as the local emulator serves them all.
  static KOServiceEndpoints local(const std::string& host, int port) {
    KOServiceEndpoints e;
    e.scheme = "http";
    e.apiHost = e.indiaApiHost = e.inboxHost = e.logHost = host;
    e.port = port;
    return e;
  }
};

// ------------------------------------------------------------------------------------ interfaces

// The screens the SDK describes for the user interface to show (KOViewDescription.h).
struct KOViewDescription;
class KOPresentedScreen;
enum class KOViewEvent;
using KOViewEventHandler = std::function<void(std::int64_t tag, KOViewEvent event)>;

/// The application bundle.
class KOAppInfo {
 public:
  virtual ~KOAppInfo() = default;
  /// "CFBundleShortVersionString", or nothing.
  virtual std::optional<std::string> shortVersion() const = 0;
  /// "CFBundleVersion", or nothing.
  virtual std::optional<std::string> buildVersion() const = 0;
  /// "CFBundleIdentifier", or nothing.
  virtual std::optional<std::string> bundleIdentifier() const = 0;
  /// The whole info dictionary of the main bundle.
  virtual KODictionary infoDictionary() const = 0;
};

/// The device and its screen.
class KODeviceInfo {
 public:
  virtual ~KODeviceInfo() = default;
  /// Upper-case UUID text, or empty when the platform cannot give one yet.
  virtual std::string identifierForVendor() const = 0;
  virtual std::string model() const = 0;
  virtual std::string name() const = 0;
  virtual std::string systemName() const = 0;
  virtual std::string systemVersion() const = 0;
  virtual std::string localizedModel() const = 0;
  virtual KOUserInterfaceIdiom idiom() const = 0;
  /// Main screen bounds in points.
  virtual KOSize screenSize() const = 0;
  virtual double screenScale() const = 0;
};

/// The optional advertising framework.
class KOAdvertising {
 public:
  virtual ~KOAdvertising() = default;
  /// Whether the advertising framework is present at all.
  virtual bool isAvailable() const = 0;
  virtual bool isAdvertisingTrackingEnabled() const = 0;
  /// Upper-case UUID text.
  virtual std::string advertisingIdentifier() const = 0;
};

/// One key-value preference store (the standard one or an app-group suite). Thread-safe.
class KOPreferenceStore {
 public:
  virtual ~KOPreferenceStore() = default;
  /// The stored value, or nil.
  virtual KOValue objectForKey(std::string_view key) const = 0;
  /// Stores the value; nil removes the key.
  virtual void setObject(const KOValue& value, std::string_view key) = 0;
  virtual void removeObjectForKey(std::string_view key) = 0;
  /// Writes pending changes to disk; returns false when that failed.
  virtual bool synchronize() = 0;
  /// Every key and value, for inspection.
  virtual KODictionary dictionaryRepresentation() const = 0;
  /// True when the stored values could not be read on this launch: a key that seems absent may only
  /// be unread, so nothing about the app's identity may be decided on its absence. A store that
  /// cannot read its file keeps it aside and reads it again at the next launch.
  virtual bool unreadable() const { return false; }
};

/// The standard store and the app-group suites.
class KOPreferences {
 public:
  virtual ~KOPreferences() = default;
  virtual KOPreferenceStore& standard() = 0;
  /// The suite shared with app extensions; nullptr when the app may not use that group.
  virtual KOPreferenceStore* suite(std::string_view groupIdentifier) = 0;
};

/// The failure of one file-system primitive.
struct KOFileError {
  int code = 0;  // an errno value
  std::string message;
};

/// A file mapped into memory by KOFileSystem::mapFile; unmapped when destroyed.
class KOMappedFile {
 public:
  virtual ~KOMappedFile() = default;
  virtual char* data() = 0;
  virtual std::size_t size() const = 0;
  /// Grows the file and its mapping to `size` bytes, keeping every byte stored so far (the new
  /// ones read as zeros, backed by storage like mapFile's); data() may move. False, with the
  /// mapping unchanged, when it cannot (a full disk included).
  virtual bool resize(std::size_t size) = 0;
};

/// The sandbox's files. Primitives only; the core's atomic writer composes them, so a test can
/// wrap this to inject faults between any two steps.
class KOFileSystem {
 public:
  virtual ~KOFileSystem() = default;
  /// "<sandbox>/Documents".
  virtual std::string documentsDirectory() const = 0;
  /// "<sandbox>/Library/Caches".
  virtual std::string cachesDirectory() const = 0;
  /// "<sandbox>/tmp".
  virtual std::string temporaryDirectory() const = 0;
  /// The whole file, or nothing when it is missing or unreadable (error set when given).
  virtual std::optional<std::string> readFile(const std::string& path, KOFileError* error = nullptr) const = 0;
  /// Up to `length` bytes of the file from `offset` (fewer at its end), or nothing when it is
  /// missing or unreadable. Lets a large file be read a piece at a time. Optional: the default
  /// reads the whole file.
  virtual std::optional<std::string> readFileRange(const std::string& path, std::uint64_t offset, std::size_t length,
                                                   KOFileError* error = nullptr) const {
    std::optional<std::string> whole = readFile(path, error);
    if (!whole) return whole;
    if (offset >= whole->size()) return std::string();
    return whole->substr(static_cast<std::size_t>(offset), length);
  }
  /// Creates or truncates the file, writes every byte and flushes it to the device.
  virtual bool writeFile(const std::string& path, std::string_view bytes, KOFileError* error = nullptr,
                         unsigned mode = 0644) = 0;
  /// Writes a file too large to be held whole in memory: `produce` is called once and hands its
  /// pieces, in order, to the writer it is given (which returns false once a write failed); then the
  /// file is flushed like writeFile's. Optional: the default gathers the pieces and calls writeFile.
  using KOPieceWriter = std::function<bool(std::string_view piece)>;
  virtual bool writeFileInPieces(const std::string& path, const std::function<bool(const KOPieceWriter&)>& produce,
                                 KOFileError* error = nullptr, unsigned mode = 0644) {
    std::string whole;
    if (!produce([&](std::string_view piece) {
          whole += piece;
          return true;
        })) {
      if (error) *error = KOFileError{125 /* ECANCELED */, "the writer stopped"};
      return false;
    }
    return writeFile(path, whole, error, mode);
  }
  /// Replaces `to` with `from` in one step.
  virtual bool renameFile(const std::string& from, const std::string& to, KOFileError* error = nullptr) = 0;
  /// Removes a file or a whole directory tree; a missing path counts as removed.
  virtual bool removeItem(const std::string& path, KOFileError* error = nullptr) = 0;
  virtual bool createDirectories(const std::string& path, KOFileError* error = nullptr) = 0;
  virtual bool fileExists(const std::string& path) const = 0;
  /// Names (not paths) of the entries of a directory; empty when it is missing.
  virtual std::vector<std::string> listDirectory(const std::string& path) const = 0;

  // ---- Memory-mapped files (optional).
  /// Creates the file (or resizes it) to `size` bytes and maps it shared: bytes stored into the
  /// mapping reach the file without a system call and survive the death of the process (not a
  /// power loss). Every byte of the mapping is backed by storage before this returns (allocated,
  /// not a sparse file): a store into a page the disk cannot hold would kill the process with a
  /// signal, so a full disk fails here instead (ENOSPC). Nothing when the platform cannot map files.
  virtual std::unique_ptr<KOMappedFile> mapFile(const std::string& path, std::size_t size,
                                                KOFileError* error = nullptr) {
    (void)path;
    (void)size;
    if (error) *error = KOFileError{95 /* EOPNOTSUPP */, "mapping files is not supported"};
    return nullptr;
  }
};

/// Keychain status codes, as the platform's security framework numbers them.
enum KOKeychainStatus : int {
  KOKeychainSuccess = 0,
  KOKeychainItemNotFound = -25300,
  KOKeychainDuplicateItem = -25299,
  KOKeychainParamError = -50,
  KOKeychainIOError = -36,
};

/// Generic-password items, kept outside the app's sandbox so that they survive an uninstall.
class KOKeychainStore {
 public:
  virtual ~KOKeychainStore() = default;
  virtual int add(const std::string& service, const std::string& account, std::string_view data,
                  std::string_view accessibility) = 0;
  virtual int copyMatching(const std::string& service, const std::string& account, std::string* data) const = 0;
  virtual int remove(const std::string& service, const std::string& account) = 0;
};

enum class KOApplicationState { Active, Inactive, Background };

using KOBackgroundTaskIdentifier = std::uint64_t;
inline constexpr KOBackgroundTaskIdentifier KOBackgroundTaskInvalid = 0;

/// The running application.
class KOApplication {
 public:
  virtual ~KOApplication() = default;
  virtual KOApplicationState applicationState() const = 0;
  virtual std::int64_t applicationIconBadgeNumber() const = 0;
  virtual void setApplicationIconBadgeNumber(std::int64_t badge) = 0;
  /// Asks for time to finish work in the background; the handler runs if that time runs out.
  virtual KOBackgroundTaskIdentifier beginBackgroundTask(const std::string& name,
                                                         std::function<void()> expirationHandler) = 0;
  virtual void endBackgroundTask(KOBackgroundTaskIdentifier task) = 0;
  virtual bool canOpenURL(const std::string& url) const = 0;
  virtual void openURL(const std::string& url, std::function<void(bool success)> completion) = 0;
  /// The app's page in the system settings.
  virtual void openSettings() = 0;
  virtual void registerForRemoteNotifications() = 0;
  virtual bool isRegisteredForRemoteNotifications() const = 0;
  /// The root of the key window's screens; nullptr before the app shows anything.
  virtual std::shared_ptr<KOViewController> keyWindowRootViewController() const = 0;
  /// The root of the application delegate's window, the fallback of the top-screen lookup.
  virtual std::shared_ptr<KOViewController> delegateWindowRootViewController() const = 0;
  virtual bool isKeyboardShown() const = 0;
  /// Whether the host's application delegate answers notification responses itself (then, on
  /// systems with the current notification interface, a push that launched the app reaches the SDK
  /// through that answer and not through the launch options).
  virtual bool delegateHandlesNotificationResponses() const { return false; }
};

/// What the user sees and answers.
class KOUserInterface {
 public:
  virtual ~KOUserInterface() = default;
  /// Whether the modern alert controller exists (otherwise the older alert view is used).
  virtual bool supportsAlertController() const = 0;
  virtual void presentAlert(const std::string& title, const std::string& message, std::vector<KOAlertAction> actions,
                            const KOViewController* presenter) = 0;
  /// The share sheet; anchored in a popover on a tablet, modal on a phone.
  virtual void presentShareSheet(const KOArray& items, const std::vector<std::string>& excludedActivityTypes,
                                 const KOViewController* presenter, std::optional<KORect> popoverAnchor) = 0;
  /// The size of the text drawn on one line.
  virtual KOSize sizeOfText(const std::string& text, const KOFont& font) const = 0;
  /// The height of the text wrapped at the width.
  virtual double heightOfText(const std::string& text, double width, const KOFont& font) const = 0;
  virtual double systemFontSize() const = 0;
  /// Shows a screen the SDK built (KOViewDescription.h) as a child of the host's screen, filling
  /// it; what the user does to its tagged views reaches onEvent on the main queue. Nothing when
  /// the screen cannot be shown (no host).
  virtual std::shared_ptr<KOPresentedScreen> embedScreen(const KOViewController* host, KOViewDescription screen,
                                                         KOViewEventHandler onEvent) = 0;
  /// Puts the text on the general pasteboard.
  virtual void setPasteboardString(const std::string& text) = 0;
  /// Shows a screen the SDK built over whatever is on screen (an in-app message), until removed.
  virtual std::shared_ptr<KOPresentedScreen> presentScreen(KOViewDescription screen, KOViewEventHandler onEvent) = 0;
  /// The platform's own browser over everything, opened at the URL (a landing page). When the user
  /// is done with it, `didFinish` hears it on the main queue with the browser's handle; the browser
  /// stays until that handle is removed (its delegate dismisses it).
  virtual std::shared_ptr<KOPresentedScreen> presentBrowser(
      const std::string& url, const KOViewController* presenter,
      std::function<void(std::shared_ptr<KOPresentedScreen> browser)> didFinish) = 0;
};

// ------------------------------------------------------------------------- user notifications

/// Authorisation options and setting types: badge 1, sound 2, alert 4.
enum KOUserNotificationOptions : int {
  KOUserNotificationOptionBadge = 1,
  KOUserNotificationOptionSound = 2,
  KOUserNotificationOptionAlert = 4,
};

/// The alert setting of the current notification settings.
enum KONotificationSetting : int {
  KONotificationSettingNotSupported = 0,
  KONotificationSettingDisabled = 1,
  KONotificationSettingEnabled = 2,
};

/// An action button of a notification (both generations). Title and identifier may be missing in
/// what a host hands over; such an action is skipped where the SDK reads them.
struct KONotificationAction {
  std::optional<std::string> identifier;
  std::optional<std::string> title;
  int options = 0;  // 1 authentication required, 2 destructive, 4 foreground
};

/// What every category object has in common, so that a set can hold either generation and a
/// member of the wrong one can be noticed.
class KONotificationCategoryBase {
 public:
  virtual ~KONotificationCategoryBase() = default;
  std::optional<std::string> identifier;
};

/// A category of the current notification interface.
class KOUserNotificationCategory : public KONotificationCategoryBase {
 public:
  std::vector<KONotificationAction> actions;
  std::vector<std::string> intentIdentifiers;
  int options = 0;  // 1: the app hears a swipe-away (custom dismiss action)
};

/// Action contexts of the older interface.
enum KOUserNotificationActionContext : int {
  KOUserNotificationActionContextDefault = 0,
  KOUserNotificationActionContextMinimal = 1,
};

/// A category of the older settings interface: actions per context.
class KOMutableUserNotificationCategory : public KONotificationCategoryBase {
 public:
  virtual void setActions(std::vector<KONotificationAction> actions, int forContext) {
    (forContext == KOUserNotificationActionContextMinimal ? minimal_ : default_) = std::move(actions);
  }
  const std::vector<KONotificationAction>& actionsForContext(int context) const {
    return context == KOUserNotificationActionContextMinimal ? minimal_ : default_;
  }

 private:
  std::vector<KONotificationAction> default_;
  std::vector<KONotificationAction> minimal_;
};

/// The SDK's category of the older interface: also remembers, in order, every action set for the
/// minimal context (what the service is told about).
class KONotificationCategory : public KOMutableUserNotificationCategory {
 public:
  void setActions(std::vector<KONotificationAction> actions, int forContext) override;
  /// Absent until actions are first set; appended to on every minimal-context call.
  std::optional<std::vector<KONotificationAction>> minimalContextActions;
};

/// A set of categories as a host hands it over; absent (nullopt) and empty are different.
using KONotificationCategorySet = std::optional<std::vector<std::shared_ptr<KONotificationCategoryBase>>>;

/// The action identifiers of a response that are not the app's own buttons: the body tapped, and
/// the notification swiped away (reported for categories that ask for it). A bridge maps the
/// platform's identifiers onto these.
inline constexpr const char* KONotificationDefaultActionIdentifier = "KONotificationDefaultActionIdentifier";
inline constexpr const char* KONotificationDismissActionIdentifier = "KONotificationDismissActionIdentifier";

class KOUserNotificationCenter;

/// What the user did with a delivered notification.
struct KONotificationResponse {
  /// Which action: one of the two above or an action button's identifier. Whatever the bridge hands
  /// over; the SDK checks its kind.
  KOValue actionIdentifier;
  /// The notification's payload (its request's content's user info).
  KOValue userInfo;
  /// The attachments the notification carried when shown (their identifiers).
  std::vector<std::string> attachments;
};

/// Receives what the notification centre reports about notifications. A delegate that answers
/// responses overrides both members below; the first says so, as the platform's check whether a
/// delegate responds to them does.
class KOUserNotificationCenterDelegate {
 public:
  virtual ~KOUserNotificationCenterDelegate() = default;
  virtual bool handlesNotificationResponses() const { return false; }
  /// The user answered a notification; call the completion when done with it.
  virtual void userNotificationCenter(KOUserNotificationCenter& /*center*/,
                                      const KONotificationResponse& /*didReceiveNotificationResponse*/,
                                      std::function<void()> withCompletionHandler) {
    if (withCompletionHandler) withCompletionHandler();
  }
};

/// The system's notification centre, both generations. Completions arrive on a thread of the
/// platform's choosing, not necessarily the main one.
class KOUserNotificationCenter {
 public:
  virtual ~KOUserNotificationCenter() = default;
  /// Asks the user (once; later calls answer from the stored decision).
  virtual void requestAuthorizationWithOptions(
      int options, std::function<void(bool granted, std::optional<std::string> error)> completionHandler) = 0;
  /// Reads the current settings; the completion gets the alert setting (KONotificationSetting).
  virtual void getNotificationSettingsWithCompletionHandler(std::function<void(int alertSetting)> completion) = 0;
  /// Replaces the installed categories.
  virtual void setNotificationCategories(std::vector<std::shared_ptr<KOUserNotificationCategory>> categories) = 0;
  virtual void setDelegate(std::shared_ptr<KOUserNotificationCenterDelegate> delegate) = 0;
  virtual std::shared_ptr<KOUserNotificationCenterDelegate> delegate() const = 0;
  /// The older settings interface: the answer comes later through the host's settings callback.
  virtual void registerUserNotificationSettings(
      int types, std::vector<std::shared_ptr<KOMutableUserNotificationCategory>> categories) = 0;
};

// -------------------------------------------------------------------------------- location

/// Authorisation of location services for the app, as the platform numbers it.
enum KOAuthorizationStatus : int {
  KOAuthorizationStatusNotDetermined = 0,
  KOAuthorizationStatusRestricted = 1,
  KOAuthorizationStatusDenied = 2,
  KOAuthorizationStatusAuthorizedAlways = 3,
  KOAuthorizationStatusAuthorizedWhenInUse = 4,
};

/// Error codes of location failures, as the platform numbers them.
enum KOLocationErrorCode : int {
  KOLocationErrorLocationUnknown = 0,
  KOLocationErrorDenied = 1,
  KOLocationErrorRegionMonitoringFailure = 5,
};

struct KOLocationError {
  int code = KOLocationErrorLocationUnknown;
  std::string message;
};

/// A fix of the device's position.
struct KOLocation {
  KOLocationCoordinate coordinate;
  /// Radius of uncertainty in metres; negative when the fix is invalid.
  double horizontalAccuracy = 5;
  /// Seconds since 1970.
  double timestamp = 0;
};

/// A circle on the earth that region monitoring watches.
struct KOCircularRegion {
  KOLocationCoordinate center;
  /// In metres.
  double radius = 0;
  std::string identifier;
  bool notifyOnEntry = true;
  bool notifyOnExit = true;
};

class KOLocationManager;

/// Hears what a location manager reports, on the main thread. Every call is optional.
class KOLocationManagerDelegate {
 public:
  virtual ~KOLocationManagerDelegate() = default;
  /// New fixes, oldest first.
  virtual void locationManager(KOLocationManager& /*manager*/, const std::vector<KOLocation>& /*didUpdateLocations*/) {}
  virtual void locationManager(KOLocationManager& /*manager*/, const KOLocationError& /*didFailWithError*/) {}
  virtual void locationManager(KOLocationManager& /*manager*/, KOAuthorizationStatus /*didChangeAuthorizationStatus*/) {
  }
  virtual void locationManagerDidEnterRegion(KOLocationManager& /*manager*/, const KOCircularRegion& /*region*/) {}
  virtual void locationManagerDidExitRegion(KOLocationManager& /*manager*/, const KOCircularRegion& /*region*/) {}
  /// A region could not be monitored (the app's limit reached, a region that is not valid).
  virtual void locationManager(KOLocationManager& /*manager*/, const KOCircularRegion& /*monitoringDidFailForRegion*/,
                               const KOLocationError& /*withError*/) {}
};

/// The platform's location manager. Monitored regions belong to the app: every manager of the app
/// sees and shares the same set, within the platform's limit.
class KOLocationManager {
 public:
  virtual ~KOLocationManager() = default;
  /// Whether location services are on for the whole device.
  virtual bool locationServicesEnabled() const = 0;
  virtual KOAuthorizationStatus authorizationStatus() const = 0;
  /// Whether this platform offers the request for authorisation at all times.
  virtual bool respondsToRequestAlwaysAuthorization() const = 0;
  virtual void requestAlwaysAuthorization() = 0;
  /// Whether this platform offers the request for authorisation while the app is in use.
  virtual bool respondsToRequestWhenInUseAuthorization() const = 0;
  virtual void requestWhenInUseAuthorization() = 0;
  virtual void startUpdatingLocation() = 0;
  virtual void stopUpdatingLocation() = 0;
  /// Held weakly, as the platform does: the owner keeps its delegate alive.
  virtual void setDelegate(std::weak_ptr<KOLocationManagerDelegate> delegate) = 0;
  virtual std::shared_ptr<KOLocationManagerDelegate> delegate() const = 0;
  virtual bool isMonitoringAvailableForCircularRegions() const = 0;
  /// Starts watching the region; a region with the identifier of a watched one replaces it. A
  /// region that cannot be watched is reported to the delegate.
  virtual void startMonitoringForRegion(const KOCircularRegion& region) = 0;
  /// Stops watching the region with that identifier.
  virtual void stopMonitoringForRegion(const KOCircularRegion& region) = 0;
  /// The app's watched regions, in the platform's own order.
  virtual std::vector<KOCircularRegion> monitoredRegions() const = 0;
};

/// Locale and time zone.
class KOLocale {
 public:
  virtual ~KOLocale() = default;
  /// For example "en_IN".
  virtual std::string localeIdentifier() const = 0;
  virtual std::string languageCode() const = 0;
  virtual std::string countryCode() const = 0;
  /// The name of a code in the current locale's language ("en" -> "English").
  virtual std::string displayNameForLanguage(const std::string& code) const = 0;
  virtual std::string displayNameForCountry(const std::string& code) const = 0;
  /// For example "Asia/Kolkata".
  virtual std::string timeZoneName() const = 0;
  /// Offset of local time from GMT at the given moment, in seconds.
  virtual std::int64_t secondsFromGMT(double atSecondsSince1970) const = 0;
};

/// The device clock.
class KOClock {
 public:
  virtual ~KOClock() = default;
  /// Seconds since 1970, with fraction.
  virtual double now() const = 0;
};

/// The line sink of the logger.
class KOConsole {
 public:
  virtual ~KOConsole() = default;
  virtual void writeLine(std::string_view line) = 0;
  /// A line of the SDK's logger with its severity (0 plain, 1 debug, 2 info, 3 warning,
  /// 4 exception, 5 error), whether or not the line shows a label: a sink that keeps levels apart
  /// (a test's, a platform log with levels) overrides it. Writes the line by default.
  virtual void writeLogLine(std::string_view line, int /*severity*/) { writeLine(line); }
};

using KODispatchToken = std::uint64_t;

/// The main queue and the shared concurrent queue.
class KODispatch {
 public:
  virtual ~KODispatch() = default;
  virtual void asyncMain(std::function<void()> work) = 0;
  virtual void asyncBackground(std::function<void()> work) = 0;
  /// Runs the work on the main queue (or the background queue) after the delay, unless cancelled.
  virtual KODispatchToken afterMain(double delaySeconds, std::function<void()> work) = 0;
  virtual KODispatchToken afterBackground(double delaySeconds, std::function<void()> work) = 0;
  /// Cancels a delayed call that has not started; returns whether it was still pending.
  virtual bool cancel(KODispatchToken token) = 0;
  virtual bool isMainThread() const = 0;
};

/// Everything the SDK reaches on the device. Every member must be set before install.
struct KOPlatform {
  std::shared_ptr<KOAppInfo> appInfo;
  std::shared_ptr<KODeviceInfo> deviceInfo;
  std::shared_ptr<KOAdvertising> advertising;
  std::shared_ptr<KOPreferences> preferences;
  std::shared_ptr<KOFileSystem> fileSystem;
  std::shared_ptr<KOKeychainStore> keychain;
  std::shared_ptr<KOApplication> application;
  std::shared_ptr<KOUserInterface> userInterface;
  std::shared_ptr<KOUserNotificationCenter> notificationCenter;
  std::shared_ptr<KOLocale> locale;
  std::shared_ptr<KOClock> clock;
  std::shared_ptr<KOConsole> console;
  std::shared_ptr<KODispatch> dispatch;
  KOServiceEndpoints endpoints;
  /// Makes a location manager for the SDK when the host hands it none; may be empty on a platform
  /// without location services (install does not require it).
  std::function<std::shared_ptr<KOLocationManager>()> makeLocationManager;

  /// Makes this the platform the SDK uses from now on. Throws KOAssertionFailure when a member is
  /// missing. An earlier platform stays alive until the process ends, so that work still running
  /// on it never touches freed memory.
  static void install(std::shared_ptr<const KOPlatform> platform);
  /// The installed platform. Throws KOAssertionFailure when none is installed.
  static const KOPlatform& current();
  static bool isInstalled() noexcept;
};

#pragma GCC visibility pop
