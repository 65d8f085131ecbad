// The inbox screen's logic. The screen itself is a description (kovantis/KOViewDescription.h) the
// platform shows; this keeps the rows, answers taps and swipes, and describes the screen again
// after each change.
//
// Layout: the list fills the screen, rows stacked from its top, each as tall as
// heightForRowAtIndexPath says (KOInboxTableViewCell lays out its inside). With no messages the
// list goes and a two-line label "You have no messages" sits centred: a quarter of the width in
// from the left, half the width wide, 50 high, its middle at the screen's middle.
#include <exception>
#include <stdexcept>
#include <utility>

#include "KOInboxHandler.h"
#include "KOInboxPushDataModel.h"
#include "KOInboxTableViewCell.h"
#include "KOUtilities/KOLogger.h"
#include "kovantis/KOInbox.h"

namespace {
constexpr const char* kFailure = "Exception : %@";
constexpr const char* kDefaultTitle = "Inbox";
constexpr const char* kEmptyText = "You have no messages";
constexpr double kRowTextInset = 30;
}  // namespace

struct KOInboxViewController::State {
  KOArray messages;
  std::string title;
  bool titleSet = false;
  bool loaded = false;
  bool showsList = true;
  std::optional<KOColor> appliedTableBackground;
  std::optional<KOColor> tableBackgroundColor;
  std::optional<KOColor> cellBackgroundColor;
  std::optional<KOColor> notificationTextLabelColor;
  std::optional<KOFont> notificationTextLabelFont;
  std::optional<KOFont> notificationTextLabelUnreadFont;
  std::optional<KOColor> dateTextLabelColor;
  std::optional<KOFont> dateTextLabelFont;
  std::weak_ptr<KOInboxCellSelectedDelegate> delegate;
  std::shared_ptr<KOPresentedScreen> presentation;

  KOFont readFont() const { return notificationTextLabelFont.value_or(defaultTextFont()); }
  KOFont unreadFont() const { return notificationTextLabelUnreadFont.value_or(defaultUnreadTextFont()); }
};

void KOInboxCellSelectedDelegate::inboxCellSelectedWithData(const KODictionary&) {}

KOInboxViewController::KOInboxViewController() : state_(std::make_unique<State>()) {}
KOInboxViewController::~KOInboxViewController() = default;

KOFont KOInboxViewController::defaultTextFont() { return KOFont{"AvenirNext-Regular", 16}; }
KOFont KOInboxViewController::defaultUnreadTextFont() { return KOFont{"AvenirNext-Bold", 16}; }

const KOArray& KOInboxViewController::inboxMessagesArray() const { return state_->messages; }
const std::string& KOInboxViewController::inboxTitle() const { return state_->title; }
void KOInboxViewController::setInboxTitle(std::string title) {
  state_->title = std::move(title);
  state_->titleSet = true;
}

// Styling set while the screen shows takes effect at once, as a list restyled before it draws.
#define KO_STYLE_PROPERTY(Type, getter, setter)                                               \
  const std::optional<Type>& KOInboxViewController::getter() const { return state_->getter; } \
  void KOInboxViewController::setter(std::optional<Type> value) {                             \
    state_->getter = std::move(value);                                                        \
    refresh();                                                                                \
  }
KO_STYLE_PROPERTY(KOColor, cellBackgroundColor, setCellBackgroundColor)
KO_STYLE_PROPERTY(KOColor, notificationTextLabelColor, setNotificationTextLabelColor)
KO_STYLE_PROPERTY(KOFont, notificationTextLabelFont, setNotificationTextLabelFont)
KO_STYLE_PROPERTY(KOFont, notificationTextLabelUnreadFont, setNotificationTextLabelUnreadFont)
KO_STYLE_PROPERTY(KOColor, dateTextLabelColor, setDateTextLabelColor)
KO_STYLE_PROPERTY(KOFont, dateTextLabelFont, setDateTextLabelFont)
#undef KO_STYLE_PROPERTY

// Applied when the screen appears, not before.
const std::optional<KOColor>& KOInboxViewController::tableBackgroundColor() const {
  return state_->tableBackgroundColor;
}
void KOInboxViewController::setTableBackgroundColor(std::optional<KOColor> color) {
  state_->tableBackgroundColor = std::move(color);
}

std::weak_ptr<KOInboxCellSelectedDelegate> KOInboxViewController::delegate() const { return state_->delegate; }
void KOInboxViewController::setDelegate(std::weak_ptr<KOInboxCellSelectedDelegate> delegate) {
  state_->delegate = std::move(delegate);
}

void KOInboxViewController::customiseInboxWithCellTextColor(const KOColor& cellTextColor, const KOFont& fontForReadMsg,
                                                            const KOFont& fontForUnreadMsg,
                                                            const KOColor& dateTextColor, const KOFont& font,
                                                            const KOColor& cellBackgroundColor) {
  state_->notificationTextLabelColor = cellTextColor;
  state_->notificationTextLabelFont = fontForReadMsg;
  state_->notificationTextLabelUnreadFont = fontForUnreadMsg;
  state_->dateTextLabelColor = dateTextColor;
  state_->dateTextLabelFont = font;
  state_->cellBackgroundColor = cellBackgroundColor;
  refresh();
}

