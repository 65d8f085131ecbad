#include "KOSimPreferences.h"

#include <algorithm>
#include <cerrno>

#include "KOSimFiles.h"
#include "KOUtilities/KOPropertyListSerialization.h"

KOSimPreferenceStore::KOSimPreferenceStore(KOFileSystem& fs, std::string path) : fs_(fs), path_(std::move(path)) {}

namespace {

// One read of a store's file: its values, or why there are none.
struct KOStoreRead {
  std::optional<KODictionary> values;
  bool missing = false;
  std::string problem;
};

KOStoreRead readStore(const KOFileSystem& fs, const std::string& path) {
  KOFileError error;
  std::optional<std::string> bytes;
  // A read error may pass: taken for an empty store, it would cost the app its identity.
  for (int attempt = 0; attempt < 3 && !bytes; ++attempt) {
    bytes = fs.readFile(path, &error);
    if (!bytes && error.code == ENOENT) return {std::nullopt, true, {}};
  }
  if (!bytes) return {std::nullopt, false, error.message};
  try {
    KOValue stored = KOPropertyListSerialization::parse(*bytes);
    if (stored.isDictionary()) return {std::move(stored.dictionaryValue()), false, {}};
    return {std::nullopt, false, "not a dictionary"};
  } catch (const std::exception& e) {
    return {std::nullopt, false, e.what()};
  }
}

void writeLine(const std::string& line) {
  if (KOPlatform::isInstalled()) KOPlatform::current().console->writeLine(line);
}

}  // namespace

void KOSimPreferenceStore::loadLocked() const {
  if (loaded_) return;
  loaded_ = true;
  unreadable_ = false;
  values_.clear();
  const std::string aside = path_ + ".unreadable";
  KOStoreRead current = readStore(fs_, path_);
  // A file set aside at an earlier launch is read again. Its values win over the file written
  // since: the launch that could not see them filled in defaults (a new vendor id, say) that must
  // not replace them; keys it added that were not there are kept.
  bool recovered = false;
  if (fs_.fileExists(aside)) {
    if (KOStoreRead earlier = readStore(fs_, aside); earlier.values) {
      values_ = std::move(*earlier.values);
      recovered = true;
    }
  }
  if (current.values) {
    for (auto& [key, value] : *current.values) {
      if (!values_.contains(key)) values_.set(key, std::move(value));
    }
  }
  if (!current.values && !current.missing) {
    // Starts without what it could not read, as the platform's store would, but says so, and the
    // next synchronize must not destroy the file. (A file set aside earlier and read above is
    // replaced here; its values are in memory and go into the next synchronize.)
    unreadable_ = true;
    const bool moved = fs_.renameFile(path_, aside);
    writeLine("Kovantis - The preferences " + path_ + " could not be read (" + current.problem + "); " +
              (moved ? "kept them as " + aside : std::string("left them")));
    return;
  }
  if (recovered && KOSimFiles::writePropertyList(fs_, path_, KOValue(values_))) {
    fs_.removeItem(aside);
    writeLine("Kovantis - The preferences kept as " + aside + " were read again");
  }
}

bool KOSimPreferenceStore::unreadable() const {
  std::lock_guard<std::mutex> lock(mutex_);
  loadLocked();
  return unreadable_;
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
  unreadable_ = false;
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
