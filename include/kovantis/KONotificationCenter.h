// In-process notifications: names, user-info dictionaries and observers. The platform posts the
// application lifecycle here; the SDK posts its own notifications for the host.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "kovantis/KOValue.h"

// Exported from the shared library (see KOExport.h).
#pragma GCC visibility push(default)

struct KONotification {
  std::string name;
  KODictionary userInfo;
};

using KONotificationObserverToken = std::uint64_t;

class KONotificationCenter {
 public:
  using Observer = std::function<void(const KONotification&)>;

  static KONotificationCenter& defaultCenter();

  KONotificationCenter();
  ~KONotificationCenter();
  KONotificationCenter(const KONotificationCenter&) = delete;
  KONotificationCenter& operator=(const KONotificationCenter&) = delete;

  /// Calls the observer for every notification of that name (every notification when the name is
  /// empty), on the posting thread, until it is removed.
  KONotificationObserverToken addObserver(std::string name, Observer observer);
  /// Once this returns the observer is never called again, except by a post already delivering to it.
  void removeObserver(KONotificationObserverToken token);
  /// Delivers synchronously to the observers registered at the moment of posting, in the order they
  /// were added. An exception thrown by one observer does not stop the others.
  void post(std::string_view name, const KODictionary& userInfo = {});

 private:
  struct State;
  std::unique_ptr<State> state_;
};

#pragma GCC visibility pop
