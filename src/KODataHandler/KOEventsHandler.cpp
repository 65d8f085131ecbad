#include "KOEventsHandler.h"

#include <atomic>
#include <cmath>

#include "KOUtilities/KOConsentGate.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOJSONWriter.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOSDKNotifications.h"
#include "KOUtilities/KOStringFormat.h"
#include "KOUtilities/KOValueHelpers.h"
#include "KOUtilities/KovantisDateUtils.h"
#include "KOUtilities/KovantisUtils.h"
#include "Network/KOServerInterface.h"
#include "kovantis/KOConstants.h"
#include "kovantis/KONotificationCenter.h"

namespace {

constexpr const char* kBatchFileName = "KovantisBatchEvents.plist";
constexpr const char* kLegacyFileName = "kovantisEvents.dat";
constexpr const char* kJournalName = "KovantisEvents.journal";
// Records wait in a batch (a dictionary in a list in a dictionary) inside the report body and the
// batch file, whose readers stop at the JSON nesting limit: attributes keep clear of it.
constexpr int kMaxAttributeNesting = KOValue::kMaxNestingDepth - 16;

const KOPlatform& platform() { return KOPlatform::current(); }

void logInfo(const std::string& line) { KOLogger::logPlain(line); }

}  // namespace

KOEventsHandler& KOEventsHandler::sharedInstance() {
  // Never destroyed: network completions may still arrive while the process exits.
  static auto* instance = new KOEventsHandler();
  return *instance;
}

KOEventsHandler::KOEventsHandler()
    : journal_(platform().fileSystem->documentsDirectory() + "/" + kJournalName),
      store_(platform().fileSystem->documentsDirectory() + "/" + kBatchFileName, &journal_) {
  const KOValue configured = platform().preferences->standard().objectForKey(kEventsBatchCount);
  if (configured.isNumber() && configured.intValue() > 0)
    threshold_ = static_cast<std::uint64_t>(configured.intValue());
}

std::string KOEventsHandler::eventsPlistFilePath() const { return store_.path(); }

std::string KOEventsHandler::oldDatFilePath() const {
  return platform().fileSystem->documentsDirectory() + "/" + kLegacyFileName;
}

bool KOEventsHandler::checkIfFileExists() const { return platform().fileSystem->fileExists(oldDatFilePath()); }

std::int64_t KOEventsHandler::nowMilliseconds() const {
  return static_cast<std::int64_t>(KovantisDateUtils::now() * 1000.0);
}

std::uint64_t KOEventsHandler::eventsBatchCountTreshold() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return threshold_;
}

void KOEventsHandler::setEventsBatchCountTreshold(std::uint64_t threshold) {
  std::lock_guard<std::mutex> lock(mutex_);
  threshold_ = threshold > 0 ? threshold : 1;
}

bool KOEventsHandler::syncInProgress() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return syncInProgress_;
}

std::size_t KOEventsHandler::eventsInMemory() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return views_.size() + heapViews_.size();
}

std::size_t KOEventsHandler::storedBatchCount() {
  std::lock_guard<std::mutex> lock(mutex_);
  ensureLoadedLocked();
  return store_.size();
}

std::size_t KOEventsHandler::journalBytes() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return journal_.used();
}

void KOEventsHandler::discardEverythingStored() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ensureLoadedLocked();
    views_.clear();
    heapViews_.clear();
    store_.clear();
    parked_.clear();
    backoffSeconds_ = 0;
    backoffUntil_ = 0;
    if (backoffRetryQueued_) platform().dispatch->cancel(backoffRetry_);
    backoffRetryQueued_ = false;
  }
  writeSnapshotNow();  // removes the file
  std::lock_guard<std::mutex> lock(mutex_);
  startJournalLocked();  // and nothing comes back from the journal
}

void KOEventsHandler::discardAllPending() {
  discardEverythingStored();
  if (checkIfFileExists()) removeDatFile();
  logInfo("Kovantis - The events held on the device were discarded");
}

KOBackgroundTaskIdentifier KOEventsHandler::syncInBackgroundTask(KOApplication* application) {
  auto task = std::make_shared<std::atomic<KOBackgroundTaskIdentifier>>(KOBackgroundTaskInvalid);
  *task = application->beginBackgroundTask(KOV_BACKGROUND_TASK_NAME,
                                           [application, task] { application->endBackgroundTask(*task); });
  setBgTask(task->load());
  syncTrackedEventsInBackground(true, false, false);  // queues the sync itself
  return task->load();
}