void KOInboxViewController::viewDidLoad() {
  if (!state_->titleSet) state_->title = kDefaultTitle;
  state_->messages = KOInbox::getInboxMessages();
  state_->showsList = !state_->messages.empty();
  state_->loaded = true;
}

void KOInboxViewController::viewWillAppear() { state_->appliedTableBackground = state_->tableBackgroundColor; }

std::size_t KOInboxViewController::numberOfRows() const { return state_->messages.size(); }

double KOInboxViewController::heightForRowAtIndexPath(std::size_t row) {
  double height = 0;
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, kFailure, [&] {
    const KOInboxPushDataModel message(state_->messages.at(row));
    const KOPlatform& platform = KOPlatform::current();
    const KOFont font = message.isRead() ? state_->readFont() : state_->unreadFont();
    const double width = platform.deviceInfo->screenSize().width - kRowTextInset;
    height = platform.userInterface->heightOfText(message.alertMessage(), width, font) + kRowTextInset;
  });
  return height;
}

KOViewDescription KOInboxViewController::cellForRowAtIndexPath(std::size_t row) {
  KOViewDescription described;
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, kFailure, [&] {
    KOInboxTableViewCell cell;
    cell.backgroundColor = state_->cellBackgroundColor;
    if (state_->notificationTextLabelColor) cell.notificationTextLabel.textColor = state_->notificationTextLabelColor;
    cell.notificationTextReadFont = state_->readFont();
    cell.notificationTextUnreadFont = state_->unreadFont();
    if (state_->dateTextLabelColor) cell.dateLabelTextLabel.textColor = state_->dateTextLabelColor;
    if (state_->dateTextLabelFont) cell.dateLabelTextLabel.font = *state_->dateTextLabelFont;
    const double width = KOPlatform::current().deviceInfo->screenSize().width;
    cell.setDataWithMessage(KOInboxPushDataModel(state_->messages.at(row)), width);
    // The cell measured its text in the row's font at the row's width less 30, as the row height
    // does: measured once.
    described = cell.describe(KORect{0, 0, width, cell.notificationTextLabel.frame.height + kRowTextInset});
    described.tag = tagForRow(row);
  });
  return described;
}

namespace {
// The store keeps the oldest first; the rows show the newest first.
KOArray storedOrder(const KOArray& rows) {
  return KOArray(KOArray::Storage(rows.items().rbegin(), rows.items().rend()));
}
}  // namespace

void KOInboxViewController::didSelectRowAtIndexPath(std::size_t row) {
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, kFailure, [&] {
    const KOInboxPushDataModel message(state_->messages.at(row));
    if (!message.isRead() && message.record().isDictionary()) {
      KOArray::Storage rows = state_->messages.items();
      KODictionary marked = message.record().dictionaryValue();
      marked.set("isRead", KOValue(true));
      rows[row] = KOValue(std::move(marked));
      state_->messages = KOArray(std::move(rows));
      KOInboxHandler::writeArrayToFile(storedOrder(state_->messages));
      refresh();
    }
    if (auto delegate = state_->delegate.lock()) delegate->inboxCellSelectedWithData(message.extraData());
  });
}

void KOInboxViewController::commitEditingStyleDelete(std::size_t row) {
  KOLogger::guard(KO_HERE, this, KOLogSeverityError, kFailure, [&] {
    KOArray::Storage rows = state_->messages.items();
    if (row >= rows.size()) throw std::out_of_range("no message at that row");
    rows.erase(rows.begin() + static_cast<std::ptrdiff_t>(row));
    state_->messages = KOArray(std::move(rows));
    KOInboxHandler::writeArrayToFile(storedOrder(state_->messages));
    refresh();
  });
}

KOViewDescription KOInboxViewController::viewDescription() {
  const KOSize size = KOPlatform::current().deviceInfo->screenSize();
  KOViewDescription screen;
  screen.kind = KOViewKind::Screen;
  screen.text = state_->title;
  screen.frame = KORect{0, 0, size.width, size.height};
  screen.backgroundColor = KOColor{1, 1, 1, 1};
  if (!state_->showsList) {
    KOViewDescription empty;
    empty.kind = KOViewKind::Label;
    empty.text = kEmptyText;
    empty.numberOfLines = 2;
    empty.alignment = KOTextAlignment::Center;
    empty.frame = KORect{size.width * 0.5 - size.width * 0.25, size.height * 0.5 - 25, size.width * 0.5, 50};
    screen.children.push_back(std::move(empty));
    return screen;
  }
  KOViewDescription list;
  list.kind = KOViewKind::List;
  list.frame = screen.frame;
  list.backgroundColor = state_->appliedTableBackground;
  double y = 0;
  list.children.reserve(state_->messages.size());
  for (std::size_t row = 0; row < state_->messages.size(); ++row) {
    KOViewDescription cell = cellForRowAtIndexPath(row);
    cell.frame.y = y;
    y += cell.frame.height;
    list.children.push_back(std::move(cell));
  }
  screen.children.push_back(std::move(list));
  return screen;
}

void KOInboxViewController::setPresentation(std::shared_ptr<KOPresentedScreen> presentation) {
  state_->presentation = std::move(presentation);
}

void KOInboxViewController::refresh() {
  if (state_->loaded && state_->presentation) state_->presentation->update(viewDescription());
}
