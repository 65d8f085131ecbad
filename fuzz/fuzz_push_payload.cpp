// Any push payload the JSON reader accepts, handed to the SDK as every way a push reaches it: a
// delivery in each application state, a response with each kind of action (with and without
// attachments), a button on the older interface and the launch options of a cold start. Whatever
// the payload holds, nothing may crash and the work it queues (dialogs, deep links, landing pages)
// must run through. The service is a closed loopback port, so nothing leaves the machine.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOLogger.h"
#include "Sim/KOSimDevice.h"
#include "kovantis/KOConstants.h"
#include "kovantis/Kovantis.h"

namespace {

KOSimDevice& device() {
  static auto* d = [] {
    auto* made = new KOSimDevice();
    made->install();
    made->setServiceEndpoints(KOServiceEndpoints::local("127.0.0.1", 9));
    made->userInterface().setAlertAnswer(0);  // every coupon dialog is answered at once
    made->application().addOpenableScheme("shop");
    KOLogger::debug(0);
    Kovantis::sharedInstance().initializeWithApiKey(KOValue("fuzz-app"));
    return made;
  }();
  return *d;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  KOSimDevice& phone = device();
  if (size == 0) return 0;
  const std::uint8_t flags = data[0];
  KOValue payload;
  try {
    payload = KOJSONSerialization::parse(std::string_view(reinterpret_cast<const char*>(data) + 1, size - 1));
  } catch (const std::exception&) {
    return 0;
  }
  Kovantis& sdk = Kovantis::sharedInstance();
  static const KOApplicationState states[] = {KOApplicationState::Active, KOApplicationState::Inactive,
                                              KOApplicationState::Background};
  phone.application().setApplicationState(states[flags % 3]);
  phone.profile().update([&](KOSimProfileSettings& s) { s.systemVersion = (flags & 4) ? "8.4" : "17.4"; });
  phone.userInterface().setSupportsAlertController((flags & 8) == 0);
  const bool deepLinks = (flags & 16) != 0;

  sdk.didReceieveNotificationinApplication(nullptr, payload, deepLinks);
  const KOValue identifiers[] = {KOValue(KONotificationDefaultActionIdentifier),
                                 KOValue(KONotificationDismissActionIdentifier), KOValue(KOV_DISMISS_ACTION),
                                 KOValue("custom"), KOValue(3)};
  KONotificationResponse response{identifiers[(flags >> 5) % 5], payload, {}};
  if (flags & 128) response.attachments.push_back("attachment");
  sdk.userNotificationCenter(nullptr, response);
  sdk.handleActionWithIdentifier(KOValue("custom"), payload);
  phone.pumpMain();
  // The web view the older systems show reports its page, then the user closes whatever is open.
  phone.userInterface().finishLoading();
  phone.userInterface().finishBrowser();
  phone.pumpMain();
  return 0;
}