void KOEventsHandler::setBgTask(KOBackgroundTaskIdentifier task) {
  std::lock_guard<std::mutex> lock(mutex_);
  bgTask_ = task;
}

// ------------------------------------------------------------------------------------- tracking

std::string KOEventsHandler::recordJSON(const std::string& name, const KOValue* attributes,
                                        const KODictionary* custom) {
  return std::string(writeRecord(name, attributes, custom));
}

std::string_view KOEventsHandler::writeRecord(const std::string& name, const KOValue* attributes,
                                              const KODictionary* custom) {
  // Written in one pass, in the record's key order, into a buffer the thread keeps; from there it
  // is copied once, into the journal.
  thread_local std::string scratch;
  if (scratch.size() > 64 * 1024) std::string().swap(scratch);  // one huge event is not kept for good
  if (scratch.size() < 1024) scratch.resize(1024);
  bool nul = false;
  std::size_t length = 0;
  {
    KOJSONWriter json(scratch, KOJSONOutput::Reuse{});
    json.raw("{\"EVENT_ACTION\":");
    if (!json.string(name)) throw KOTypeError("string is not valid UTF-8");
    if (attributes) {
      json.raw(",\"EVENT_ATTRS\":");
      json.value(*attributes, 0);
    }
    if (custom) {
      json.raw(",\"EVENT_ATTRS_CUST\":");
      json.dictionary(*custom, 0);
    }
    nul = json.wroteNul();
    // Both times from one clock read; digits and colons, nothing to escape.
    const double now = KovantisDateUtils::now();
    json.raw(",\"EVENT_G_TIME\":\"");
    json.raw(KovantisUtils::gmtTimeText(now));
    json.raw("\",\"EVENT_L_TIME\":\"");
    json.raw(KovantisUtils::localTimeText(now));
    json.raw("\"}");
    length = json.length();
  }
  // A NUL character is the one the batch file cannot hold: stored, the record would keep its whole
  // batch out of the file. Refused here, alone.
  if (nul) throw KOTypeError("a key or value holds a NUL character, which cannot be stored");
  return std::string_view(scratch.data(), length);
}

bool KOEventsHandler::acceptsName(const KOSourceLocation& where, const KOValue& name) const {
  if (name.isString()) return true;
  KOLogger::logLocated(where, this, KOLogSeverityException,
                       "Kovantis - While tracking events, the name of the event has to be a NSString type");
  return false;
}

bool KOEventsHandler::trackEvent(const KOValue& name, const KOValue& andPayload) {
  try {
    if (!KOConsentGate::shared().mayRecord()) return false;
    if (!acceptsName(KO_HERE, name)) return false;
    if (!andPayload.isNil() && !andPayload.isDictionary()) {
      KOLogger::logLocated(KO_HERE, this, KOLogSeverityException,
                           "Kovantis - While tracking events, the payload with the event has to be a NSDictionary of "
                           "NSMutable Dictionary type");
      return false;
    }
    // One look at the top level: what needs the transform, and whether anything nests at all (only
    // then is the nesting walked).
    bool transform = false;
    bool nested = false;
    if (!andPayload.isNil()) {
      for (const auto& entry : andPayload.dictionaryValue()) {
        const KOValue::Kind kind = entry.second.kind();
        transform |= KovantisUtils::kindNeedsTransform(kind);
        nested |= kind == KOValue::Kind::Dictionary || kind == KOValue::Kind::Array;
      }
    }
    if (nested && nestingDeeperThan(andPayload.dictionaryValue(), kMaxAttributeNesting)) {
      throw KOTypeError("the attributes nest deeper than " + std::to_string(kMaxAttributeNesting) + " levels");
    }
    const std::string& eventName = name.stringValue();
    if (afterPush()) {
      KODictionary marked = andPayload.isNil()
                                ? KODictionary()
                                : KovantisUtils::transformPayloadForIncompatibleTypes(andPayload.dictionaryValue());
      marked.set(KO_EVENT_AFTER_PUSH, KOValue(true));
      const KOValue attributes(std::move(marked));
      append(writeRecord(eventName, &attributes, nullptr));
    } else if (andPayload.isNil()) {
      append(writeRecord(eventName, nullptr, nullptr));
    } else if (!transform) {
      append(writeRecord(eventName, &andPayload, nullptr));
    } else {
      const KOValue attributes(KovantisUtils::transformPayloadForIncompatibleTypes(andPayload.dictionaryValue()));
      append(writeRecord(eventName, &attributes, nullptr));
    }
    offerToObserver(eventName, andPayload);
    return true;
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, "Kovantis - exception is %@", e);
    return false;
  }
}

