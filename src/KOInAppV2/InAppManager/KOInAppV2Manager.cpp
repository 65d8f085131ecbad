#include "KOInAppV2/InAppManager/KOInAppV2Manager.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "KOInAppV2/InAppManager/KOInAppV2StoreFiles.h"
#include "KOUtilities/KOAtomicFile.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOPropertyListFile.h"
#include "KOUtilities/KOPropertyListSerialization.h"
#include "KOUtilities/KOSDKNotifications.h"
#include "KOUtilities/KOStackTrace.h"
#include "KOUtilities/KOStringFormat.h"
#include "KOUtilities/KOValueHelpers.h"
#include "KOUtilities/KovantisDateUtils.h"
#include "kovantis/KOConstants.h"
#include "kovantis/KONotificationCenter.h"
#include "kovantis/KOPlatform.h"

using namespace KOInAppV2StoreFiles;

namespace {

/// What orders campaigns by "last_updated": numbers (or numeric text) by value, other text by its
/// characters, anything else last.
struct UpdateStamp {
  int rank = 0;  // 2 number, 1 text, 0 none
  double number = 0;
  std::string_view text;

  explicit UpdateStamp(const KOValue& v) {
    if (v.isNumber()) {
      number = v.doubleValue();
      rank = std::isnan(number) ? 0 : 2;
    } else if (v.isString()) {
      const std::string& s = v.stringValue();
      const auto [ptr, ec] = std::from_chars(s.data(), s.data() + s.size(), number);
      if (ec == std::errc() && ptr == s.data() + s.size() && !std::isnan(number)) {
        rank = 2;
      } else {
        rank = 1;
        text = s;
      }
    }
  }

  bool newerThan(const UpdateStamp& other) const {
    if (rank != other.rank) return rank > other.rank;
    if (rank == 2) return number > other.number;
    if (rank == 1) return text > other.text;
    return false;
  }
};

/// The stored campaign list sorted by priority ascending, then the newest "last_updated" first;
/// equal campaigns keep their order.
KOArray sortedCampaigns(KOArray campaigns) {
  struct Keyed {
    std::int64_t priority;
    UpdateStamp stamp;
    std::size_t index;
  };
  std::vector<Keyed> keys;
  keys.reserve(campaigns.size());
  for (std::size_t i = 0; i < campaigns.size(); ++i) {
    const KOValue& c = campaigns[i];
    keys.push_back({KOModelDict::integerValueOrZero(validObjectForKey(c, KO_PRIORITY)),
                    UpdateStamp(validObjectForKey(c, KO_LAST_UPDATED)), i});
  }
  std::stable_sort(keys.begin(), keys.end(), [](const Keyed& a, const Keyed& b) {
    if (a.priority != b.priority) return a.priority < b.priority;
    return a.stamp.newerThan(b.stamp);
  });
  KOArray::Storage out;
  out.reserve(campaigns.size());
  for (const Keyed& k : keys) out.push_back(std::move(campaigns[k.index]));
  return KOArray(std::move(out));
}

/// A value the property-list writer accepts in place of one it would refuse.
double finiteOrSaturated(double d) {
  if (std::isnan(d)) return 0;
  if (std::isinf(d)) return d > 0 ? std::numeric_limits<double>::max() : -std::numeric_limits<double>::max();
  return d;
}

}  // namespace

// ------------------------------------------------------------------------------------ snapshot

KOInAppV2StoreSnapshot::KOInAppV2StoreSnapshot(KODictionary stored) : stored_(std::move(stored)) {
  const KOValue& list = validObjectForKey(stored_, KO_INAPP_CAMPAIGN_INFO_KEY);
  if (!list.isArray()) return;
  active_.reserve(list.arrayValue().size());
  for (const KOValue& campaign : list.arrayValue()) {
    if (!campaign.isDictionary()) continue;
    const KODictionary& dict = campaign.dictionaryValue();
    const KOValue& status = validObjectForKey(dict, KO_STATUS);
    if (status.isString() && status.stringValue() == KO_INAPP_STATUS_ACTIVE &&
        !validObjectForKey(dict, CAMPAIGN_ID).isNil()) {
      active_.push_back(&dict);
    }
  }
}

