// The inbox for the host application: the stored messages (pushes the user opened and messages
// the service sent for this device), a fetch of new ones, deletion, and a ready-made screen that
// lists them.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "kovantis/KOPlatform.h"
#include "kovantis/KOValue.h"
#include "kovantis/KOViewDescription.h"

// Exported from the shared library (see KOExport.h).
#pragma GCC visibility push(default)

class KOInboxViewController;

class KOInbox {
 public:
  /// Every stored message, newest first. Each is a dictionary: "data" (the push payload), "cid",
  /// "c_cr_t" (creation time, seconds since 1970), "isRead", "isGiven".
  static KOArray getInboxMessages();
  /// Fetches new messages from the service; the completion (on the main queue, or at once when
  /// the device has no push token) hears whether an answer came.
  static void fetchInboxMessagesWithCompletion(std::function<void(bool)> completion = nullptr);
  /// Deletes every stored message.
  static void removeInboxMessages();
  /// Deletes the newest message of the campaign; an empty id does nothing.
  static void removeMessageWithCampaignID(const KOValue& campaignID);
  /// Shows the inbox screen inside the host's screen, filling it, on the main queue. The screen
  /// stays while the platform shows it; the controller returned restyles it and takes the
  /// delegate. Nothing (and a log line) without a host or a platform that can show it.
  static std::shared_ptr<KOInboxViewController> initializeInboxOnController(const KOViewController* controller);
};

/// Hears which message the user tapped on the inbox screen.
class KOInboxCellSelectedDelegate {
 public:
  virtual ~KOInboxCellSelectedDelegate() = default;
  /// The tapped message's "app_extra" dictionary (empty when it has none). Does nothing unless
  /// overridden.
  virtual void inboxCellSelectedWithData(const KODictionary& data);
};

/// The inbox screen: a list of the stored messages, newest first, unread ones in the unread font.
/// A tap marks a message read and tells the delegate; a swipe deletes it. Everything runs on the
/// main queue. The platform drives the screen's life through the calls below; a host only
/// restyles it and sets the delegate.
class KOInboxViewController : public std::enable_shared_from_this<KOInboxViewController> {
 public:
  KOInboxViewController();
  ~KOInboxViewController();
  KOInboxViewController(const KOInboxViewController&) = delete;
  KOInboxViewController& operator=(const KOInboxViewController&) = delete;

  /// "AvenirNext-Regular" 16 for read messages, "AvenirNext-Bold" 16 for unread ones.
  static KOFont defaultTextFont();
  static KOFont defaultUnreadTextFont();

  /// The rows' records, newest first.
  const KOArray& inboxMessagesArray() const;
  /// "Inbox" unless set before the screen loads.
  const std::string& inboxTitle() const;
  void setInboxTitle(std::string title);
  const std::optional<KOColor>& tableBackgroundColor() const;
  void setTableBackgroundColor(std::optional<KOColor> color);
  const std::optional<KOColor>& cellBackgroundColor() const;
  void setCellBackgroundColor(std::optional<KOColor> color);
  const std::optional<KOColor>& notificationTextLabelColor() const;
  void setNotificationTextLabelColor(std::optional<KOColor> color);
  /// The font of read messages.
  const std::optional<KOFont>& notificationTextLabelFont() const;
  void setNotificationTextLabelFont(std::optional<KOFont> font);
  const std::optional<KOFont>& notificationTextLabelUnreadFont() const;
  void setNotificationTextLabelUnreadFont(std::optional<KOFont> font);
  const std::optional<KOColor>& dateTextLabelColor() const;
  void setDateTextLabelColor(std::optional<KOColor> color);
  const std::optional<KOFont>& dateTextLabelFont() const;
  void setDateTextLabelFont(std::optional<KOFont> font);
  std::weak_ptr<KOInboxCellSelectedDelegate> delegate() const;
  void setDelegate(std::weak_ptr<KOInboxCellSelectedDelegate> delegate);

  /// Restyles every row at once (and the screen, when it is shown).
  void customiseInboxWithCellTextColor(const KOColor& cellTextColor, const KOFont& fontForReadMsg,
                                       const KOFont& fontForUnreadMsg, const KOColor& dateTextColor, const KOFont& font,
                                       const KOColor& cellBackgroundColor);

  // The screen's life.
  /// Takes the title and the stored messages; with none, the screen shows "You have no messages".
  void viewDidLoad();
  /// Applies the table background colour.
  void viewWillAppear();
  std::size_t numberOfRows() const;
  /// The message's text height at the screen's width less 30, plus 30; 0 when it cannot be told.
  double heightForRowAtIndexPath(std::size_t row);
  /// The row at the list's top (y 0), laid out; an empty row when it cannot be built.
  KOViewDescription cellForRowAtIndexPath(std::size_t row);
  /// Marks an unread message read (stored at once) and tells the delegate its extra data.
  void didSelectRowAtIndexPath(std::size_t row);
  /// Deletes the message from the list and the store.
  void commitEditingStyleDelete(std::size_t row);
  /// The whole screen as it stands: the list of rows, or the empty state.
  KOViewDescription viewDescription();
  /// Where the SDK shows the screen; set by initializeInboxOnController.
  void setPresentation(std::shared_ptr<KOPresentedScreen> presentation);

  /// The tag of a row on the screen (rows count from 0; tags from 1).
  static std::int64_t tagForRow(std::size_t row) { return static_cast<std::int64_t>(row) + 1; }

 private:
  struct State;
  void refresh();
  std::unique_ptr<State> state_;
};

#pragma GCC visibility pop
