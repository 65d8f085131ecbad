// What the host app hears from in-app messages and nudges (Kovantis::setDelegate), and where a
// nudge goes.
#pragma once

#include <string>

#include "kovantis/KOValue.h"

// Exported from the shared library (see KOExport.h).
#pragma GCC visibility push(default)

/// The kind of widget a tap hit, as the delegate hears it.
enum KOInAppWidgetKind : int {
  KOInAppWidgetButton = 0,
  KOInAppWidgetImage = 1,
  KOInAppWidgetLabel = 2,
  KOInAppWidgetCloseButton = 6,  // reported ahead of the view's own kind
};

/// Where the SDK puts a nudge it shows on a screen.
enum KONudgePosition : int {
  KONudgePositionTop = 0,
  KONudgePositionBottom = 1,
};

class KOInAppDelegate {
 public:
  virtual ~KOInAppDelegate() = default;
  /// A widget of an in-app message was tapped and its actions ran; the screen name and extras are
  /// those of its first navigation action ("" and empty without one). Does nothing unless
  /// overridden.
  virtual void inAppClickedForWidget(int widget, const std::string& screenName, const KODictionary& dataDict);
  /// A self-handled campaign for the host app to show itself (its content and campaign id).
  virtual void selfHandledInAppWithData(const KODictionary& data);
};

#pragma GCC visibility pop
