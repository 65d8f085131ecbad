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
// A journal generation that grew past this, and past twice what the batch file still lacks, starts
// over once the file caught up.
constexpr std::size_t kJournalCompactBytes = 64 * 1024;

const KOPlatform& platform() { return KOPlatform::current(); }

void logInfo(const std::string& line) { KOLogger::logPlain(line); }

}  // namespace

KOEventsHandler& KOEventsHandler::sharedInstance() {
  // Never destroyed: network completions may still arrive while the process exits.
  static auto* instance = new KOEventsHandler();
  return *instance;
}

KOEventsHandler::KOEventsHandler()
    : store_(platform().fileSystem->documentsDirectory() + "/" + kBatchFileName),
      journal_(platform().fileSystem->documentsDirectory() + "/" + kJournalName) {
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
  return views_.size();
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

void KOEventsHandler::ensureLoadedLocked() {
  if (store_.loaded()) return;
  KOFileSystem& fs = *platform().fileSystem;
  store_.load(fs, &fileIds_);
  bool fileBehind = store_.mergedAside();
  KOEventJournal::Replay replay = journal_.recover(fs);
  std::int64_t restoredBatches = 0;
  for (auto& [id, batch] : replay.batches) {
    store_.reserveId(id);
    if (replay.done.count(id) || store_.find(id) || !KOBatchStore::usableId(id)) continue;
    // Cut before the process died but never written to the file: back under its own id, so that
    // the service recognises it should it have been sent already.
    store_.putRecordsJSON(id, batch.recordsJSON, batch.count);
    ++restoredBatches;
  }
  for (const std::string& id : replay.done) {
    store_.reserveId(id);
    fileBehind |= store_.remove(id);
  }
  for (const std::string& id : replay.issued) store_.reserveId(id);
  const auto restoredRecords = static_cast<std::int64_t>(replay.pending.size());
  // Tracked but never cut: back into the current batch, ahead of anything tracked since.
  views_.insert(views_.begin(), std::make_move_iterator(replay.pending.begin()),
                std::make_move_iterator(replay.pending.end()));
  if (restoredBatches || restoredRecords) {
    logInfo(KOStringFormat::format("Kovantis - Restored %d tracked events and %d batches from the event journal",
                                   {KOValue(restoredRecords), KOValue(restoredBatches)}));
  }
  // The journal read says all this already: appends go on after its last entry. A new generation
  // only when there is none (or it cannot be mapped again).
  if (!journal_.reopen(fs)) startJournalLocked();
  if (fileBehind || restoredBatches) persistLocked();
}

bool KOEventsHandler::startJournalLocked() {
  // What the batch file does not hold: batches gone since its last write, batches missing from it,
  // and the records in memory.
  std::vector<const std::string*> gone;
  for (const std::string& id : fileIds_) {
    if (!store_.find(id)) gone.push_back(&id);
  }
  KOBatchStore::Snapshot missing;
  std::size_t bytes = 0;
  for (auto& entry : store_.snapshot()) {
    if (fileIds_.count(entry.first)) continue;
    bytes += KOEventJournal::entrySize(entry.second->reportBody().size() + entry.first.size() + 24);
    missing.push_back(std::move(entry));
  }
  for (const std::string* id : gone) bytes += KOEventJournal::entrySize(id->size());
  for (const std::string& record : views_) bytes += KOEventJournal::entrySize(record.size());
  const std::string lastIssued = store_.lastIssuedId();
  bytes += KOEventJournal::entrySize(lastIssued.size());
  const bool started = journal_.startGeneration(*platform().fileSystem, bytes, [&](KOEventJournal& journal) {
    // The ids of batches already accepted and forgotten must not come again.
    if (!journal.append(KOEventJournal::Kind::Issued, lastIssued)) return false;
    for (const std::string* id : gone) {
      if (!journal.append(KOEventJournal::Kind::Done, *id)) return false;
    }
    for (const auto& [id, batch] : missing) {
      if (!journal.appendBatch(id, batch->count(), KOBatchStore::recordsText(batch->reportBody()))) return false;
    }
    for (const std::string& record : views_) {
      if (!journal.append(KOEventJournal::Kind::Record, record)) return false;
    }
    return true;
  });
  if (started) {
    journalFailed_ = false;
    journalRetryDelay_ = 0;
    return true;
  }
  if (!journalFailed_) {
    journalFailed_ = true;
    KOLogger::logLocated(KO_HERE, this, KOLogSeverityException,
                         "Kovantis - The event journal cannot be written: events not yet in the batch file are kept in "
                         "memory only");
  }
  retryJournalLocked();
  return false;
}

void KOEventsHandler::retryJournalLocked() {
  // Like a failed write of the batch file: tried again, at a bounded pace, until the disk takes it.
  journalRetryDelay_ = journalRetryDelay_ == 0 ? 0.05 : std::min(journalRetryDelay_ * 2, 2.0);
  if (journalRetryPending_) return;
  journalRetryPending_ = true;
  platform().dispatch->afterBackground(journalRetryDelay_, [this] {
    std::lock_guard<std::mutex> lock(mutex_);
    journalRetryPending_ = false;
    // With nothing at risk (every batch in the file, no record in memory) it waits for the next
    // entry rather than polling a full disk for good.
    if (journalFailed_ && journalLiveBytesLocked() > 0) startJournalLocked();
  });
}

std::size_t KOEventsHandler::journalLiveBytesLocked() const {
  std::size_t bytes = 0;
  for (const std::string& record : views_) bytes += KOEventJournal::entrySize(record.size());
  for (const std::string& id : store_.ids()) {
    if (fileIds_.count(id)) continue;
    bytes += KOEventJournal::entrySize(store_.find(id)->reportBody().size());
  }
  return bytes;
}

void KOEventsHandler::journalLocked(KOEventJournal::Kind kind, std::string_view payload) {
  // Once an entry could not be written, none after it is either (a cut would then stand for records
  // the journal lacks): until the retry starts a new generation holding all of it, it is in memory.
  if (journalFailed_) {
    if (!journalRetryPending_) retryJournalLocked();
    return;
  }
  if (journal_.append(kind, payload)) return;
  // Full: while it holds mostly records still in memory, it grows in place (nothing copied);
  // otherwise, or when it cannot grow, a new generation holds what this entry would have said (it
  // is in the store or in memory already).
  if (journal_.isOpen() && 2 * journalLiveBytesLocked() > journal_.used()) {
    while (journal_.grow()) {
      if (journal_.append(kind, payload)) return;
    }
  }
  startJournalLocked();
}

void KOEventsHandler::journalBatchLocked(const std::string& id) {
  if (journalFailed_) {
    if (!journalRetryPending_) retryJournalLocked();
    return;
  }
  const auto batch = store_.find(id);
  if (!batch || journal_.appendBatch(id, batch->count(), KOBatchStore::recordsText(batch->reportBody()))) return;
  startJournalLocked();  // a new generation carries it
}

void KOEventsHandler::forgetBatchLocked(const std::string& id) {
  parked_.erase(id);
  if (store_.remove(id)) journalLocked(KOEventJournal::Kind::Done, id);
}

// ------------------------------------------------------------------------------------- tracking

std::string KOEventsHandler::recordJSON(const std::string& name, const KOValue* attributes,
                                        const KODictionary* custom) {
  // Written in one pass, in the record's key order, into a buffer the thread keeps; the record
  // itself is then one allocation of its exact size (records wait in memory until their cut).
  thread_local std::string scratch;
  if (scratch.capacity() > 64 * 1024) std::string().swap(scratch);  // one huge event is not kept for good
  scratch.clear();
  bool nul = false;
  {
    KOJSONWriter json(scratch);
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
  }
  // A NUL character is the one the batch file cannot hold: stored, the record would keep its whole
  // batch out of the file. Refused here, alone.
  if (nul) throw KOTypeError("a key or value holds a NUL character, which cannot be stored");
  return std::string(scratch);
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
    if (!andPayload.isNil() && nestingDeeperThan(andPayload.dictionaryValue(), kMaxAttributeNesting)) {
      throw KOTypeError("the attributes nest deeper than " + std::to_string(kMaxAttributeNesting) + " levels");
    }
    const std::string& eventName = name.stringValue();
    if (afterPush()) {
      KODictionary marked = andPayload.isNil()
                                ? KODictionary()
                                : KovantisUtils::transformPayloadForIncompatibleTypes(andPayload.dictionaryValue());
      marked.set(KO_EVENT_AFTER_PUSH, KOValue(true));
      const KOValue attributes(std::move(marked));
      append(recordJSON(eventName, &attributes, nullptr));
    } else if (andPayload.isNil()) {
      append(recordJSON(eventName, nullptr, nullptr));
    } else if (!KovantisUtils::payloadNeedsTransform(andPayload.dictionaryValue())) {
      append(recordJSON(eventName, &andPayload, nullptr));
    } else {
      const KOValue attributes(KovantisUtils::transformPayloadForIncompatibleTypes(andPayload.dictionaryValue()));
      append(recordJSON(eventName, &attributes, nullptr));
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
    append(recordJSON(name.stringValue(), attributes ? &*attributes : nullptr, custom.empty() ? nullptr : &custom));
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

void KOEventsHandler::append(std::string record) {
  bool cut = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ensureLoadedLocked();
    views_.push_back(std::move(record));
    journalLocked(KOEventJournal::Kind::Record, views_.back());
    if (views_.size() >= threshold_) cut = cutLocked();
  }
  if (cut) syncAfterCut();
}

void KOEventsHandler::checkEventCountForCurrentBatchGreaterThanThreshhold() {
  bool cut = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (views_.size() >= threshold_) cut = cutLocked();
  }
  if (cut) syncAfterCut();
}

bool KOEventsHandler::cutLocked() {
  ensureLoadedLocked();
  if (views_.empty()) return false;
  const std::string id = store_.add(views_, nowMilliseconds());
  views_.clear();
  journalLocked(KOEventJournal::Kind::Cut, id);
  persistLocked();
  return true;
}

bool KOEventsHandler::journalCarriesFileLocked() const {
  // Every change since the file's last write is in the journal too, so the file needs rewriting
  // only once the journal grew about as large as the file: each rewrite is then paid for by as
  // many bytes tracked since, and a cut costs the same however much is stored. A file that would
  // go (nothing stored) costs nothing to bring up to date; without a journal the file is all.
  if (!journal_.isOpen() || journalFailed_ || store_.empty() || store_.mergedAside()) return false;
  return journal_.used() < std::max(kJournalCompactBytes, fileBodyBytes_);
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
  // One write at a time, each of a snapshot taken after the previous write: the file never goes
  // back to an older state.
  std::lock_guard<std::mutex> writing(fileMutex_);
  KOBatchStore::Snapshot snapshot;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    fileDirty_ = false;
    snapshot = store_.snapshot();
  }
  bool written = false;
  try {
    if (snapshot.empty()) {
      removeEventsPlistFile();
      written = !platform().fileSystem->fileExists(store_.path());
    } else {
      written = KOBatchStore::write(*platform().fileSystem, store_.path(), snapshot);
    }
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, "Kovantis - Exception : %@", e);
  }
  std::lock_guard<std::mutex> lock(mutex_);
  if (!written) {
    // Still due: written again until it succeeds, so a later kill finds these batches on disk.
    retryWriteLocked();
    return false;
  }
  retryDelay_ = 0;
  fileIds_.clear();
  fileBodyBytes_ = 0;
  for (const auto& entry : snapshot) {
    fileIds_.insert(entry.first);
    fileBodyBytes_ += entry.second->reportBody().size();
  }
  store_.removeMergedAside(*platform().fileSystem);
  // The file caught up: the journal starts over with what is still missing from it, once that is
  // much less than what it holds, or than the room it took (a generation grown for a burst shrinks
  // back to its starting size once the burst is in the file or delivered).
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
