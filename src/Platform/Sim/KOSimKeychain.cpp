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
  const KOValue item = KOSimFiles::readPropertyList(fs_, itemPath(service, account));
  if (!item.isDictionary()) return KOKeychainItemNotFound;
  const KOValue& bytes = item["v_Data"];
  if (!bytes.isData()) return KOKeychainItemNotFound;
  if (data) data->assign(bytes.dataValue().bytes.begin(), bytes.dataValue().bytes.end());
  return KOKeychainSuccess;
}

int KOSimKeychain::remove(const std::string& service, const std::string& account) {
  std::lock_guard<std::mutex> lock(mutex_);
  const std::string path = itemPath(service, account);
  if (!fs_.fileExists(path)) return KOKeychainItemNotFound;
  return fs_.removeItem(path) ? KOKeychainSuccess : KOKeychainIOError;
}
