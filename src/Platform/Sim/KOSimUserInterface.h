// What the simulated device shows: it records alerts and share sheets, answers alerts with
// scripted choices, and measures text with a simple fixed metric (each character is half the
// point size wide; a line is 1.2 times the point size high).
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kovantis/KOPlatform.h"

struct KOSimAlert {
  std::string title;
  std::string message;
  std::vector<std::string> actionTitles;
  std::string presenterName;
};

struct KOSimShareSheet {
  KOArray items;
  std::vector<std::string> excludedActivityTypes;
  std::string presenterName;
  std::optional<KORect> popoverAnchor;
};

class KOSimUserInterface : public KOUserInterface {
 public:
  explicit KOSimUserInterface(KODispatch& dispatch);

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
  /// Taps an action of an alert already shown; false when there is no such alert or action.
  bool tapAlertAction(std::size_t alertIndex, std::size_t actionIndex);
  std::vector<KOSimAlert> alerts() const;
  std::vector<KOSimShareSheet> shareSheets() const;

 private:
  KODispatch& dispatch_;
  mutable std::mutex mutex_;
  bool supportsAlertController_ = true;
  std::optional<std::size_t> answer_;
  std::vector<KOSimAlert> alerts_;
  std::vector<std::vector<KOAlertAction>> alertActions_;
  std::vector<KOSimShareSheet> shareSheets_;
};
