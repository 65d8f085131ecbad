// What the simulated device shows: it puts alerts, share sheets and the screens the SDK embeds on
// the device's screen record (KOSimScreen), answers alerts with scripted choices or taps, lets a
// test tap or swipe what an embedded screen shows and pictures it, and measures text with the one
// metric its pictures use (KOSimTextLayout).
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Sim/KOSimScreen.h"
#include "kovantis/KOPlatform.h"
#include "kovantis/KOViewDescription.h"

/// An alert as the screen record shows it.
struct KOSimAlert {
  std::string title;
  std::string message;
  std::vector<std::string> actionTitles;
  std::string presenterName;
};

/// A share sheet as the screen record shows it.
struct KOSimShareSheet {
  KOArray items;
  std::vector<std::string> excludedActivityTypes;
  std::string presenterName;
  std::optional<KORect> popoverAnchor;
};

class KOSimUserInterface : public KOUserInterface, public std::enable_shared_from_this<KOSimUserInterface> {
 public:
  KOSimUserInterface(KODispatch& dispatch, std::shared_ptr<KOSimScreen> screen);

  bool supportsAlertController() const override;
  void presentAlert(const std::string& title, const std::string& message, std::vector<KOAlertAction> actions,
                    const KOViewController* presenter) override;
  void presentShareSheet(const KOArray& items, const std::vector<std::string>& excludedActivityTypes,
                         const KOViewController* presenter, std::optional<KORect> popoverAnchor) override;
  KOSize sizeOfText(const std::string& text, const KOFont& font) const override;
  double heightOfText(const std::string& text, double width, const KOFont& font) const override;
  double systemFontSize() const override { return 17; }
  std::shared_ptr<KOPresentedScreen> embedScreen(const KOViewController* host, KOViewDescription screen,
                                                 KOViewEventHandler onEvent) override;
  std::shared_ptr<KOPresentedScreen> presentScreen(KOViewDescription screen, KOViewEventHandler onEvent) override;
  void setPasteboardString(const std::string& text) override;
  std::shared_ptr<KOPresentedScreen> presentBrowser(
      const std::string& url, const KOViewController* presenter,
      std::function<void(std::shared_ptr<KOPresentedScreen>)> didFinish) override;

  // Scripting and inspection.
  void setSupportsAlertController(bool supported);
  /// Every later alert is answered by tapping the action at this index (on the main queue).
  void setAlertAnswer(std::optional<std::size_t> actionIndex);
  /// Taps an action of an alert on screen (alerts count from 0 in the order shown), which
  /// dismisses it; false when there is no such alert or action, or the alert was already answered.
  bool tapAlertAction(std::size_t alertIndex, std::size_t actionIndex);
  /// The alert and share-sheet entries of the screen record, oldest first.
  std::vector<KOSimAlert> alerts() const;
  std::vector<KOSimShareSheet> shareSheets() const;

  /// The newest embedded screen still shown, as the SDK last described it.
  std::optional<KOViewDescription> embeddedScreen() const;
  /// The newest presented screen (an in-app message) still shown.
  std::optional<KOViewDescription> presentedScreen() const;
  /// The user taps the view with the tag on the topmost screen the SDK shows (presented over
  /// embedded), or swipes its row to delete it; false when there is no screen, no such view, or
  /// the row cannot be deleted.
  bool tapView(std::int64_t tag);
  bool swipeToDelete(std::int64_t tag);
  /// The user sets a rating's stars or types into a text field on the topmost screen; false when
  /// there is no such input view.
  bool setRating(std::int64_t tag, double stars);
  /// The user swipes the newest presented screen away; false when none is shown.
  bool swipeAway();
  bool typeText(std::int64_t tag, const std::string& text);
  /// The page of the topmost screen's web view finished loading, or failed with the error; false
  /// when no shown screen has a web view. (Its start is reported when the screen is presented.)
  bool finishLoading();
  bool failLoading(const std::string& error);
  /// The URL of the platform browser on show ("" when none is), and the user tapping its Done
  /// button; false when no browser is shown.
  std::string browserURL() const;
  bool finishBrowser();
  /// What the topmost screen's input view with the tag holds.
  std::optional<KOView> inputView(std::int64_t seq, std::int64_t tag) const;
  /// The text on the general pasteboard.
  std::string pasteboardString() const;
  /// The newest embedded screen as an SVG picture ("" when none is shown).
  std::string renderEmbeddedScreen() const;
  /// The newest presented screen as an SVG picture ("" when none is shown).
  std::string renderPresentedScreen() const;

  // Reached through the handle embedScreen returns.
  void updateEmbeddedScreen(std::int64_t seq, KOViewDescription screen);
  void removeEmbeddedScreen(std::int64_t seq);

 private:
  struct ShownAlert {
    std::int64_t seq = 0;
    std::vector<KOAlertAction> actions;
    bool answered = false;
  };

  struct EmbeddedScreen {
    std::int64_t seq = 0;
    KOViewDescription view;
    KOViewEventHandler onEvent;
    bool removed = false;
    bool presented = false;
    // The platform browser: its delegate's callback, and the address it shows.
    std::function<void(std::shared_ptr<KOPresentedScreen>)> browserDone;
    std::string browserURL;
    std::string loadError;  // a web view's last failed load
  };

  std::optional<KOViewDescription> newest(bool presented) const;
  static const KOViewDescription* findWebView(const KOViewDescription& view);
  // The topmost shown screen (presented over embedded); nullptr when none. Under mutex_.
  EmbeddedScreen* topmostLocked();

  bool sendEvent(std::int64_t tag, KOViewEvent event);
  bool reportLoad(KOViewEvent event, const std::string& error);

  KODispatch& dispatch_;
  std::shared_ptr<KOSimScreen> screen_;
  mutable std::mutex mutex_;
  bool supportsAlertController_ = true;
  std::optional<std::size_t> answer_;
  // The actions behind the alerts on the record; the record itself keeps only their titles.
  std::vector<ShownAlert> shownAlerts_;
  std::vector<EmbeddedScreen> embedded_;
  std::string pasteboard_;
};
