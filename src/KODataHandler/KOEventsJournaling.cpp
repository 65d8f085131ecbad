// The events handler's storage below the records: loading what the batch file and the journal
// hold at the first use, the journal's generations (every record not yet accepted lives in the
// current one), appending to it as it fills, and what happens when the disk refuses it.
#include "KOEventsHandler.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOStringFormat.h"

namespace {

const KOPlatform& platform() { return KOPlatform::current(); }

void logInfo(const std::string& line) { KOLogger::logPlain(line); }

}  // namespace

void KOEventsHandler::ensureLoadedLocked() {
  if (store_.loaded()) return;
  KOFileSystem& fs = *platform().fileSystem;
  store_.load(fs, &fileIds_);
  bool fileBehind = store_.mergedAside();
  const KOEventJournal::Replay replay = journal_.recover(fs);
  std::int64_t restoredBatches = 0;
  for (const auto& [id, batch] : replay.batches) {
    store_.reserveId(id);
    if (replay.done.count(id) || !KOBatchStore::usableId(id)) continue;
    // The journal's copy is the one held from now on, whether the file has the batch or not. One
    // cut before the process died but never written to the file comes back under its own id, so
    // that the service recognises it should it have been sent already.
    if (!fileIds_.count(id)) ++restoredBatches;
    store_.putInJournal(id, batch.count, batch.records, batch.array);
  }
  for (const std::string& id : replay.done) {
    store_.reserveId(id);
    fileBehind |= store_.remove(id);
  }
  for (const std::string& id : replay.issued) store_.reserveId(id);
  const auto restoredRecords = static_cast<std::int64_t>(replay.pending.size());
  // Tracked but never cut: back into the current batch (nothing was tracked before this).
  views_ = replay.pending;
  if (restoredBatches || restoredRecords) {
    logInfo(KOStringFormat::format("Kovantis - Restored %d tracked events and %d batches from the event journal",
                                   {KOValue(restoredRecords), KOValue(restoredBatches)}));
  }
  // The journal read says all this already: appends go on after its last entry, and only batches
  // the file alone holds are added to it. A new generation when there is none (or it cannot be
  // mapped again) holds them all.
  if (journal_.reopen(fs)) {
    for (const std::string& id : store_.ids()) {
      if (!store_.find(id)->inJournal) journalBatchLocked(id);
    }
  } else {
    startJournalLocked();  // on success it lets go of the bytes read
  }
  // Without a generation (a full disk at start) the refs still name the bytes read: kept until one
  // starts.
  if (journal_.isOpen()) journal_.releaseRecovered();
  if (fileBehind || restoredBatches) persistLocked();
}

bool KOEventsHandler::startJournalLocked() {
  // Batches gone since the file's last write, so that a restart does not bring them back from it.
  std::vector<const std::string*> gone;
  for (const std::string& id : fileIds_) {
    if (!store_.find(id)) gone.push_back(&id);
  }
  const std::vector<std::string> ids = store_.ids();
  std::size_t bytes = journalLiveBytesLocked() + ids.size() * KOEventJournal::entrySize(40);
  for (const std::string* id : gone) bytes += KOEventJournal::entrySize(id->size());
  const std::string lastIssued = store_.lastIssuedId();
  bytes += KOEventJournal::entrySize(lastIssued.size());
  // Where each text lands; applied once the generation is complete. Until then refs name the
  // previous generation's bytes, which the fill reads.
  std::vector<KOEventJournal::Ref> batchArrays(ids.size());
  std::vector<KOEventJournal::Ref> records;
  records.reserve(views_.size() + heapViews_.size());
  const bool started = journal_.startGeneration(*platform().fileSystem, bytes, [&](KOEventJournal& journal) {
    // The ids of batches already accepted and forgotten must not come again.
    if (!journal.append(KOEventJournal::Kind::Issued, lastIssued)) return false;
    for (const std::string* id : gone) {
      if (!journal.append(KOEventJournal::Kind::Done, *id)) return false;
    }
    std::vector<std::string_view> pieces;
    for (std::size_t i = 0; i < ids.size(); ++i) {
      const KOBatchStore::Batch& batch = *store_.find(ids[i]);
      pieces.clear();
      store_.recordsPieces(batch, pieces);
      const std::uint64_t at = journal.appendBatch(ids[i], batch.count, pieces);
      if (!at) return false;
      batchArrays[i] = {at, static_cast<std::uint32_t>(store_.recordsBytes(batch))};
    }
    for (const KOEventJournal::Ref& ref : views_) {
      const std::uint64_t at = journal.append(KOEventJournal::Kind::Record, journal.text(ref));
      if (!at) return false;
      records.push_back({at, ref.length});
    }
    for (const std::string& record : heapViews_) {
      const std::uint64_t at = journal.append(KOEventJournal::Kind::Record, record);
      if (!at) return false;
      records.push_back({at, static_cast<std::uint32_t>(record.size())});
    }
    return true;
  });
  if (started) {
    for (std::size_t i = 0; i < ids.size(); ++i) store_.moveToJournal(ids[i], batchArrays[i]);
    views_ = std::move(records);
    heapViews_.clear();
    journal_.releaseRecovered();
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
    // With nothing at risk (every batch in the file, no record in memory only) it waits for the
    // next entry rather than polling a full disk for good.
    if (journalFailed_ && heapAtRiskLocked()) startJournalLocked();
  });
}