const KOValue& KOInAppV2StoreSnapshot::inAppsArray() const {
  return validObjectForKey(stored_, KO_INAPP_CAMPAIGN_INFO_KEY);
}

const KOValue& KOInAppV2StoreSnapshot::eventsArray() const { return validObjectForKey(stored_, INAPP_EVENTS_INFO); }

const KOValue& KOInAppV2StoreSnapshot::statisticsForCampaignId(std::string_view campaignId) const {
  if (!KOInAppV2Manager::keyIsCampaignID(campaignId)) return KOValue::nil();
  const KOValue& stats = validObjectForKey(stored_, campaignId);
  return stats.isDictionary() ? stats : KOValue::nil();
}

// ------------------------------------------------------------------------------------- the cache

KOInAppV2Manager& KOInAppV2Manager::sharedInstance() {
  static auto* instance = new KOInAppV2Manager();
  return *instance;
}

KOInAppV2Manager::KOInAppV2Manager() {
  // The campaigns and their statistics belong to the user a reset ends. Never removed: the
  // manager lives as long as the process.
  KONotificationCenter::defaultCenter().addObserver(KOUserDataResetNotification,
                                                    [](const KONotification&) { removeV2InApps(); });
}

std::shared_ptr<const KOInAppV2StoreSnapshot> KOInAppV2Manager::snapshot() {
  {
    std::lock_guard<std::mutex> lock(cacheMutex_);
    if (cache_) return cache_;
  }
  std::lock_guard<std::mutex> lock(writeMutex_);
  return currentLocked();
}

KOValue KOInAppV2Manager::inAppsArray() { return snapshot()->inAppsArray(); }
KOValue KOInAppV2Manager::eventsArray() { return snapshot()->eventsArray(); }

void KOInAppV2Manager::dropCache() {
  std::lock_guard<std::mutex> write(writeMutex_);
  std::lock_guard<std::mutex> lock(cacheMutex_);
  cache_.reset();
  version_.fetch_add(1, std::memory_order_acq_rel);
}

std::shared_ptr<const KOInAppV2StoreSnapshot> KOInAppV2Manager::currentLocked() {
  {
    std::lock_guard<std::mutex> lock(cacheMutex_);
    if (cache_) return cache_;
  }
  publish(readStoreFile(), nullptr);
  std::lock_guard<std::mutex> lock(cacheMutex_);
  return cache_;
}

void KOInAppV2Manager::publish(KODictionary stored, std::shared_ptr<const std::string> campaignsXML) {
  auto next = std::make_shared<KOInAppV2StoreSnapshot>(std::move(stored));
  next->campaignsXML_ = std::move(campaignsXML);
  std::lock_guard<std::mutex> lock(cacheMutex_);
  cache_ = std::move(next);
  version_.fetch_add(1, std::memory_order_acq_rel);
}

KODictionary KOInAppV2Manager::readStoreFile() {
  KOFileSystem& fs = fileSystem();
  const std::string path = getFilePath();
  if (!fs.fileExists(path)) return KODictionary();
  KOValue value = KOPropertyListFile::read(fs, path);  // logs what makes it unreadable
  if (value.isDictionary()) return std::move(value.dictionaryValue());
  // Whatever cannot be read is moved aside, never overwritten: the next save starts afresh and
  // the old bytes stay for a person to look at.
  const std::string aside = path + ".unreadable";
  fs.removeItem(aside);
  const bool moved = fs.renameFile(path, aside);
  logLine(KO_HERE, this,
          moved ? "Kovantis - Exception : %@; moved aside to InAppCampaignsV2.plist.unreadable"
                : "Kovantis - Exception : %@; it could not be moved aside",
          KOValue(std::string("unreadable in-app store holding ") + KOValue::kindName(value.kind())));
  return KODictionary();
}

