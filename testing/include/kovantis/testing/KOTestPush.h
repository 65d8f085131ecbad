// A push as the service sends it, built for a test: the campaign it belongs to, what the user
// sees, and what the SDK does when it is opened (coupon, deep link, landing page, in-app
// campaign). KOTestHarness hands it to the app in each way a push reaches one (launch, tap,
// receipt while open, action button, dismissal).
//
//   KOTestPush push("spring-sale");
//   push.alert("20% off shoes").deepLink("myshop://product/A1").coupon("SHOES20");
//   harness.openPush(push);
#pragma once

#include <string>

#include "kovantis/KOValue.h"

class KOTestPush {
 public:
  /// A push of the campaign: the SDK handles only pushes that carry their campaign id.
  explicit KOTestPush(std::string campaignId);

  /// The text shown, or a title and a body.
  KOTestPush& alert(std::string text);
  KOTestPush& alert(std::string title, std::string body);
  KOTestPush& badge(int count);
  /// The notification category, whose buttons the system shows (see the SDK's categories).
  KOTestPush& category(std::string identifier);
  /// Opened in the app (its URL router) or by the system when the push is tapped.
  KOTestPush& deepLink(std::string url);
  /// Offered for copying in a dialog before anything else happens.
  KOTestPush& coupon(std::string code);
  /// A web page shown in the platform's browser when the push is tapped.
  KOTestPush& landingPage(std::string url);
  /// The in-app campaign fetched and shown when the push is tapped (or arrives while open).
  KOTestPush& inAppCampaign(std::string campaignId);
  /// A silent push: the SDK leaves it alone.
  KOTestPush& silent(bool silent = true);
  /// An extra of the app's own, beside the deep link: the app reads it, the SDK does not.
  KOTestPush& extra(const std::string& key, KOValue value);
  /// Any other key, as "block.key" ("kovantis.media-attachment") or a top-level "key".
  KOTestPush& set(const std::string& keyPath, KOValue value);

  const std::string& campaignId() const { return campaignId_; }
  /// The payload, as the platform hands it to the app.
  KODictionary payload() const;

 private:
  std::string campaignId_;
  KODictionary payload_;
};
