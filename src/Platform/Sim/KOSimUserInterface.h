// What the simulated device shows: it puts alerts and share sheets on the device's screen record
// (KOSimScreen), answers alerts with scripted choices or taps, and measures text with a simple fixed metric (each
// character is half the point size wide; a line is 1.2 times the point size high).
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Sim/KOSimScreen.h"
#include "kovantis/KOPlatform.h"

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

class KOSimUserInterface : public KOUserInterface {
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

 private:
  struct ShownAlert {
    std::int64_t seq = 0;
    std::vector<KOAlertAction> actions;
    bool answered = false;
  };

  KODispatch& dispatch_;
  std::shared_ptr<KOSimScreen> screen_;
  mutable std::mutex mutex_;
  bool supportsAlertController_ = true;
  std::optional<std::size_t> answer_;
  // The actions behind the alerts on the record; the record itself keeps only their titles.
  std::vector<ShownAlert> shownAlerts_;
};
