// The in-app campaign store: the campaigns the service sent (kept raw), the smart-trigger event
// list, per-campaign showing statistics, and the downloaded campaign images.
//
//   Documents/InAppCampaignsV2.plist       {"campaign_info": [...], "event_list": [...],
//                                            "<campaign id>": {statistics}, ...}
//   Documents/Kovantis/InAppImages/<cid>/  one directory of images per campaign
//
// The file is written whole and atomically on every change. The shared instance keeps the store as
// last saved in memory, as one immutable snapshot: the show decision and the trigger check, which
// run per screen and per tracked event, read that snapshot and never the file. Changes run one at
// a time; readers on other threads keep the snapshot they took.
//
// A campaign id from the service becomes a directory name: every id is checked by
// isSafeCampaignDirectoryName before it touches a path, and nothing is ever written or deleted
// outside the images directory on its account.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KOInAppV2/Models/KOInAppV2Object.h"
#include "kovantis/KOValue.h"

/// The store as last saved. Never changed once made: a save publishes a new one.
class KOInAppV2StoreSnapshot {
 public:
  explicit KOInAppV2StoreSnapshot(KODictionary stored);
  KOInAppV2StoreSnapshot(const KOInAppV2StoreSnapshot&) = delete;
  KOInAppV2StoreSnapshot& operator=(const KOInAppV2StoreSnapshot&) = delete;

  /// The whole stored dictionary.
  const KODictionary& stored() const { return stored_; }
  /// The campaigns whose "status" is "active" and that carry a "cid", in store order (priority
  /// ascending, then the newest "last_updated" first).
  const std::vector<const KODictionary*>& activeCampaigns() const { return active_; }
  /// The stored "campaign_info" (nil when none).
  const KOValue& inAppsArray() const;
  /// The stored "event_list" (nil when none).
  const KOValue& eventsArray() const;
  /// One campaign's statistics dictionary, or nil.
  const KOValue& statisticsForCampaignId(std::string_view campaignId) const;

 private:
  friend class KOInAppV2Manager;

  KODictionary stored_;
  std::vector<const KODictionary*> active_;  // point into stored_
  /// The campaign list as the file holds it, when this snapshot was saved by this process.
  std::shared_ptr<const std::string> campaignsXML_;
};

class KOInAppV2Manager {
 public:
  static KOInAppV2Manager& sharedInstance();

  /// The cached store, read from the file on first use.
  std::shared_ptr<const KOInAppV2StoreSnapshot> snapshot();
  /// Changes whenever the snapshot may have: what is built from one is current while this is the
  /// same. One atomic load.
  std::uint64_t snapshotVersion() const { return version_.load(std::memory_order_acquire); }
  /// Copies of the cached campaign list and event list (nil when none).
  KOValue inAppsArray();
  KOValue eventsArray();

  /// Merges a fetch answer into the store: campaigns replaced by "cid", only active ones kept,
  /// expired ones and their statistics dropped, the minimum delay and the event list taken over,
  /// the list sorted by priority and then newest first. The completion runs when done, also when
  /// nothing could be merged.
  static void saveInAppCampaignsWithData(const KOValue& data, const std::function<void()>& andCompletionHandler);
  /// Copies of the active campaigns, in store order.
  static KOArray getActiveInAppCampaigns();
  /// The statistics dictionary of one campaign, or nil.
  static KOValue getCampaignStatusDictWithCampaignId(std::string_view campaignId);
  /// The whole stored dictionary; empty when there is no store.
  static KODictionary getCampaignsDictFromPlist();

  /// Counts one showing: "timesShown" (kept as a decimal string), "expiryDate" (the campaign's
  /// ttl) and "lastShown" (now). Test campaigns leave no statistics.
  static void writeToPlistToUpdateInAppNumberOfTimesShownWithInAppObject(const KOInAppV2Object& inAppObject);
  /// Marks the campaign's primary action as clicked ("isClicked"), under the same rule.
  static void writeToPlistForInAppClickedWithButtonType(std::int64_t buttonType, const KOInAppV2Object& andInAppObject);
  static bool shouldWriteToPlistForCampaign(int inAppType);
  /// Drops the campaigns whose ttl is not later than now, with their statistics, and every
  /// statistics entry whose "expiryDate" is not later than now.
  static void cleanUpExpiredInAppsWithDict(KODictionary& dict);

