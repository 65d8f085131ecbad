// Keychain items of the simulated device: one 0600 property-list file per item, in a directory
// beside the sandbox, so that they survive an uninstall of the app. An item that cannot be read
// is set aside as "<item>.unreadable" and read from there until it can be, or a new one replaces it.
#pragma once

#include <mutex>
#include <string>

#include "kovantis/KOPlatform.h"

class KOSimKeychain : public KOKeychainStore {
 public:
  KOSimKeychain(KOFileSystem& fs, std::string directory);

  int add(const std::string& service, const std::string& account, std::string_view data,
          std::string_view accessibility) override;
  int copyMatching(const std::string& service, const std::string& account, std::string* data) const override;
  int remove(const std::string& service, const std::string& account) override;

  std::string itemPath(const std::string& service, const std::string& account) const;
  const std::string& directory() const { return directory_; }
  /// The next `times` reads (-1: until called again with 0) find the item unreadable, as on a
  /// device still locked after a restart or with a damaged item; it is set aside, not lost.
  void injectReadFaults(int times = 1);

 private:
  KOFileSystem& fs_;
  std::string directory_;
  mutable std::mutex mutex_;
  mutable int readFaults_ = 0;
};
