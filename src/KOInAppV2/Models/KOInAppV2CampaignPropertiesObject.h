// The rules of one campaign: who it is, when it expires, how often and where it may show. Built
// from the raw campaign dictionary on every show decision, so it reads only its own keys and
// copies nothing else of the campaign.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "KOInAppV2/Models/KOModelDict.h"
#include "kovantis/KOValue.h"

/// What kind of campaign it is ("type").
enum KOInAppV2Type : int {
  KOInAppV2TypeSmart = 0,
  KOInAppV2TypeGeneral = 1,
  KOInAppV2TypeLinked = 2,  // reserved: no string maps to it
  KOInAppV2TypeAdvanced = 3,
  KOInAppV2TypeEmbedded = 4,
  KOInAppV2TypeSelfHandled = 5,
  KOInAppV2TypeTest = 6,
};

class KOInAppV2CampaignPropertiesObject : public KOModelDict {
 public:
  KOInAppV2CampaignPropertiesObject() = default;
  explicit KOInAppV2CampaignPropertiesObject(const KOValue& campaign) { initWithDictionary(campaign); }
  explicit KOInAppV2CampaignPropertiesObject(const KODictionary& campaign) { initWithDictionary(campaign); }

  void initWithDictionary(const KOValue& campaign) override;
  void initWithDictionary(const KODictionary& campaign);

  /// "smart", "general", "advanced", "embedded", "self_handled", "test"; anything else is general.
  static int inAppTypeForString(std::string_view type);

  const std::string& campaignId() const { return campaignId_; }
  void setCampaignId(std::string value) { campaignId_ = std::move(value); }
  /// Minimum time between two showings, in seconds.
  std::int64_t interval() const { return interval_; }
  void setInterval(std::int64_t value) { interval_ = value; }
  /// Expiry, in seconds since 1970.
  double ttl() const { return ttl_; }
  void setTtl(double value) { ttl_ = value; }
  std::int64_t maxTimes() const { return maxTimes_; }
  void setMaxTimes(std::int64_t value) { maxTimes_ = value; }
  const std::string& status() const { return status_; }
  void setStatus(std::string value) { status_ = std::move(value); }
  /// A persistent campaign keeps showing after its primary action was clicked.
  bool persistence() const { return persistence_; }
  void setPersistence(bool value) { persistence_ = value; }
  std::int64_t priority() const { return priority_; }
  void setPriority(std::int64_t value) { priority_ = value; }
  const KOValue& context() const { return context_; }
  void setContext(KOValue value) { context_ = std::move(value); }
  const KOValue& lastUpdated() const { return lastUpdated_; }
  void setLastUpdated(KOValue value) { lastUpdated_ = std::move(value); }
  int inAppType() const { return inAppType_; }
  void setInAppType(int value) { inAppType_ = value; }
  /// The only screen the campaign may show on; empty means any.
  const std::string& showOnlyInScreen() const { return showOnlyInScreen_; }
  void setShowOnlyInScreen(std::string value) { showOnlyInScreen_ = std::move(value); }

 private:
  std::string campaignId_;
  std::int64_t interval_ = 0;
  double ttl_ = 0;
  std::int64_t maxTimes_ = 0;
  std::string status_;
  bool persistence_ = false;
  std::int64_t priority_ = 0;
  KOValue context_;
  KOValue lastUpdated_;
  int inAppType_ = KOInAppV2TypeGeneral;
  std::string showOnlyInScreen_;
};
