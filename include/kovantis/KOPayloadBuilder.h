// Typed event attributes: ordinary values, time stamps (sent as milliseconds) and geographic
// points (sent as "latitude,longitude"). Fill one and pass it to Kovantis::trackEvent.
#pragma once

#include <memory>

#include "kovantis/KOValue.h"

// Exported from the shared library (see KOExport.h).
#pragma GCC visibility push(default)

class KOPayloadBuilder {
 public:
  /// An empty attribute dictionary and empty lists.
  KOPayloadBuilder();
  /// Shares the host's dictionary (not a copy): changes made before tracking are seen by the event.
  /// A null pointer gives a new empty dictionary.
  explicit KOPayloadBuilder(std::shared_ptr<KODictionary> dictionary);

  /// Appends {key: seconds since 1970 x 1000} unless the date or the key is missing.
  void setDate(const KOValue& date, const KOValue& forKey);
  /// Appends {key: timeStamp x 1000} unless the time stamp is 0 or the key is missing.
  void setTimeStamp(double timeStamp, const KOValue& forKey);
  /// Appends {key: "%f,%f"} unless a coordinate is exactly 0 or the key is missing.
  void setLocationLat(double lat, double lng, const KOValue& forKey);

  KODictionary& eventDict() { return *eventDict_; }
  const KODictionary& eventDict() const { return *eventDict_; }
  void setEventDict(std::shared_ptr<KODictionary> dictionary);
  KOArray& timeStampArray() { return timeStampArray_; }
  const KOArray& timeStampArray() const { return timeStampArray_; }
  void setTimeStampArray(KOArray list) { timeStampArray_ = std::move(list); }
  KOArray& locationArray() { return locationArray_; }
  const KOArray& locationArray() const { return locationArray_; }
  void setLocationArray(KOArray list) { locationArray_ = std::move(list); }

 private:
  std::shared_ptr<KODictionary> eventDict_;
  KOArray timeStampArray_;
  KOArray locationArray_;
};

#pragma GCC visibility pop
