#include "KOGeofenceModel.h"

#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOValueHelpers.h"

KOGeofenceModel::KOGeofenceModel(const KOValue& dictionary) {
  KOLogger::guard(KO_HERE, this, "Kovantis - exception while initializing KOGeoFenceModel: %@", [&] {
    const KODictionary& fence = dictionary.dictionaryValue();
    if (const KOValue& v = validObjectForKey(fence, "distance"); !v.isAbsent()) distance = v.intValue();
    if (const KOValue& v = validObjectForKey(fence, "geoId"); !v.isAbsent()) {
      v.stringValue();  // an id of another kind stops here
      geoCampaignID = v;
    }
    if (const KOValue& v = validObjectForKey(fence, "lat"); !v.isAbsent()) latitude = v.doubleValue();
    if (const KOValue& v = validObjectForKey(fence, "lng"); !v.isAbsent()) longitude = v.doubleValue();
    if (const KOValue& v = validObjectForKey(fence, "transitionType"); !v.isAbsent()) {
      if (v.stringValue() == "exit") transitionType = 1;
    }
  });
}
