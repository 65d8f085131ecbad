#include "KOKeychain.h"

#include "KOLogger.h"
#include "KOPropertyListSerialization.h"
#include "KOStringFormat.h"
#include "KovantisUtils.h"
#include "kovantis/KOPlatform.h"

namespace {
// Readable after the first unlock following a restart, so background work can reach it.
constexpr const char* kAccessibleAfterFirstUnlock = "ak";
}  // namespace

KODictionary KOKeychain::getKeychainQuery(const std::string& service) {
  return KODictionary{{"class", "genp"}, {"svce", service}, {"acct", service}, {"pdmn", kAccessibleAfterFirstUnlock}};
}

void KOKeychain::save(const std::string& service, const KOValue& data) {
  try {
    KOKeychainStore& store = *KOPlatform::current().keychain;
    store.remove(service, service);
    // The archive of an object is its property list: it keeps the object's kind.
    const std::string archive = KOPropertyListSerialization::writeXML(data);
    store.add(service, service, archive, kAccessibleAfterFirstUnlock);
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, nullptr, "Kovantis - Exception : %@", e);
  }
}

KOValue KOKeychain::load(const std::string& service, bool* unreadable) {
  std::string archive;
  if (unreadable) *unreadable = false;
  try {
    const int status = KOPlatform::current().keychain->copyMatching(service, service, &archive);
    if (status != KOKeychainSuccess) {
      // Only "not found" means there is no item; any other failure may hide one.
      if (unreadable) *unreadable = status != KOKeychainItemNotFound;
      return KOValue();
    }
    return KOPropertyListSerialization::parse(archive);
  } catch (const std::exception& e) {
    KOLogger::logLocated(
        KO_HERE, nullptr, KOLogSeverityException,
        KOStringFormat::format("Kovantis - Unarchive of %@ failed: %@", {KOValue(service), KOValue(e.what())}));
    return KOValue();
  }
}

void KOKeychain::remove(const std::string& service) {
  try {
    KOPlatform::current().keychain->remove(service, service);
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, nullptr, "Kovantis - Exception : %@", e);
  }
}

std::string KOKeychain::keychainItem(const std::string& service, bool* unreadable) {
  const KOValue item = load(service, unreadable);
  return item.isString() ? item.stringValue() : std::string();
}

KOValue KOKeychain::savePersistenceIDForService(const std::string& service) {
  const std::string vendorId = KovantisUtils::getIdentifierForVendor();
  if (vendorId.empty()) return KOValue();
  KOValue persistentId(KOStringFormat::format("P-%@", {KOValue(vendorId)}));
  save(service, persistentId);
  return persistentId;
}
