// Campaign previews for the dashboard: a seeded campaign laid out exactly as the SDK lays it out
// on the simulated phone, and drawn by the simulated screen's renderer.
#include <mutex>
#include <string>

#include "KOInAppV2/InAppView/KOInAppV2ViewBuilder.h"
#include "KOInAppV2/Models/KOInAppV2Object.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "Sim/KOSimDevice.h"
#include "Sim/KOSimRenderer.h"

std::string kovantisCampaignPreview(const std::string& campaignJSON) {
  static std::mutex drawing;  // one layout at a time: the device's text measuring is shared
  std::lock_guard lock(drawing);
  static auto* device = [] {
    // The layout measures text and reads the screen through the platform, as on a phone.
    auto* d = new KOSimDevice();
    d->install();
    return d;
  }();
  try {
    const KOInAppV2Object campaign(KOJSONSerialization::parse(campaignJSON));
    return KOSimRenderer::svg(KOInAppV2ViewBuilder::describe(campaign, device->profile().screenSize()));
  } catch (const std::exception&) {
    return {};  // no preview: the dashboard says so
  }
}