void KOInAppV2Manager::saveLocked(KODictionary stored, std::shared_ptr<const std::string> campaignsXML) {
  // The campaign list is most of the file: it is written campaign by campaign, each straight from
  // its JSON form (several times faster than through the library's nodes), and a save that leaves
  // the list as it was (a showing counted) reuses the list's text.
  KOValue campaigns;
  if (KOValue* list = stored.find(KO_INAPP_CAMPAIGN_INFO_KEY)) {
    campaigns = std::move(*list);
    stored.remove(KO_INAPP_CAMPAIGN_INFO_KEY);
  }
  if (campaigns.isArray() && !campaignsXML) campaignsXML = campaignListXML(campaigns.arrayValue());
  const std::string* listText = campaigns.isArray() ? campaignsXML.get() : nullptr;
  std::optional<std::string> text;
  try {
    text = storeText(stored, listText);
  } catch (const std::exception&) {
    // Something the service sent is more than the file can hold (a NUL byte in a text, say):
    // only that goes, and the rest is saved.
    dropWhatTheFileCannotHold(stored);
    try {
      text = storeText(stored, listText);
    } catch (const std::exception& e) {
      logLine(KO_HERE, this, "Kovantis - Exception : %@", KOValue(e.what()));
    }
  }
  if (!text || !KOAtomicFile::write(fileSystem(), getFilePath(), *text)) {
    // The store in memory stays as merged, so this session goes on with it; the next save
    // writes it whole again.
    logLine(KO_HERE, this, "Kovantis - Exception : %@", KOValue("the in-app store could not be written"));
  }
  // A list that is no list is not written, and so not kept either: memory and file stay alike.
  if (campaigns.isArray()) stored.set(KO_INAPP_CAMPAIGN_INFO_KEY, std::move(campaigns));
  publish(std::move(stored), std::move(campaignsXML));
}

std::shared_ptr<const std::string> KOInAppV2Manager::campaignListXML(KOArray& campaigns) {
  const auto fragment = [](const KOValue& campaign) -> std::optional<std::string> {
    try {
      return KOPropertyListSerialization::xmlFragmentFromJSON(KOJSONSerialization::write(campaign));
    } catch (const std::exception&) {
      // Not JSON (a date from an edited file, say): the library's writer, which takes more.
    }
    try {
      return KOPropertyListSerialization::xmlFragment(campaign);
    } catch (const std::exception&) {
      return std::nullopt;
    }
  };
  auto xml = std::make_shared<std::string>("<array>\n");
  KOArray::Storage kept;
  kept.reserve(campaigns.size());
  for (KOValue& campaign : campaigns) {
    if (std::optional<std::string> text = fragment(campaign)) {
      *xml += *text;
      kept.push_back(std::move(campaign));
    } else {
      logLine(KO_HERE, this, "Kovantis - exception while saving in apps is %@",
              KOValue("campaign " + printable(keyText(validObjectForKey(campaign, CAMPAIGN_ID))) +
                      " cannot be stored and is dropped"));
    }
  }
  *xml += "</array>\n";
  campaigns = KOArray(std::move(kept));
  return xml;
}

std::string KOInAppV2Manager::storeText(const KODictionary& rest, const std::string* campaignsXML) {
  std::string body = KOPropertyListSerialization::xmlFragment(KOValue(rest));
  // The rest is a dictionary, "<dict>...</dict>" or "<dict/>"; the list goes in as its first entry.
  const auto open = body.find("<dict");
  if (open == std::string::npos) throw KOTypeError("unexpected property-list writer output");
  if (body.compare(open, 7, "<dict/>") == 0) body.replace(open, 7, "<dict>\n</dict>");
  const auto afterOpen = body.find('>', open) + 1;
  std::string text;
  text.reserve(body.size() + (campaignsXML ? campaignsXML->size() : 0) + 256);
  text += KOPropertyListSerialization::kXMLPrologue;
  text.append(body, 0, afterOpen);
  if (campaignsXML) {
    text += "\n<key>campaign_info</key>\n";
    text += *campaignsXML;
  }
  text.append(body, afterOpen);
  text += "</plist>\n";
  return text;
}

void KOInAppV2Manager::dropWhatTheFileCannotHold(KODictionary& stored) {
  KODictionary kept;
  kept.reserve(stored.size());
  for (auto& [key, value] : stored) {
    try {
      KOPropertyListSerialization::writeXML(KODictionary{{key, value}});
      kept.set(std::move(key), std::move(value));
    } catch (const std::exception&) {
      logLine(KO_HERE, this, "Kovantis - exception while saving in apps is %@",
              KOValue("entry " + printable(key) + " cannot be stored and is dropped"));
    }
  }
  stored = std::move(kept);
}

// ----------------------------------------------------------------------------------- the merge

