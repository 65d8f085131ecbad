// What the simulated screen showed, in order: one entry per presentation or dismissal, whatever
// part of the device put it there. Tests read back one history instead of a list per kind, so
// they can also check what came before what (the alert before the browser, say). Thread-safe.
//
// Every entry is a dictionary with
//   "seq"   1, 2, 3... in the order things reached the screen
//   "kind"  what it was, one of the kinds below
// and the fields of its kind:
//   "alert"       "title", "message", "buttons" (array of titles), "presenter" (screen name, "" for none)
//   "shareSheet"  "items" (what is shared), "excluded" (array of activity types), "presenter",
//                 "popover" ({"x", "y", "width", "height"}; only when anchored in a popover)
//   "openURL"     "url" (opened only: a URL the device cannot open never reaches the screen)
//   "embeddedScreen"  "host" (the host screen's name), "view" (KOViewDescription::toValue)
//   "presentedScreen" "view" (KOViewDescription::toValue): shown over everything, an in-app say
//   "screenUpdate"    "of" (seq of the embedded or presented screen), "view" (what it shows now)
//   "browser"     "url", "presenter": the platform's own browser (a landing page)
//   "dismiss"     "of" (seq of the entry taken off the screen), "dismissed" (its kind), and for an
//                 alert "button" (the title tapped) and "buttonIndex"
//
// A new kind needs no change here: the part of the device that shows it calls
// record("itsKind", {fields...}) and adds its line to the list above.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "kovantis/KOValue.h"

class KOSimScreen {
 public:
  static constexpr const char* Alert = "alert";
  static constexpr const char* ShareSheet = "shareSheet";
  static constexpr const char* OpenURL = "openURL";
  static constexpr const char* Dismiss = "dismiss";
  static constexpr const char* EmbeddedScreen = "embeddedScreen";
  static constexpr const char* ScreenUpdate = "screenUpdate";
  static constexpr const char* PresentedScreen = "presentedScreen";
  static constexpr const char* Browser = "browser";

  /// Appends an entry of the kind with its fields and returns its seq. "seq" and "kind" are set
  /// here and win over fields of the same name.
  std::int64_t record(std::string_view kind, KODictionary fields = {});
  /// Appends the dismissal of the entry numbered `of`, with extra fields such as the button tapped.
  /// Returns its seq, or 0 when there is no such entry.
  std::int64_t recordDismissal(std::int64_t of, KODictionary fields = {});

  /// Every entry, oldest first.
  std::vector<KODictionary> entries() const;
  /// The entries of one kind, oldest first.
  std::vector<KODictionary> entries(std::string_view kind) const;
  /// The newest entry of the kind; empty when there is none.
  KODictionary last(std::string_view kind) const;
  /// The entry numbered seq; empty when there is none.
  KODictionary entry(std::int64_t seq) const;

 private:
  mutable std::mutex mutex_;
  std::vector<KODictionary> entries_;
};
