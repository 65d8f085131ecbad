// One row of the inbox screen: the message's text and its day, laid out for a row of a given
// width. Layout (points): the text from (15, 6), wrapped at the row's width less 30 with as many
// lines as it needs; the day right-aligned in the 15 points below it, 3 under the text; 6 left at
// the bottom. So a row is the text's height plus 30, the height the screen measures.
#pragma once

#include <optional>
#include <string>

#include "KOInboxPushDataModel.h"
#include "kovantis/KOPlatform.h"
#include "kovantis/KOViewDescription.h"

class KOInboxTableViewCell {
 public:
  static constexpr const char* kReuseIdentifier = "InboxCell";
  static constexpr double kHorizontalInset = 15;
  static constexpr double kTextTop = 6;
  static constexpr double kDateGap = 3;
  static constexpr double kDateHeight = 15;

  KOViewDescription notificationTextLabel;
  KOViewDescription dateLabelTextLabel;
  KOFont notificationTextReadFont;
  KOFont notificationTextUnreadFont;
  std::optional<KOColor> backgroundColor;

  KOInboxTableViewCell();
  /// Fills the labels from the message for a row of the width: text, font by read state, and the
  /// day "dd-MMM" of its creation time ("" without one).
  void setDataWithMessage(const KOInboxPushDataModel& message, double rowWidth);
  /// The row at the frame, holding the two labels.
  KOViewDescription describe(const KORect& frame) const;

  /// The day a creation time (seconds since 1970 as text, decimals ignored) shows; "" for text
  /// that is no finite time.
  static std::string dayText(const std::string& pushTime);
};
