#include "KOGeofenceModel.h"

#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOValueHelpers.h"

KOGeofenceModel::KOGeofenceModel(const KOValue& dictionary) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception while initializing KOGeoFenceModel: %@", [&] {
    const KODictionary& fence = dictionary.dictionaryValue();
    // Each field on its own: one of the wrong kind is logged and keeps its default, the others are
    // still read (a fence without its id would never be reported).
    const auto field = [&](const char* key, const auto& read) {
      KOLogger::guard(KO_HERE, this, "Kovantis - exception while initializing KOGeoFenceModel: %@", [&] {
        if (const KOValue& v = validObjectForKey(fence, key); !v.isAbsent()) read(v);
      });
    };
    field("distance", [&](const KOValue& v) { distance = v.intValue(); });
    field("geoId", [&](const KOValue& v) {
      v.stringValue();  // an id of another kind is refused
      geoCampaignID = v;
    });
    field("lat", [&](const KOValue& v) { latitude = v.doubleValue(); });
    field("lng", [&](const KOValue& v) { longitude = v.doubleValue(); });
    field("transitionType", [&](const KOValue& v) {
      if (v.stringValue() == "exit") transitionType = 1;
    });
  });
}
