// A campaign as it is drawn: its rules (the properties object), alignment, animations, backdrop,
// widgets and, for a self-handled campaign, the content handed to the host app.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KOInAppV2/Models/KOInAppV2CampaignPropertiesObject.h"
#include "KOInAppV2/Models/KOInAppV2WidgetObject.h"
#include "KOInAppV2/Models/KOModelDict.h"

/// A campaign's "align" (a layout's spelling is "alignment").
enum KOInAppV2Alignment : int {
  KOInAppV2AlignmentCenter = 0,
  KOInAppV2AlignmentTop = 1,
  KOInAppV2AlignmentBottom = 2,
  KOInAppV2AlignmentEmbedded = 3,
  KOInAppV2AlignmentFull = 4,
  KOInAppV2AlignmentSelfHandled = 5,
};

/// An entry or exit animation.
enum KOInAppV2Animation : int {
  KOInAppV2AnimationSlideUp = 0,
  KOInAppV2AnimationSlideDown = 1,
  KOInAppV2AnimationSlideLeft = 2,
  KOInAppV2AnimationSlideRight = 3,
  KOInAppV2AnimationFadeIn = 4,
  KOInAppV2AnimationFadeOut = 5,
  KOInAppV2AnimationNone = 6,
};

class KOInAppV2Object : public KOModelDict {
 public:
  using WidgetArray = std::vector<std::shared_ptr<const KOInAppV2WidgetObject>>;

  KOInAppV2Object() = default;
  /// The properties object is built first, from the same dictionary, and kept.
  KOInAppV2Object(const KOValue& campaign, KOInAppV2CampaignPropertiesObject andPropertiesObject) {
    initWithDictionary(campaign, std::move(andPropertiesObject));
  }
  explicit KOInAppV2Object(const KOValue& campaign) { initWithDictionary(campaign); }

  /// Builds the properties object from the campaign too.
  void initWithDictionary(const KOValue& campaign) override;
  void initWithDictionary(const KOValue& campaign, KOInAppV2CampaignPropertiesObject andPropertiesObject);

  static int alignmentForString(std::string_view align);
  static int getAnimationType(std::string_view animation);
  /// One widget per element; an absent list gives no list.
  static std::optional<WidgetArray> getWidgetsFromWidgetsDictArray(const KOValue& list);

  const KOInAppV2CampaignPropertiesObject& campaignPropertiesObject() const { return campaignPropertiesObject_; }
  void setCampaignPropertiesObject(KOInAppV2CampaignPropertiesObject value) {
    campaignPropertiesObject_ = std::move(value);
  }
  const std::optional<WidgetArray>& widgetsArray() const { return widgetsArray_; }
  void setWidgetsArray(std::optional<WidgetArray> value) { widgetsArray_ = std::move(value); }
  bool cancellable() const { return cancellable_; }
  void setCancellable(bool value) { cancellable_ = value; }
  int alignmentType() const { return alignmentType_; }
  void setAlignmentType(int value) { alignmentType_ = value; }
  /// The raw "properties" block; the view layer reads the backdrop style from it.
  const KODictionary& tintPropertiesDict() const { return tintPropertiesDict_; }
  void setTintPropertiesDict(KODictionary value) { tintPropertiesDict_ = std::move(value); }
  int entryAnimation() const { return entryAnimation_; }
  void setEntryAnimation(int value) { entryAnimation_ = value; }
  int exitAnimation() const { return exitAnimation_; }
  void setExitAnimation(int value) { exitAnimation_ = value; }
  /// A self-handled campaign's payload, handed to the host app as it stands.
  const std::string& selfHandledcontent() const { return selfHandledcontent_; }
  void setSelfHandledcontent(std::string value) { selfHandledcontent_ = std::move(value); }
  /// Seconds after which the in-app removes itself; 0 means never.
  std::int64_t autoDismissInterval() const { return autoDismissInterval_; }
  void setAutoDismissInterval(std::int64_t value) { autoDismissInterval_ = value; }

 private:
  KOInAppV2CampaignPropertiesObject campaignPropertiesObject_;
  std::optional<WidgetArray> widgetsArray_;
  bool cancellable_ = false;
  int alignmentType_ = KOInAppV2AlignmentCenter;
  KODictionary tintPropertiesDict_;
  int entryAnimation_ = KOInAppV2AnimationNone;
  int exitAnimation_ = KOInAppV2AnimationNone;
  std::string selfHandledcontent_;
  std::int64_t autoDismissInterval_ = 0;
};
