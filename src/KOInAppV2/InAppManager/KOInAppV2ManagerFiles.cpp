// The in-app store's files beside the campaigns: each campaign's image directory, the images of
// smart-trigger campaigns, what older versions left, and the paths.
#include <unordered_set>

#include "KOInAppV2/InAppManager/KOInAppV2Manager.h"
#include "KOInAppV2/InAppManager/KOInAppV2StoreFiles.h"
#include "KOUtilities/KOAtomicFile.h"
#include "KOUtilities/KOInternalConstants.h"

using namespace KOInAppV2StoreFiles;

// -------------------------------------------------------------------------------------- images

bool KOInAppV2Manager::isSafeCampaignDirectoryName(std::string_view name) {
  if (name.empty() || name.size() > kMaxNameBytes) return false;
  if (name == "." || name == "..") return false;
  return name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

std::optional<std::string> KOInAppV2Manager::imageDirectoryForCampaign(std::string_view campaignId) {
  if (!isSafeCampaignDirectoryName(campaignId)) {
    logLine(KO_HERE, nullptr, "Kovantis - Refused campaign id %@ as an image directory: not a plain file name",
            KOValue(printable(campaignId)));
    return std::nullopt;
  }
  return getImagesPath() + std::string(campaignId);
}

bool KOInAppV2Manager::writeInAppImageData(const KOData& data, std::string_view suffix,
                                           const KOInAppV2Object& forObject, bool isGif) {
  try {
    const std::string& campaignId = forObject.campaignPropertiesObject().campaignId();
    const std::optional<std::string> directory = imageDirectoryForCampaign(campaignId);
    if (!directory) return false;
    const std::string name = campaignId + std::string(suffix) + (isGif ? ".gif" : ".png");
    if (!isSafeCampaignDirectoryName(name)) {
      logLine(KO_HERE, nullptr, "Kovantis - Refused image name %@: not a plain file name", KOValue(printable(name)));
      return false;
    }
    KOFileSystem& fs = fileSystem();
    KOFileError error;
    if (!fs.fileExists(*directory) && !fs.createDirectories(*directory, &error)) {
      KOLogger::logLocated(KO_HERE, nullptr, KOLogSeverityException,
                           "Kovantis - Error while creating directory after image download");
      return false;
    }
    const auto& bytes = data.bytes;
    return KOAtomicFile::write(fs, *directory + "/" + name,
                               std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, nullptr, "Kovantis - Exception : %@", e);
    return false;
  }
}

void KOInAppV2Manager::removeInAppImageForCampaign(std::string_view campaignId) {
  try {
    const std::optional<std::string> directory = imageDirectoryForCampaign(campaignId);
    if (!directory) return;
    if (!fileSystem().removeItem(*directory)) {
      KOLogger::logLocated(KO_HERE, nullptr, KOLogSeverityException,
                           "Kovantis - Error while deleting image from storage");
    }
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, nullptr, "Kovantis - Exception : %@", e);
  }
}

void KOInAppV2Manager::checkSmartTriggerWithOldEventsArray(const KOValue& oldEventsArray,
                                                           const KOValue& andNewEventsArray) {
  try {
    if (!oldEventsArray.isArray() || !andNewEventsArray.isArray()) return;
    std::unordered_set<std::string_view> stillListed;
    for (const KOValue& entry : andNewEventsArray.arrayValue()) {
      if (const std::string* cid = campaignIdOfEventEntry(entry)) stillListed.insert(*cid);
    }
    KOArray gone;
    std::unordered_set<std::string_view> seen;
    for (const KOValue& entry : oldEventsArray.arrayValue()) {
      const std::string* cid = campaignIdOfEventEntry(entry);
      if (cid && !stillListed.contains(*cid) && seen.insert(*cid).second) gone.push_back(entry);
    }
    if (!gone.empty()) deleteSmartTriggerImagesForEventsInfo(gone);
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, nullptr, "Kovantis - Exception : %@", e);
  }
}

void KOInAppV2Manager::deleteSmartTriggerImagesForEventsInfo(const KOArray& eventsInfo) {
  for (const KOValue& entry : eventsInfo) {
    if (const std::string* cid = campaignIdOfEventEntry(entry)) removeInAppImageForCampaign(*cid);
  }
}

// ------------------------------------------------------------------------------ older storage

void KOInAppV2Manager::removeV1InApps() {
  try {
    KOPreferenceStore& prefs = KOPlatform::current().preferences->standard();
    const KOValue done = prefs.objectForKey(KO_INAPP_V1_REMOVE_IMAGES);
    if (done.isNumber() && done.boolValue()) return;
    KOFileError error;
    if (!fileSystem().removeItem(documents() + "/" + INAPP_PLIST_PATH, &error)) {
      logLine(KO_HERE, nullptr, "Kovantis - error removing v1 in-apps is %@", KOValue(error.message));
    }
    removeV1InAppImages();
    prefs.setObject(KOValue(true), KO_INAPP_V1_REMOVE_IMAGES);
    prefs.synchronize();
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, nullptr, "Kovantis - error removing v1 in-apps is %@", e);
  }
}

void KOInAppV2Manager::removeV1InAppImages() {
  try {
    KOFileError error;
    if (!fileSystem().removeItem(documents() + KO_INAPP_V1_IMAGES_PATH, &error)) {
      logLine(KO_HERE, nullptr, "Kovantis - error while removing v1 inapp images is %@", KOValue(error.message));
    }
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, nullptr, "Kovantis - error while removing v1 inapp images is %@", e);
  }
}

void KOInAppV2Manager::removeV2InApps() {
  KOInAppV2Manager& self = sharedInstance();
  try {
    std::lock_guard<std::mutex> lock(self.writeMutex_);
    if (!fileSystem().removeItem(getFilePath())) {
      KOLogger::logLocated(KO_HERE, &self, KOLogSeverityException, "Kovantis - error while removing v2 in-apps");
    }
    self.publish(KODictionary(), nullptr);
    removeV2InAppImages();
  } catch (const std::exception&) {
    KOLogger::logLocated(KO_HERE, &self, KOLogSeverityException, "Kovantis - error while removing v2 in-apps");
  }
}

void KOInAppV2Manager::removeV2InAppImages() {
  try {
    std::string images = getImagesPath();
    images.pop_back();  // the directory itself, not a name inside it
    if (!fileSystem().removeItem(images)) {
      KOLogger::logLocated(KO_HERE, nullptr, KOLogSeverityException,
                           "Kovantis - Error while deleting image from storage");
    }
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, nullptr, "Kovantis - Exception : %@", e);
  }
}

// ------------------------------------------------------------------------------------- paths

std::string KOInAppV2Manager::getFilePath() { return documents() + "/" + INAPP_PLIST_PATH_V2; }

std::string KOInAppV2Manager::getImagesPath() { return documents() + KO_INAPP_V2_IMAGES_PATH; }

bool KOInAppV2Manager::keyIsCampaignID(std::string_view key) {
  for (const char* reserved :
       {KO_INAPP_CAMPAIGN_INFO_KEY, INAPP_EVENTS_INFO, "reason", "code", INAPP_MIN_DELAY, KO_STATUS}) {
    if (key == reserved) return false;
  }
  return true;
}
