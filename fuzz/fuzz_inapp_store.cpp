// The campaign store's merge on any answer, over any store file, on a simulated device in a
// temporary directory. Input: the bytes of the store file, "\n--\n", then the answer as JSON (no
// separator: the answer alone, over an empty store). After the merge, the store also counts a
// showing, marks a click and writes and removes an image for every stored campaign, and then
// takes an answer that drops every smart trigger. Checks: nothing escapes, what is cached is what
// the file holds, the active list is in order, and no path outside the store file and the images
// directory ever appears.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include "KOFuzzInput.h"
#include "KOInAppV2/InAppManager/KOInAppV2Manager.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOPropertyListFile.h"
#include "KOUtilities/KOPropertyListSerialization.h"
#include "KOUtilities/KOValueHelpers.h"
#include "Sim/KOSimDevice.h"
#include "kovantis/KOConstants.h"

namespace fs = std::filesystem;

namespace {

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "%s\n", what.c_str());
  std::abort();
}

struct Rig {
  std::string outer;  // holds the device directory and nothing else
  KOSimDevice* device;

  Rig() {
    const fs::path base = fs::exists("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path();
    std::string pattern = (base / "kovantis-fuzz-store-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) fail("no temporary directory");
    outer = pattern;
    KOSimDeviceConfig config;
    config.rootDirectory = outer + "/device";
    config.backgroundThreads = 1;
    device = new KOSimDevice(config);
    device->install();
    device->clock().setNow(1800000000);
  }
};

Rig& rig() {
  static auto* r = [] {
    auto* made = new Rig();
    // The device stays alive to the end (the store's threads may still use it); its files go then.
    std::atexit([] {
      std::error_code ec;
      fs::remove_all(rig().outer, ec);
    });
    return made;
  }();
  return *r;
}

bool under(const std::string& path, const std::string& directory) {
  return path.size() > directory.size() && path.compare(0, directory.size(), directory) == 0;
}

void checkTree(Rig& r) {
  for (const auto& entry : fs::directory_iterator(r.outer)) {
    if (entry.path().filename() != "device") fail("a file appeared beside the device: " + entry.path().string());
  }
  const std::string docs = r.device->documentsDirectory() + "/";
  const std::string images = KOInAppV2Manager::getImagesPath();
  const std::string store = KOInAppV2Manager::getFilePath();
  for (const auto& entry : fs::recursive_directory_iterator(r.device->rootDirectory())) {
    const std::string p = entry.path().string();
    if (!under(p, docs)) continue;  // preferences and the rest of the sandbox are not the store's
    if (p == store || under(p, store + ".unreadable") || p == store + ".unreadable") continue;
    if (p == docs + "Kovantis" || p + "/" == images) continue;
    if (!under(p, images)) fail("the store wrote outside its files: " + p);
    // Inside the images directory: "<cid>" or "<cid>/<file>", never deeper.
    const std::string rest = p.substr(images.size());
    const auto slash = rest.find('/');
    if (slash != std::string::npos && rest.find('/', slash + 1) != std::string::npos) fail("nested image path: " + p);
  }
}

void reset(Rig& r) {
  KOInAppV2Manager::removeV2InApps();
  std::error_code ec;
  fs::remove_all(KOInAppV2Manager::getFilePath() + ".unreadable", ec);
  fs::remove_all(r.device->documentsDirectory(), ec);
  fs::create_directories(r.device->documentsDirectory(), ec);
  KOInAppV2Manager::sharedInstance().dropCache();
}

void merge(const KOValue& answer) {
  bool done = false;
  KOInAppV2Manager::saveInAppCampaignsWithData(answer, [&] { done = true; });
  if (!done) fail("the merge did not call its completion");
}

void checkStore() {
  const auto snapshot = KOInAppV2Manager::sharedInstance().snapshot();
  const KOValue onDisk = KOPropertyListFile::read(KOInAppV2Manager::getFilePath());
  // What the session reads is what the next launch reads: the file holds the cache as the
  // property-list writer renders it (JSON nulls left out of dictionaries, "" in lists).
  if (!onDisk.isNil()) {
    const KOValue rendered =
        KOPropertyListSerialization::parse(KOPropertyListSerialization::writeXML(snapshot->stored()));
    if (onDisk != rendered) fail("the cache and the file disagree");
  }
  std::int64_t lastPriority = INT64_MIN;
  for (const KODictionary* campaign : snapshot->activeCampaigns()) {
    const KOValue& cid = validObjectForKey(*campaign, CAMPAIGN_ID);
    if (!cid.isString() || !KOInAppV2Manager::isSafeCampaignDirectoryName(cid.stringValue())) {
      // Only a store file can bring such a campaign in; the answer never does.
      continue;
    }
    const std::int64_t priority = KOModelDict::integerValueOrZero(validObjectForKey(*campaign, KO_PRIORITY));
    if (priority < lastPriority) fail("active campaigns out of order");
    lastPriority = priority;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Rig& r = rig();
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const KOFuzzInput parts = KOFuzzInput::split(input);
  const std::optional<KOValue> parsed = parts.parsedAnswer();
  if (!parsed) return 0;
  const KOValue& answer = *parsed;
  reset(r);
  if (parts.stored) r.device->rawFiles().writeFile(KOInAppV2Manager::getFilePath(), *parts.stored);
  try {
    merge(answer);
    checkStore();
    checkTree(r);
    for (const KOValue& campaign : KOInAppV2Manager::getActiveInAppCampaigns()) {
      const KOInAppV2Object inApp(campaign);
      KOInAppV2Manager::writeToPlistToUpdateInAppNumberOfTimesShownWithInAppObject(inApp);
      KOInAppV2Manager::writeToPlistForInAppClickedWithButtonType(1, inApp);
      KOInAppV2Manager::writeInAppImageData(KOData{{0x47, 0x49, 0x46}}, "_0", inApp, true);
      checkTree(r);
      KOInAppV2Manager::removeInAppImageForCampaign(inApp.campaignPropertiesObject().campaignId());
    }
    // The answer's event list again, then none: every smart trigger it named loses its images.
    const KOValue& events = validObjectForKey(answer, INAPP_EVENTS_INFO);
    if (events.isArray()) {
      for (const KOValue& entry : events.arrayValue()) {
        const KOValue& cid = validObjectForKey(entry, CAMPAIGN_ID);
        if (cid.isString()) {
          KOInAppV2Manager::writeInAppImageData(KOData{{1}}, "", KOInAppV2Object(entry), false);
        }
      }
      merge(KODictionary{{INAPP_EVENTS_INFO, KOArray{}}});
    }
    checkStore();
    checkTree(r);
  } catch (const std::exception& e) {
    fail(std::string("the store let an exception out: ") + e.what());
  }
  return 0;
}
