#include "kovantis/KOPayloadBuilder.h"

#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOStringFormat.h"

namespace {

bool usableKey(const KOValue& key) { return key.isString(); }

KODictionary entry(const KOValue& key, KOValue value) {
  KODictionary d;
  d.set(key.stringValue(), std::move(value));
  return d;
}

}  // namespace

KOPayloadBuilder::KOPayloadBuilder() : eventDict_(std::make_shared<KODictionary>()) {}

KOPayloadBuilder::KOPayloadBuilder(std::shared_ptr<KODictionary> dictionary)
    : eventDict_(dictionary ? std::move(dictionary) : std::make_shared<KODictionary>()) {}

void KOPayloadBuilder::setEventDict(std::shared_ptr<KODictionary> dictionary) {
  eventDict_ = dictionary ? std::move(dictionary) : std::make_shared<KODictionary>();
}

void KOPayloadBuilder::setDate(const KOValue& date, const KOValue& forKey) {
  if (!date.isDate() || !usableKey(forKey)) {
    KOLogger::logPlain("Kovantis - Trying to set date for key while one of them is nil");
    return;
  }
  timeStampArray_.push_back(entry(forKey, KOValue(date.dateValue().secondsSince1970 * 1000.0)));
}

void KOPayloadBuilder::setTimeStamp(double timeStamp, const KOValue& forKey) {
  if (timeStamp == 0.0 || !usableKey(forKey)) {
    KOLogger::logPlain("Kovantis - Trying to set timestamp for key while one of them is nil");
    return;
  }
  timeStampArray_.push_back(entry(forKey, KOValue(timeStamp * 1000.0)));
}

void KOPayloadBuilder::setLocationLat(double lat, double lng, const KOValue& forKey) {
  // A point on the equator or the prime meridian counts as missing, on purpose.
  if (lat == 0.0 || lng == 0.0 || !usableKey(forKey)) {
    KOLogger::logPlain("Kovantis - Trying to set lat long and key while one of them is nil");
    return;
  }
  locationArray_.push_back(entry(forKey, KOValue(KOStringFormat::format("%f,%f", {KOValue(lat), KOValue(lng)}))));
}