void KOInAppV2Manager::saveInAppCampaignsWithData(const KOValue& data,
                                                  const std::function<void()>& andCompletionHandler) {
  KOInAppV2Manager& self = sharedInstance();
  try {
    self.merge(data);
  } catch (const std::exception& e) {
    KOLogger::logLocated(KO_HERE, &self, KOLogSeverityException,
                         KOStringFormat::format("Kovantis - exception while saving in apps is %@", {KOValue(e.what())}),
                         KOValue(KOStackTrace::current()));
  }
  if (andCompletionHandler) {
    KOLogger::guard(KO_HERE, &self, "Kovantis - exception while saving in apps is %@", andCompletionHandler);
  }
}

void KOInAppV2Manager::merge(const KOValue& data) {
  if (!data.isDictionary()) {
    if (!data.isAbsent()) {
      logLine(KO_HERE, this, "Kovantis - exception while saving in apps is %@",
              KOValue(std::string("the answer is ") + KOValue::kindName(data.kind()) + ", not a dictionary"));
    }
    return;
  }
  const KODictionary& response = data.dictionaryValue();
  std::lock_guard<std::mutex> lock(writeMutex_);
  KODictionary stored = currentLocked()->stored();

  // 1. Smart triggers that left the event list take their images with them.
  const KOValue& newEvents = validObjectForKey(response, INAPP_EVENTS_INFO);
  const KOValue& oldEvents = validObjectForKey(stored, INAPP_EVENTS_INFO);
  if (newEvents.isArray() && oldEvents.isArray()) checkSmartTriggerWithOldEventsArray(oldEvents, newEvents);

  // 2. Every campaign of the answer replaces the stored ones with its id; only active ones stay.
  bool haveList = false;
  KOArray merged;
  if (KOValue* storedList = stored.find(KO_INAPP_CAMPAIGN_INFO_KEY); storedList && !storedList->isAbsent()) {
    if (storedList->isArray()) {
      merged = std::move(storedList->arrayValue());
      haveList = true;
    } else {
      logLine(KO_HERE, this, "Kovantis - exception while saving in apps is %@",
              KOValue(std::string("stored campaign list is ") + KOValue::kindName(storedList->kind())));
    }
  }
  const KOValue& incoming = validObjectForKey(response, KO_INAPP_CAMPAIGN_INFO_KEY);
  if (incoming.isArray()) {
    haveList = true;
    const KOArray& answer = incoming.arrayValue();
    // The last campaign of the answer with an id decides it: an earlier one is replaced by it.
    std::unordered_map<std::string_view, std::size_t> decisive;
    decisive.reserve(answer.size());
    for (std::size_t i = 0; i < answer.size(); ++i) {
      const KOValue& cid = validObjectForKey(answer[i], CAMPAIGN_ID);
      if (!answer[i].isDictionary()) {
        logLine(KO_HERE, this, "Kovantis - exception while saving in apps is %@",
                KOValue(std::string("campaign is ") + KOValue::kindName(answer[i].kind()) + ", not a dictionary"));
      } else if (acceptsCampaignId(cid)) {
        decisive[cid.stringValue()] = i;
      }
    }
    KOArray::Storage kept;
    kept.reserve(merged.size() + answer.size());
    for (KOValue& campaign : merged) {
      const KOValue& cid = validObjectForKey(campaign, CAMPAIGN_ID);
      if (!cid.isString() || !decisive.contains(cid.stringValue())) kept.push_back(std::move(campaign));
    }
    for (std::size_t i = 0; i < answer.size(); ++i) {
      const KOValue& cid = validObjectForKey(answer[i], CAMPAIGN_ID);
      if (!cid.isString()) continue;
      const auto it = decisive.find(cid.stringValue());
      if (it == decisive.end() || it->second != i) continue;
      const KOValue& status = validObjectForKey(answer[i], KO_STATUS);
      if (status.isString() && status.stringValue() == KO_INAPP_STATUS_ACTIVE) kept.push_back(answer[i]);
    }
    merged = KOArray(std::move(kept));
  } else if (!incoming.isAbsent()) {
    logLine(KO_HERE, this, "Kovantis - exception while saving in apps is %@",
            KOValue(std::string("campaign list is ") + KOValue::kindName(incoming.kind()) + ", not a list"));
  }

  // 3. The merged list goes back, and what expired goes.
  if (haveList) {
    stored.set(KO_INAPP_CAMPAIGN_INFO_KEY, std::move(merged));
  } else {
    stored.remove(KO_INAPP_CAMPAIGN_INFO_KEY);
  }
  cleanUpExpiredInAppsWithDict(stored);

  // 4. The service's minimum delay between two in-apps, in minutes.
  if (const KOValue& delay = validObjectForKey(response, INAPP_MIN_DELAY); !delay.isAbsent()) {
    if (delay.isNumber() || delay.isString()) {
      KOPreferenceStore& prefs = KOPlatform::current().preferences->standard();
      prefs.setObject(KOValue(KOModelDict::integerValueOrZero(delay)), KO_MINIMUMDELAY_BW_INAPPS);
      prefs.synchronize();
    } else {
      logLine(KO_HERE, this, "Kovantis - exception while saving in apps is %@",
              KOValue(std::string("minimum delay is ") + KOValue::kindName(delay.kind())));
    }
  }

  // 5. The smart-trigger event list, as sent.
  if (newEvents.isArray()) {
    stored.set(INAPP_EVENTS_INFO, newEvents);
  } else if (!newEvents.isAbsent()) {
    logLine(KO_HERE, this, "Kovantis - exception while saving in apps is %@",
            KOValue(std::string("event list is ") + KOValue::kindName(newEvents.kind()) + ", not a list"));
  }

  // 6. Priority first, then the newest; written whole.
  if (KOValue* list = stored.find(KO_INAPP_CAMPAIGN_INFO_KEY); list && list->isArray()) {
    *list = sortedCampaigns(std::move(list->arrayValue()));
  }
  // 7. The cache follows the file.
  saveLocked(std::move(stored), nullptr);
}

