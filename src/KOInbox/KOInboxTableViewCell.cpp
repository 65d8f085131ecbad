#include "KOInboxTableViewCell.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

#include "KOUtilities/KODateFormatter.h"
#include "KOUtilities/KOLogger.h"

namespace {
constexpr const char* kFillFailure = "Kovantis - exception while setting data with message in inbox cell is %@";
// Beyond this a time is not a day anyone stored (year 5138): shown as none.
constexpr double kLatestTime = 1e11;
}  // namespace

KOInboxTableViewCell::KOInboxTableViewCell() {
  notificationTextLabel.kind = KOViewKind::Label;
  notificationTextLabel.numberOfLines = 0;
  dateLabelTextLabel.kind = KOViewKind::Label;
  dateLabelTextLabel.alignment = KOTextAlignment::Right;
  dateLabelTextLabel.font = KOFont{"", 12};
  dateLabelTextLabel.textColor = KOColor{0.45, 0.45, 0.48, 1};
}

std::string KOInboxTableViewCell::dayText(const std::string& pushTime) {
  if (pushTime.empty()) return "";
  errno = 0;
  char* end = nullptr;
  const double seconds = std::strtod(pushTime.c_str(), &end);
  if (end == pushTime.c_str() || errno == ERANGE || !std::isfinite(seconds) || std::fabs(seconds) > kLatestTime) {
    return "";
  }
  // One formatter per call: the shared one belongs to whoever set its format first.
  const KODateFormatter formatter("dd-MMM");
  return formatter.stringFromDate(KODate{std::trunc(seconds)});
}

void KOInboxTableViewCell::setDataWithMessage(const KOInboxPushDataModel& message, double rowWidth) {
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, kFillFailure, [&] {
    const KOUserInterface& ui = *KOPlatform::current().userInterface;
    const double width = rowWidth - 2 * kHorizontalInset;
    notificationTextLabel.text = message.alertMessage();
    notificationTextLabel.font = message.isRead() ? notificationTextReadFont : notificationTextUnreadFont;
    const double textHeight = ui.heightOfText(notificationTextLabel.text, width, notificationTextLabel.font);
    notificationTextLabel.frame = KORect{kHorizontalInset, kTextTop, width, textHeight};
    dateLabelTextLabel.text = dayText(message.pushTime());
    dateLabelTextLabel.frame = KORect{kHorizontalInset, kTextTop + textHeight + kDateGap, width, kDateHeight};
  });
}

KOViewDescription KOInboxTableViewCell::describe(const KORect& frame) const {
  KOViewDescription row;
  row.kind = KOViewKind::Row;
  row.frame = frame;
  row.backgroundColor = backgroundColor;
  row.deletable = true;
  row.children = {notificationTextLabel, dateLabelTextLabel};
  return row;
}
