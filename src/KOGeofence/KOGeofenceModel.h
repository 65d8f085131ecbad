// One fence of the service's answer: where it is, how large, and which crossing it reports.
#pragma once

#include <cstdint>

#include "kovantis/KOValue.h"

class KOGeofenceModel {
 public:
  /// Reads "distance", "geoId", "lat", "lng" and "transitionType". A field of the wrong kind is
  /// logged and keeps its default, the others are read; a missing field keeps its default, and an
  /// entry that is no dictionary is logged and reads as all defaults.
  explicit KOGeofenceModel(const KOValue& dictionary);

  /// The radius in metres (the whole-number part of the field).
  std::int64_t distance = 0;
  /// The fence's campaign id; nil when the fence has none.
  KOValue geoCampaignID;
  double latitude = 0;
  double longitude = 0;
  /// 0 reports entries, 1 exits.
  std::int64_t transitionType = 0;
};
