#include "KOSimKeychain.h"

#include "KOSimFiles.h"

namespace {

std::string hex(const std::string& s) {
  static const char* digits = "0123456789abcdef";
  std::string out;
  for (unsigned char c : s) {
    out += digits[c >> 4];
    out += digits[c & 15];
  }
  return out;
}

}  // namespace

KOSimKeychain::KOSimKeychain(KOFileSystem& fs, std::string directory) : fs_(fs), directory_(std::move(directory)) {
  fs_.createDirectories(directory_);
}

std::string KOSimKeychain::itemPath(const std::string& service, const std::string& account) const {
  return directory_ + "/" + hex(service) + "." + hex(account) + ".item";
}

int KOSimKeychain::add(const std::string& service, const std::string& account, std::string_view data,
                       std::string_view accessibility) {
  std::lock_guard<std::mutex> lock(mutex_);
  const std::string path = itemPath(service, account);
  if (fs_.fileExists(path)) return KOKeychainDuplicateItem;
  KOData bytes;
  bytes.bytes.assign(data.begin(), data.end());
  const KODictionary item{
      {"svce", service}, {"acct", account}, {"pdmn", std::string(accessibility)}, {"v_Data", std::move(bytes)}};
  fs_.createDirectories(directory_);
  return KOSimFiles::writePropertyList(fs_, path, KOValue(item), 0600) ? KOKeychainSuccess : KOKeychainIOError;
}

int KOSimKeychain::copyMatching(const std::string& service, const std::string& account, std::string* data) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const std::string path = itemPath(service, account);
  const std::string aside = path + ".unreadable";
  // An item set aside because it could not be read is tried again while no new one took its place.
  const bool wasSetAside = !fs_.fileExists(path);
  if (wasSetAside && !fs_.fileExists(aside)) return KOKeychainItemNotFound;
  const std::string& from = wasSetAside ? aside : path;
  bool faulted = false;
  if (readFaults_ != 0) {
    if (readFaults_ > 0) --readFaults_;
    faulted = true;
  }
  const KOValue item = faulted ? KOValue() : KOSimFiles::readPropertyList(fs_, from);
  const KOValue& bytes = item.isDictionary() ? item["v_Data"] : KOValue::nil();
  if (!bytes.isData()) {
    if (wasSetAside) return KOKeychainIOError;
    // An item that is there but cannot be read is no missing item: set aside, so that adding a
    // new one never destroys it.
    const bool moved = fs_.renameFile(path, aside);
    if (KOPlatform::isInstalled()) {
      KOPlatform::current().console->writeLine("Kovantis - The keychain item " + path + " could not be read; " +
                                               (moved ? "kept it as " + aside : std::string("left it")));
    }
    return KOKeychainIOError;
  }
  if (wasSetAside) fs_.renameFile(aside, path);  // readable again: back in its place
  if (data) data->assign(bytes.dataValue().bytes.begin(), bytes.dataValue().bytes.end());
  return KOKeychainSuccess;
}

void KOSimKeychain::injectReadFaults(int times) {
  std::lock_guard<std::mutex> lock(mutex_);
  readFaults_ = times;
}

int KOSimKeychain::remove(const std::string& service, const std::string& account) {
  std::lock_guard<std::mutex> lock(mutex_);
  const std::string path = itemPath(service, account);
  if (!fs_.fileExists(path)) return KOKeychainItemNotFound;
  return fs_.removeItem(path) ? KOKeychainSuccess : KOKeychainIOError;
}