void KOInAppV2Manager::cleanUpExpiredInAppsWithDict(KODictionary& dict) {
  try {
    const double now = KovantisDateUtils::now();
    std::unordered_set<std::string> expiredIds;
    if (KOValue* list = dict.find(KO_INAPP_CAMPAIGN_INFO_KEY); list && list->isArray()) {
      KOArray& campaigns = list->arrayValue();
      KOArray::Storage alive;
      alive.reserve(campaigns.size());
      for (KOValue& campaign : campaigns) {
        if (KOModelDict::doubleValueOrZero(validObjectForKey(campaign, KO_TTL)) > now) {
          alive.push_back(std::move(campaign));
          continue;
        }
        const KOValue& cid = validObjectForKey(campaign, CAMPAIGN_ID);
        if (cid.isString() && keyIsCampaignID(cid.stringValue())) expiredIds.insert(cid.stringValue());
      }
      campaigns = KOArray(std::move(alive));
    }
    bool anyGone = false;
    for (const auto& [key, value] : dict) {
      if (!keyIsCampaignID(key)) continue;
      if (expiredIds.contains(key) ||
          !(KOModelDict::doubleValueOrZero(validObjectForKey(value, KO_EXPIRY_DATE)) > now)) {
        anyGone = true;
        break;
      }
    }
    if (!anyGone) return;
    // Rebuilt in one pass rather than removed key by key: a store may hold thousands of entries.
    KODictionary kept;
    kept.reserve(dict.size());
    for (auto& [key, value] : dict) {
      if (keyIsCampaignID(key) && (expiredIds.contains(key) ||
                                   !(KOModelDict::doubleValueOrZero(validObjectForKey(value, KO_EXPIRY_DATE)) > now))) {
        continue;
      }
      kept.set(std::move(key), std::move(value));
    }
    dict = std::move(kept);
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, nullptr, "Kovantis - Exception : %@", e);
  }
}

// ---------------------------------------------------------------------------------- read paths

KOArray KOInAppV2Manager::getActiveInAppCampaigns() {
  KOInAppV2Manager& self = sharedInstance();
  try {
    const auto snap = self.snapshot();
    KOArray out;
    out.reserve(snap->activeCampaigns().size());
    for (const KODictionary* campaign : snap->activeCampaigns()) out.push_back(*campaign);
    return out;
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, &self, "Kovantis - exception while getting active in apps is %@", e);
    return KOArray();
  }
}

