#include "kovantis/testing/KOTestPush.h"

#include <utility>

#include "kovantis/KOConstants.h"

namespace {

// Every key of the payload the builder writes, in one place: the public names a host writes, and
// the platform's own flag for a background push.
namespace key {
constexpr const char* kPlatformBlock = KOPushKeyAps;
constexpr const char* kAlert = KOPushKeyAlert;
constexpr const char* kAlertTitle = KOPushKeyAlertTitle;
constexpr const char* kAlertBody = KOPushKeyAlertBody;
constexpr const char* kBadge = KOPushKeyBadge;
constexpr const char* kCategory = KOPushKeyCategory;
constexpr const char* kContentAvailable = "content-available";
constexpr const char* kServiceBlock = KOPushKeyService;
constexpr const char* kCampaignId = KOPushKeyCampaignId;
constexpr const char* kCoupon = KOPushKeyCouponCode;
constexpr const char* kLandingPage = KOPushKeyLandingPage;
constexpr const char* kInAppCampaign = KOPushKeyInAppCampaignId;
constexpr const char* kSilent = KOPushKeySilent;
constexpr const char* kAppBlock = KOPushKeyAppExtra;
constexpr const char* kDeepLink = KOPushKeyDeepLink;
}  // namespace key

void setIn(KODictionary& payload, const std::string& block, const std::string& name, KOValue value) {
  KOValue* found = payload.find(block);
  if (!found || !found->isDictionary()) found = &payload.set(block, KOValue(KODictionary{}));
  found->dictionaryValue().set(name, std::move(value));
}

void removeIn(KODictionary& payload, const std::string& block, const std::string& name) {
  if (KOValue* found = payload.find(block); found && found->isDictionary()) found->dictionaryValue().remove(name);
}

}  // namespace

KOTestPush::KOTestPush(std::string campaignId) : campaignId_(std::move(campaignId)) {
  setIn(payload_, key::kServiceBlock, key::kCampaignId, KOValue(campaignId_));
}

KOTestPush& KOTestPush::alert(std::string text) {
  setIn(payload_, key::kPlatformBlock, key::kAlert, KOValue(std::move(text)));
  return *this;
}

KOTestPush& KOTestPush::alert(std::string title, std::string body) {
  setIn(payload_, key::kPlatformBlock, key::kAlert,
        KOValue(KODictionary{{key::kAlertTitle, std::move(title)}, {key::kAlertBody, std::move(body)}}));
  return *this;
}

KOTestPush& KOTestPush::badge(int count) {
  setIn(payload_, key::kPlatformBlock, key::kBadge, KOValue(count));
  return *this;
}

KOTestPush& KOTestPush::category(std::string identifier) {
  setIn(payload_, key::kPlatformBlock, key::kCategory, KOValue(std::move(identifier)));
  return *this;
}

KOTestPush& KOTestPush::deepLink(std::string url) {
  setIn(payload_, key::kAppBlock, key::kDeepLink, KOValue(std::move(url)));
  return *this;
}

KOTestPush& KOTestPush::coupon(std::string code) {
  setIn(payload_, key::kServiceBlock, key::kCoupon, KOValue(std::move(code)));
  return *this;
}

KOTestPush& KOTestPush::landingPage(std::string url) {
  setIn(payload_, key::kServiceBlock, key::kLandingPage, KOValue(std::move(url)));
  return *this;
}

KOTestPush& KOTestPush::inAppCampaign(std::string campaignId) {
  setIn(payload_, key::kServiceBlock, key::kInAppCampaign, KOValue(std::move(campaignId)));
  return *this;
}

KOTestPush& KOTestPush::silent(bool silent) {
  if (silent) {
    setIn(payload_, key::kServiceBlock, key::kSilent, KOValue(1));
    setIn(payload_, key::kPlatformBlock, key::kContentAvailable, KOValue(1));
  } else {
    removeIn(payload_, key::kServiceBlock, key::kSilent);
    removeIn(payload_, key::kPlatformBlock, key::kContentAvailable);
  }
  return *this;
}

KOTestPush& KOTestPush::extra(const std::string& name, KOValue value) {
  setIn(payload_, key::kAppBlock, name, std::move(value));
  return *this;
}

KOTestPush& KOTestPush::set(const std::string& keyPath, KOValue value) {
  const auto dot = keyPath.find('.');
  if (dot == std::string::npos) {
    payload_.set(keyPath, std::move(value));
  } else {
    setIn(payload_, keyPath.substr(0, dot), keyPath.substr(dot + 1), std::move(value));
  }
  return *this;
}

KODictionary KOTestPush::payload() const { return payload_; }
