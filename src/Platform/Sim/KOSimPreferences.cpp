#include "KOSimPreferences.h"

#include <algorithm>
#include <cerrno>

#include "KOSimFiles.h"
#include "KOUtilities/KOPropertyListSerialization.h"

KOSimPreferenceStore::KOSimPreferenceStore(KOFileSystem& fs, std::string path) : fs_(fs), path_(std::move(path)) {}

void KOSimPreferenceStore::loadLocked() const {
  if (loaded_) return;
  loaded_ = true;
  values_.clear();
  KOFileError error;
  std::optional<std::string> bytes;
  // A read error may pass: taken for an empty store, it would cost the app its identity.
  for (int attempt = 0; attempt < 3 && !bytes; ++attempt) {
    bytes = fs_.readFile(path_, &error);
    if (!bytes && error.code == ENOENT) return;
  }
  std::string problem = error.message;
  if (bytes) {
    try {
      KOValue stored = KOPropertyListSerialization::parse(*bytes);
      if (stored.isDictionary()) {
        values_ = std::move(stored.dictionaryValue());
        return;
      }
      problem = "not a dictionary";
    } catch (const std::exception& e) {
      problem = e.what();
    }
  }
  // Starts empty, as the platform's store would, but the next synchronize must not destroy it.
  const std::string aside = path_ + ".unreadable";
  const bool moved = fs_.renameFile(path_, aside);
  if (KOPlatform::isInstalled()) {
    KOPlatform::current().console->writeLine("Kovantis - The preferences " + path_ + " could not be read (" + problem +
                                             "); " + (moved ? "kept them as " + aside : std::string("left them")));
  }
}

KOValue KOSimPreferenceStore::objectForKey(std::string_view key) const {
  std::lock_guard<std::mutex> lock(mutex_);
  loadLocked();
  return values_[key];
}

void KOSimPreferenceStore::setObject(const KOValue& value, std::string_view key) {
  std::lock_guard<std::mutex> lock(mutex_);
  loadLocked();
  if (value.isAbsent())
    values_.remove(key);
  else
    values_.set(std::string(key), value);
}

void KOSimPreferenceStore::removeObjectForKey(std::string_view key) {
  std::lock_guard<std::mutex> lock(mutex_);
  loadLocked();
  values_.remove(key);
}

bool KOSimPreferenceStore::synchronize() {
  std::lock_guard<std::mutex> lock(mutex_);
  loadLocked();
  ++synchronizeCount_;
  return KOSimFiles::writePropertyList(fs_, path_, KOValue(values_));
}

KODictionary KOSimPreferenceStore::dictionaryRepresentation() const {
  std::lock_guard<std::mutex> lock(mutex_);
  loadLocked();
  return values_;
}

void KOSimPreferenceStore::reload() {
  std::lock_guard<std::mutex> lock(mutex_);
  loaded_ = false;
  values_.clear();
}

int KOSimPreferenceStore::synchronizeCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return synchronizeCount_;
}

KOSimPreferences::KOSimPreferences(KOFileSystem& fs, std::string standardPath, std::string groupRoot,
                                   std::vector<std::string> groups)
    : fs_(fs),
      groupRoot_(std::move(groupRoot)),
      groups_(std::move(groups)),
      standard_(std::make_unique<KOSimPreferenceStore>(fs, std::move(standardPath))) {}

std::string KOSimPreferences::suitePath(std::string_view groupIdentifier) const {
  const std::string group(groupIdentifier);
  return groupRoot_ + "/" + group + "/Library/Preferences/" + group + ".plist";
}

KOPreferenceStore* KOSimPreferences::suite(std::string_view groupIdentifier) {
  // Like the platform, only the app groups the app is entitled to can be opened.
  if (std::find(groups_.begin(), groups_.end(), groupIdentifier) == groups_.end()) return nullptr;
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = suites_.find(groupIdentifier);
  if (it == suites_.end()) {
    it = suites_
             .emplace(std::string(groupIdentifier),
                      std::make_unique<KOSimPreferenceStore>(fs_, suitePath(groupIdentifier)))
             .first;
  }
  return it->second.get();
}

void KOSimPreferences::reloadAll() {
  standard_->reload();
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& [name, store] : suites_) store->reload();
}
