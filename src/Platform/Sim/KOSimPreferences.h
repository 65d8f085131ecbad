// Preference stores of the simulated device: one property-list file per store, read once, written
// whole on synchronize. A file that cannot be read is set aside, never overwritten. Thread-safe.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kovantis/KOPlatform.h"

class KOSimPreferenceStore : public KOPreferenceStore {
 public:
  KOSimPreferenceStore(KOFileSystem& fs, std::string path);

  KOValue objectForKey(std::string_view key) const override;
  void setObject(const KOValue& value, std::string_view key) override;
  void removeObjectForKey(std::string_view key) override;
  bool synchronize() override;
  KODictionary dictionaryRepresentation() const override;
  /// The file could not be read: it was set aside as "<path>.unreadable", and the next load (the
  /// next launch) reads it again and folds it back in.
  bool unreadable() const override;

  const std::string& path() const { return path_; }
  /// Forgets what is in memory and reads the file again (after an uninstall, say).
  void reload();
  /// How many times the store was written to disk.
  int synchronizeCount() const;

 private:
  void loadLocked() const;

  KOFileSystem& fs_;
  std::string path_;
  mutable std::mutex mutex_;
  mutable bool loaded_ = false;
  mutable KODictionary values_;
  mutable bool unreadable_ = false;
  int synchronizeCount_ = 0;
};

class KOSimPreferences : public KOPreferences {
 public:
  /// standardPath: the app's store; groupRoot: where app-group containers live; groups: the app
  /// groups this app may use.
  KOSimPreferences(KOFileSystem& fs, std::string standardPath, std::string groupRoot, std::vector<std::string> groups);

  KOPreferenceStore& standard() override { return *standard_; }
  KOPreferenceStore* suite(std::string_view groupIdentifier) override;
  KOSimPreferenceStore& standardStore() { return *standard_; }
  std::string suitePath(std::string_view groupIdentifier) const;
  void reloadAll();

 private:
  KOFileSystem& fs_;
  std::string groupRoot_;
  std::vector<std::string> groups_;
  std::unique_ptr<KOSimPreferenceStore> standard_;
  std::mutex mutex_;
  std::map<std::string, std::unique_ptr<KOSimPreferenceStore>, std::less<>> suites_;
};