bool KOEventsHandler::trackEvent(const KOValue& name, KOPayloadBuilder& builderPayload) {
  try {
    if (!KOConsentGate::shared().mayRecord()) return false;
    if (!acceptsName(KO_HERE, name)) return false;
    // Checked before anything copies or normalises them.
    const KOPayloadBuilder& parts = builderPayload;
    if (nestingDeeperThan(parts.eventDict(), kMaxAttributeNesting) ||
        nestingDeeperThan(parts.timeStampArray(), kMaxAttributeNesting - 2) ||
        nestingDeeperThan(parts.locationArray(), kMaxAttributeNesting - 2)) {
      throw KOTypeError("the attributes nest deeper than " + std::to_string(kMaxAttributeNesting) + " levels");
    }
    std::optional<KOValue> attributes;
    if (!builderPayload.eventDict().empty()) {
      KODictionary normalised = KovantisUtils::transformPayloadForIncompatibleTypes(builderPayload.eventDict());
      builderPayload.eventDict() = normalised;
      attributes = KOValue(std::move(normalised));
    }
    KODictionary custom;
    if (!builderPayload.timeStampArray().empty()) custom.set("timestamp", KOValue(builderPayload.timeStampArray()));
    if (!builderPayload.locationArray().empty()) custom.set("location", KOValue(builderPayload.locationArray()));
    append(writeRecord(name.stringValue(), attributes ? &*attributes : nullptr, custom.empty() ? nullptr : &custom));
    offerToObserver(name.stringValue(), KOValue());
    return true;
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, "Kovantis - exception is %@", e);
    return false;
  }
}

void KOEventsHandler::setEventObserver(EventObserver observer) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!observer) {
    observer_.store(nullptr, std::memory_order_release);
    return;
  }
  installedObservers_.push_back(std::make_unique<EventObserver>(std::move(observer)));
  observer_.store(installedObservers_.back().get(), std::memory_order_release);
}

void KOEventsHandler::offerToObserver(const std::string& name, const KOValue& attributes) const {
  const EventObserver* observer = observer_.load(std::memory_order_acquire);
  if (!observer) return;
  try {
    (*observer)(name, attributes);
  } catch (const std::exception& e) {
    // The event is recorded whatever the observer makes of it.
    KOLogger::logException(KO_HERE, this, "Kovantis - exception is %@", e);
  }
}

void KOEventsHandler::append(std::string_view record) {
  bool cut = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ensureLoadedLocked();
    const std::uint64_t at = heapViews_.empty() ? journalLocked(KOEventJournal::Kind::Record, record) : 0;
    journaledSinceFile_ += record.size();  // in the journal now, or with the next generation
    if (at) {
      views_.push_back({at, static_cast<std::uint32_t>(record.size())});
    } else {
      // Kept on the heap; a new generation, when one can be started, takes it with the rest.
      heapViews_.emplace_back(record);
      if (!journalFailed_) startJournalLocked();
    }
    if (views_.size() + heapViews_.size() >= threshold_) cut = cutLocked();
  }
  if (cut) syncAfterCut();
}

void KOEventsHandler::checkEventCountForCurrentBatchGreaterThanThreshhold() {
  bool cut = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (views_.size() + heapViews_.size() >= threshold_) cut = cutLocked();
  }
  if (cut) syncAfterCut();
}

bool KOEventsHandler::cutLocked() {
  ensureLoadedLocked();
  if (views_.empty() && heapViews_.empty()) return false;
  std::string id;
  if (heapViews_.empty()) {
    // The batch is an index of records the journal holds: nothing is copied. The list keeps its
    // room for the next batch.
    id = store_.addJournaled(std::vector<KOEventJournal::Ref>(views_.begin(), views_.end()), nowMilliseconds());
  } else {
    std::vector<std::string> texts;
    texts.reserve(views_.size() + heapViews_.size());
    for (const KOEventJournal::Ref& ref : views_) texts.emplace_back(journal_.text(ref));
    for (std::string& record : heapViews_) texts.push_back(std::move(record));
    id = store_.add(texts, nowMilliseconds());
    heapViews_.clear();
  }
  views_.clear();
  journalLocked(KOEventJournal::Kind::Cut, id);
  persistLocked();
  return true;
}