std::size_t KOEventsHandler::journalLiveBytesLocked() const {
  std::size_t bytes = 0;
  for (const KOEventJournal::Ref& ref : views_) bytes += KOEventJournal::entrySize(ref.length);
  for (const std::string& record : heapViews_) bytes += KOEventJournal::entrySize(record.size());
  store_.forEachBatch([&](const std::string&, const KOBatchStore::Batch& batch) {
    bytes += KOEventJournal::entrySize(store_.recordsBytes(batch));
  });
  return bytes;
}

bool KOEventsHandler::heapAtRiskLocked() const {
  bool atRisk = !heapViews_.empty();
  store_.forEachBatch([&](const std::string& id, const KOBatchStore::Batch& batch) {
    atRisk |= !batch.inJournal && !fileIds_.count(id);
  });
  return atRisk;
}

std::uint64_t KOEventsHandler::journalLocked(KOEventJournal::Kind kind, std::string_view payload) {
  // Once an entry could not be written, none after it is either (a cut would then stand for records
  // the journal lacks): until the retry starts a new generation holding all of it, it is in memory.
  if (journalFailed_) {
    if (!journalRetryPending_) retryJournalLocked();
    return 0;
  }
  if (const std::uint64_t at = journal_.append(kind, payload)) return at;
  // Full: while it holds mostly records not yet accepted, it grows in place (nothing copied);
  // otherwise, or when it cannot grow, a new generation holds what this entry would have said (a
  // record, once the caller kept it; anything else is in the store already).
  if (journal_.isOpen() && 2 * journalLiveBytesLocked() > journal_.used()) {
    while (journal_.grow()) {
      if (const std::uint64_t at = journal_.append(kind, payload)) return at;
    }
  }
  if (kind != KOEventJournal::Kind::Record) startJournalLocked();
  return 0;
}

void KOEventsHandler::journalBatchLocked(const std::string& id) {
  const KOBatchStore::Batch* batch = store_.find(id);
  if (!batch || batch->inJournal) return;
  if (journalFailed_) {
    if (!journalRetryPending_) retryJournalLocked();
    return;
  }
  const std::size_t count = batch->count;
  const std::string& json = batch->heapJSON;
  std::uint64_t at = journal_.appendBatch(id, count, json);
  if (!at && journal_.isOpen() && 2 * journalLiveBytesLocked() > journal_.used()) {
    while (!at && journal_.grow()) at = journal_.appendBatch(id, count, json);
  }
  if (!at) {
    startJournalLocked();  // a new generation carries it
    return;
  }
  journaledSinceFile_ += json.size();
  store_.moveToJournal(id, {at, static_cast<std::uint32_t>(json.size())});
}

void KOEventsHandler::forgetBatchLocked(const std::string& id) {
  parked_.erase(id);
  if (store_.remove(id)) journalLocked(KOEventJournal::Kind::Done, id);
}