KOValue KOInAppV2Manager::getCampaignStatusDictWithCampaignId(std::string_view campaignId) {
  KOInAppV2Manager& self = sharedInstance();
  try {
    return self.snapshot()->statisticsForCampaignId(campaignId);
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, &self, "Kovantis - Exception : %@", e);
    return KOValue();
  }
}

KODictionary KOInAppV2Manager::getCampaignsDictFromPlist() {
  KOInAppV2Manager& self = sharedInstance();
  try {
    return self.snapshot()->stored();
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, &self, "Kovantis - Exception : %@", e);
    return KODictionary();
  }
}

// ---------------------------------------------------------------------------------- statistics

bool KOInAppV2Manager::shouldWriteToPlistForCampaign(int inAppType) {
  // A test campaign is shown on demand, as often as the tester asks: it keeps no statistics.
  return inAppType != KOInAppV2TypeTest;
}

bool KOInAppV2Manager::acceptsCampaignId(const KOValue& campaignId) const {
  if (campaignId.isString() && isSafeCampaignDirectoryName(campaignId.stringValue()) &&
      keyIsCampaignID(campaignId.stringValue())) {
    return true;
  }
  logLine(KO_HERE, this, "Kovantis - Refused campaign with id %@: not a plain file name",
          KOValue(campaignId.isString() ? printable(campaignId.stringValue()) : campaignId.description()));
  return false;
}

void KOInAppV2Manager::updateStatistics(const std::string& campaignId,
                                        const std::function<void(KODictionary&)>& change) {
  std::lock_guard<std::mutex> lock(writeMutex_);
  const auto current = currentLocked();
  KODictionary stored = current->stored();
  KODictionary stats;
  if (const KOValue& existing = validObjectForKey(stored, campaignId); existing.isDictionary()) {
    stats = existing.dictionaryValue();
  }
  change(stats);
  stored.set(campaignId, std::move(stats));
  saveLocked(std::move(stored), current->campaignsXML_);
}

void KOInAppV2Manager::writeToPlistToUpdateInAppNumberOfTimesShownWithInAppObject(const KOInAppV2Object& inAppObject) {
  KOInAppV2Manager& self = sharedInstance();
  try {
    const KOInAppV2CampaignPropertiesObject& campaign = inAppObject.campaignPropertiesObject();
    if (!shouldWriteToPlistForCampaign(campaign.inAppType())) return;
    if (!self.acceptsCampaignId(KOValue(campaign.campaignId()))) return;
    const double now = KovantisDateUtils::now();
    self.updateStatistics(campaign.campaignId(), [&](KODictionary& stats) {
      const KOValue& shown = validObjectForKey(stats, KO_TIMES_SHOWN);
      std::int64_t times = shown.isNil() ? 0 : KOModelDict::integerValueOrZero(shown);
      if (times < 0) times = 0;
      if (times < std::numeric_limits<std::int64_t>::max()) ++times;
      // Kept as text, as the stores written by earlier versions hold it.
      stats.set(KO_TIMES_SHOWN, KOStringFormat::format("%ld", {KOValue(times)}));
      stats.set(KO_EXPIRY_DATE, finiteOrSaturated(campaign.ttl()));
      stats.set(LAST_SHOWN, KODate{now});
    });
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, &self, "Kovantis - Exception : %@", e);
  }
}

void KOInAppV2Manager::writeToPlistForInAppClickedWithButtonType(std::int64_t buttonType,
                                                                 const KOInAppV2Object& andInAppObject) {
  KOInAppV2Manager& self = sharedInstance();
  try {
    const KOInAppV2CampaignPropertiesObject& campaign = andInAppObject.campaignPropertiesObject();
    if (!shouldWriteToPlistForCampaign(campaign.inAppType())) return;
    if (!self.acceptsCampaignId(KOValue(campaign.campaignId()))) return;
    self.updateStatistics(campaign.campaignId(), [&](KODictionary& stats) {
      stats.set(KO_INAPP_IS_CLICKED_KEY, buttonType);
      // A click before any counted showing still needs an expiry, or the next clean-up drops it.
      if (validObjectForKey(stats, KO_EXPIRY_DATE).isNil()) {
        stats.set(KO_EXPIRY_DATE, finiteOrSaturated(campaign.ttl()));
      }
    });
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, &self, "Kovantis - Exception : %@", e);
  }
}