bool KOEventsHandler::journalCarriesFileLocked() const {
  // Every change since the file's last write is in the journal too, so the file needs rewriting
  // only once as much was journaled as the file holds: each rewrite (which copies what the file
  // has and makes XML only for new batches) is then paid for by as many bytes tracked since, and a
  // cut costs the same however much is stored. A file that would go (nothing stored) costs nothing
  // to bring up to date; without a journal the file is all.
  if (!journal_.isOpen() || journalFailed_ || store_.empty() || store_.mergedAside()) return false;
  return journaledSinceFile_ < std::max<std::uint64_t>(kJournalCompactBytes, fileBytes_);
}

void KOEventsHandler::persistLocked() {
  fileDirty_ = true;
  // After a failed write the retry comes at its pace, however many cuts happen meanwhile.
  if (writerQueued_ || retryPending_) return;
  if (journalCarriesFileLocked()) return;
  writerQueued_ = true;
  platform().dispatch->asyncBackground([this] { writeBatchFile(); });
}

void KOEventsHandler::writeBatchFile() {
  // The file is what survives the process: a batch is in it from (just after) its cut until the
  // service accepted it. Each pass writes the store as it is at that moment; cuts made during a
  // pass wait in the journal like any other until it grew as large as the file again (writing
  // again at once would rewrite everything stored once per pass while tracking outpaces the disk).
  for (;;) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!fileDirty_ || journalCarriesFileLocked()) {
        writerQueued_ = false;
        return;
      }
    }
    if (!writeSnapshotNow()) {
      std::lock_guard<std::mutex> lock(mutex_);
      writerQueued_ = false;  // the retry queues the writer again
      return;
    }
  }
}

void KOEventsHandler::retryWriteLocked() {
  fileDirty_ = true;
  retryDelay_ = retryDelay_ == 0 ? 0.05 : std::min(retryDelay_ * 2, 2.0);
  if (retryPending_) return;
  retryPending_ = true;
  platform().dispatch->afterBackground(retryDelay_, [this] {
    std::lock_guard<std::mutex> lock(mutex_);
    retryPending_ = false;
    if (fileDirty_) persistLocked();
  });
}

bool KOEventsHandler::writeSnapshotNow() {
  // One write at a time, each of the store as it is after the previous write: the file never goes
  // back to an older state.
  std::lock_guard<std::mutex> writing(fileMutex_);
  std::vector<std::string> ids;
  KOBatchStore::FileIndex previous;
  std::uint64_t journaled = 0;  // what this write brings into the file
  {
    std::lock_guard<std::mutex> lock(mutex_);
    fileDirty_ = false;
    journaled = journaledSinceFile_;
    ids = store_.ids();
    // Taken, not copied: a write that fails leaves no index anyway (see below).
    previous = std::move(fileIndex_);
    fileIndex_.clear();
  }
  // A batch new to the file: its records' text, copied out under the lock (the journal's mapping
  // may move as it grows) one batch at a time.
  const auto source = [this](const std::string& id) -> std::optional<std::string> {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!store_.find(id)) return std::nullopt;
    return store_.recordsJSON(id);
  };
  bool written = false;
  KOBatchStore::FileIndex index;
  try {
    if (ids.empty()) {
      removeEventsPlistFile();
      written = !platform().fileSystem->fileExists(store_.path());
    } else {
      written = KOBatchStore::write(*platform().fileSystem, store_.path(), ids, previous, source, &index);
    }
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, "Kovantis - Exception : %@", e);
  }
  std::lock_guard<std::mutex> lock(mutex_);
  if (!written) {
    // No index now: the file may not be what the old one said (a write that stopped part-way
    // leaves it, but one that found it changed does not), so the next write makes every batch.
    // Still due: written again until it succeeds, so a later kill finds these batches on disk.
    retryWriteLocked();
    return false;
  }
  retryDelay_ = 0;
  journaledSinceFile_ -= std::min(journaledSinceFile_, journaled);
  fileIds_.clear();
  fileBytes_ = 0;
  for (const auto& [id, place] : index) {
    fileIds_.insert(id);
    fileBytes_ += place.second - place.first;
  }
  fileIndex_ = std::move(index);
  store_.removeMergedAside(*platform().fileSystem);
  // The journal starts over with what is still held once that is much less than what it holds, or
  // than the room it took (a generation grown for a burst shrinks back to its starting size once
  // the burst is delivered).
  const std::size_t live = journalLiveBytesLocked();
  if (!journal_.isOpen() || journalFailed_ || journal_.used() > std::max(kJournalCompactBytes, 2 * live) ||
      (journal_.capacity() > KOEventJournal::kMinimumCapacity &&
       journal_.capacity() > 4 * (live + KOEventJournal::kFileHeader))) {
    startJournalLocked();
  }
  return true;
}

