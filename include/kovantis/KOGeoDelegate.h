// What a host application hears of geofence crossings: the SDK becomes the delegate of the
// location manager it is given, so a host that watches regions itself learns of every entry and
// exit here, before the SDK reports its own fences to the service.
#pragma once

#include "kovantis/KOPlatform.h"

// Exported from the shared library (see KOExport.h).
#pragma GCC visibility push(default)

/// Both calls are optional and arrive on the main thread (or where the platform delivers region
/// events), for every region of the app, the SDK's own ("<id>-KO") included.
class KOGeoDelegate {
 public:
  virtual ~KOGeoDelegate() = default;
  virtual void locManagerDidEnterRegion(KOLocationManager& /*locManager*/, const KOCircularRegion& /*region*/) {}
  virtual void locManagerDidExitRegion(KOLocationManager& /*locManager*/, const KOCircularRegion& /*region*/) {}
};

#pragma GCC visibility pop
