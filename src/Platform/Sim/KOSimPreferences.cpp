#include "KOSimPreferences.h"

#include <algorithm>

#include "KOSimFiles.h"

KOSimPreferenceStore::KOSimPreferenceStore(KOFileSystem& fs, std::string path) : fs_(fs), path_(std::move(path)) {}

void KOSimPreferenceStore::loadLocked() const {
  if (loaded_) return;
  loaded_ = true;
  KOValue stored = KOSimFiles::readPropertyList(fs_, path_);
  values_ = stored.isDictionary() ? std::move(stored.dictionaryValue()) : KODictionary{};
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