KODictionary KOEventsHandler::getBatchesWithViewsArray(bool cut) {
  std::lock_guard<std::mutex> lock(mutex_);
  ensureLoadedLocked();
  if (cut) cutLocked();
  return store_.dictionary();
}

void KOEventsHandler::writeEvents(const KOArray& events, std::int64_t toFileWithBatchID) {
  try {
    std::lock_guard<std::mutex> lock(mutex_);
    ensureLoadedLocked();
    const std::string id = std::to_string(toFileWithBatchID);
    store_.put(id, events);
    journalBatchLocked(id);
    persistLocked();
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, "Kovantis - Exception : %@", e);
  }
}

void KOEventsHandler::removeEventsPlistFile() {
  KOFileSystem& fs = *platform().fileSystem;
  if (!fs.fileExists(store_.path())) return;
  KOFileError error;
  if (fs.removeItem(store_.path(), &error)) {
    logInfo("Kovantis - Batch Events plist deleted");
  } else {
    logInfo(KOStringFormat::format("Kovantis - Error while deleting KovantisBatchEvents.plist : %@",
                                   {KOValue(error.message)}));
  }
}

// ------------------------------------------------------------------------------- legacy events

namespace {

// One JSON object per line; a damaged line loses that one event only.
KOArray eventsFromDumpText(std::string_view text) {
  KOArray events;
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    const std::string_view line = text.substr(start, end - start);
    if (!line.empty()) {
      try {
        KOValue object = KOJSONSerialization::parse(line);
        if (object.isDictionary()) events.push_back(std::move(object));
      } catch (const KOParseError&) {
      }
    }
    start = end + 1;
  }
  return events;
}

}  // namespace

KOArray KOEventsHandler::getEventsFromDumpFile() const {
  const std::optional<std::string> text = platform().fileSystem->readFile(oldDatFilePath());
  return text ? eventsFromDumpText(*text) : KOArray{};
}

void KOEventsHandler::removeDatFile() {
  KOFileSystem& fs = *platform().fileSystem;
  if (fs.removeItem(oldDatFilePath())) return;
  logInfo("Kovantis - error while removing dat file");
  // Emptied at least, so that the next start does not migrate the same events again.
  fs.writeFile(oldDatFilePath(), "");
}

void KOEventsHandler::syncToServerFromDumpFile() {
  try {
    if (!checkIfFileExists()) return;
    KOFileError error;
    const std::optional<std::string> text = platform().fileSystem->readFile(oldDatFilePath(), &error);
    if (!text) {
      // Unreadable now is not empty: keep the file for a later start.
      KOLogger::logException(KO_HERE, this, "Kovantis - Exception : %@", std::runtime_error(error.message));
      return;
    }
    KOArray events = eventsFromDumpText(*text);
    if (!events.empty()) {
      logInfo(KOStringFormat::format("Kovantis - syncing events from storage %@", {KOValue(events)}));
      // The old events become an ordinary batch, written to the batch file before the old file
      // goes: a crash in between loses nothing, and the batch sync that follows sends them
      // exactly like any other batch (one send, kept until accepted).
      {
        std::lock_guard<std::mutex> lock(mutex_);
        ensureLoadedLocked();
        const std::string id = store_.issueId(nowMilliseconds());
        store_.put(id, events);
        journalBatchLocked(id);
      }
      if (!writeSnapshotNow()) return;  // the old file stays until its events are safely stored
    }
    removeDatFile();
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, "Kovantis - Exception : %@", e);
  }
}
