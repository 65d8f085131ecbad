// What a tap on an in-app message or a nudge asks for: find the widget the tap hit, record the
// click of a primary widget, run the widget's actions in order, then tell the host app's delegate.
// Runs on the main queue.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "KOInAppV2/Models/KOInAppV2Object.h"
#include "kovantis/KOInAppDelegate.h"
#include "kovantis/KOViewDescription.h"

class KOInAppV2ActionHandler {
 public:
  static KOInAppV2ActionHandler& sharedInstance();

  /// The campaign on screen and its view, set by whoever shows it; the dismiss action calls
  /// `dismiss`. Separate for in-apps and nudges.
  void setInAppObject(std::shared_ptr<const KOInAppV2Object> inApp, std::shared_ptr<KOPresentedScreen> view,
                      std::function<void()> dismiss);
  void setNudgeObject(std::shared_ptr<const KOInAppV2Object> nudge, std::shared_ptr<KOPresentedScreen> view,
                      std::function<void()> dismiss);

  /// What a shown in-app or nudge reports taps to: each tag reaches the entry for the kind of view
  /// it names in the description (buttons, images, the rest as labels).
  static KOViewEventHandler tapHandlerFor(const KOViewDescription& shown, bool forNudges);

  // The entries from the views: the tag is the widget id.
  void buttonTapped(std::int64_t tag, bool forNudges);
  void imageViewTapped(std::int64_t tag, bool forNudges);
  void labelTapped(std::int64_t tag, bool forNudges);

  /// The widget with the id: the campaign's widgets, and one level into containers (their widgets
  /// and buttons). Nothing when no widget has it.
  static std::shared_ptr<const KOInAppV2WidgetObject> getTappedWidgetForTag(std::int64_t tag,
                                                                            const KOInAppV2Object& inAppObject);
  /// Records the click when the widget is primary.
  static void trackEventAndWriteToPlist(const KOInAppV2WidgetObject& widget, const KOInAppV2Object& inAppObject);
  void actionHandlerWithArray(const std::vector<KOInAppV2ActionObject>& actions, bool forButton, bool orForImage,
                              bool orForText, std::int64_t forWidgetID, int widgetType,
                              const KOInAppV2Object& andInAppObject, bool forNudge);

 private:
  struct Shown {
    std::shared_ptr<const KOInAppV2Object> object;
    std::shared_ptr<KOPresentedScreen> view;
    std::function<void()> dismiss;
  };

  KOInAppV2ActionHandler() = default;
  void tapped(std::int64_t tag, bool forNudges, bool button, bool image, bool label);
  void call(const std::string& number);

  Shown inApp_;
  Shown nudge_;
};
