#include "KOSimScreen.h"

std::int64_t KOSimScreen::record(std::string_view kind, KODictionary fields) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto seq = static_cast<std::int64_t>(entries_.size()) + 1;
  // "seq" and "kind" lead, so a printed record reads in order.
  KODictionary entry{{"seq", seq}, {"kind", kind}};
  entry.reserve(fields.size() + 2);
  for (auto& [key, value] : fields) {
    if (key != "seq" && key != "kind") entry.set(key, std::move(value));
  }
  entries_.push_back(std::move(entry));
  return seq;
}

std::int64_t KOSimScreen::recordDismissal(std::int64_t of, KODictionary fields) {
  const KODictionary dismissed = entry(of);
  if (dismissed.empty()) return 0;
  fields.set("of", of);
  fields.set("dismissed", dismissed["kind"]);
  return record(Dismiss, std::move(fields));
}

std::vector<KODictionary> KOSimScreen::entries() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return entries_;
}

std::vector<KODictionary> KOSimScreen::entries(std::string_view kind) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<KODictionary> matching;
  for (const auto& e : entries_) {
    if (e["kind"].stringValue() == kind) matching.push_back(e);
  }
  return matching;
}

KODictionary KOSimScreen::last(std::string_view kind) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = entries_.rbegin(); it != entries_.rend(); ++it) {
    if ((*it)["kind"].stringValue() == kind) return *it;
  }
  return {};
}

KODictionary KOSimScreen::entry(std::int64_t seq) const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (seq < 1 || seq > static_cast<std::int64_t>(entries_.size())) return {};
  return entries_[static_cast<std::size_t>(seq - 1)];
}