  /// Writes one image of the campaign as "<images>/<cid>/<cid><suffix>.png" (or ".gif"),
  /// creating the campaign's directory when missing. Returns whether the file was written.
  static bool writeInAppImageData(const KOData& data, std::string_view suffix, const KOInAppV2Object& forObject,
                                  bool isGif);
  /// Deletes the campaign's image directory.
  static void removeInAppImageForCampaign(std::string_view campaignId);
  /// Deletes the images of the smart-trigger campaigns that the new event list no longer holds.
  /// An entry names its campaign under "cid" (or "campaign_id"); an entry that is a bare event
  /// name has no images of its own.
  static void checkSmartTriggerWithOldEventsArray(const KOValue& oldEventsArray, const KOValue& andNewEventsArray);
  static void deleteSmartTriggerImagesForEventsInfo(const KOArray& eventsInfo);

  /// Deletes the first generation's store and images once per install.
  static void removeV1InApps();
  static void removeV1InAppImages();
  /// Deletes the store and every campaign image (a user reset).
  static void removeV2InApps();
  static void removeV2InAppImages();

  /// "<documents>/InAppCampaignsV2.plist".
  static std::string getFilePath();
  /// "<documents>/Kovantis/InAppImages/".
  static std::string getImagesPath();
  /// Whether a top-level key of the store is a campaign's statistics entry.
  static bool keyIsCampaignID(std::string_view key);

  /// Whether a name from the service may become one file or directory name inside the images
  /// directory: not empty, not "." or "..", no "/" and no NUL byte, at most 255 bytes. The one
  /// check for every path built from a campaign id (the image download uses it too).
  static bool isSafeCampaignDirectoryName(std::string_view name);
  /// "<images>/<cid>" for a safe id; nothing, with a log line, for any other.
  static std::optional<std::string> imageDirectoryForCampaign(std::string_view campaignId);

  // ---- For tests and fuzzing only: the SDK itself never calls this.
  /// Forgets the cached store, so that the next read loads the file again.
  void dropCache();

 private:
  /// Subscribes to the user reset, which removes the store and its images.
  KOInAppV2Manager();

  /// The snapshot, loading the file when none is cached; the caller holds writeMutex_.
  std::shared_ptr<const KOInAppV2StoreSnapshot> currentLocked();
  /// Writes the dictionary as the store and publishes it; the caller holds writeMutex_. Given the
  /// text of an unchanged campaign list, it is not rendered again.
  void saveLocked(KODictionary stored, std::shared_ptr<const std::string> campaignsXML);
  void publish(KODictionary stored, std::shared_ptr<const std::string> campaignsXML);
  /// The "<array>" of the campaigns; a campaign the file cannot hold is dropped with a log line.
  std::shared_ptr<const std::string> campaignListXML(KOArray& campaigns);
  /// The whole file: the entries other than the campaign list, and the list's text.
  static std::string storeText(const KODictionary& rest, const std::string* campaignsXML);
  /// Drops, with a log line each, the entries the property-list file cannot hold.
  void dropWhatTheFileCannotHold(KODictionary& stored);
  KODictionary readStoreFile();
  void merge(const KOValue& data);
  /// Changes one campaign's statistics: the store is copied, changed and written whole.
  void updateStatistics(const std::string& campaignId, const std::function<void(KODictionary&)>& change);
  /// Whether a campaign id may key a statistics entry; logs a refusal.
  bool acceptsCampaignId(const KOValue& campaignId) const;

  std::mutex writeMutex_;  // one change of the store at a time; taken before cacheMutex_
  mutable std::mutex cacheMutex_;
  std::atomic<std::uint64_t> version_{1};
  std::shared_ptr<const KOInAppV2StoreSnapshot> cache_;
};
