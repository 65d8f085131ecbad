// Where every tracked event ends up: one record per call, written once into the event journal's
// mapping (where it is held, not also on the heap), cut into batches of the threshold's size,
// persisted in the batch file and sent batch by batch until the service accepts each. A batch
// leaves the file only once the service accepted it, or a reset dropped it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "KOBatchStore.h"
#include "KOEventJournal.h"
#include "KOUtilities/KOLogger.h"
#include "kovantis/KOPayloadBuilder.h"
#include "kovantis/KOPlatform.h"
#include "kovantis/KOValue.h"

class KOEventsHandler {
 public:
  static KOEventsHandler& sharedInstance();

  /// Records an event. The name must be a string and the attributes, when given, a dictionary.
  /// Returns whether it was recorded: from then on it survives the death of the process.
  bool trackEvent(const KOValue& name, const KOValue& andPayload);
  bool trackEvent(const KOValue& name, KOPayloadBuilder& builderPayload);

  /// Sees every event once it is recorded: its name and attributes as tracked (nil when it has
  /// none, and for a builder's), on the tracking thread. One observer at a time (the in-app
  /// handler's trigger check); nullptr removes it. With none installed, tracking pays one atomic
  /// load.
  using EventObserver = std::function<void(const std::string& name, const KOValue& attributes)>;
  void setEventObserver(EventObserver observer);

  /// While set (a push was opened in this foreground period), every event tracked through the
  /// plain call carries "Event_After_Push" = true. The push handler owns it; it lives here so the
  /// tracking path reads it with one atomic load.
  void setAfterPush(bool afterPush) { afterPush_.store(afterPush, std::memory_order_relaxed); }
  bool afterPush() const { return afterPush_.load(std::memory_order_relaxed); }

  /// Cuts a batch and starts a sync once the records in memory reach the threshold.
  void checkEventCountForCurrentBatchGreaterThanThreshhold();
  /// Starts a sync on the shared queue; returns at once. A sync asked for while one runs is
  /// remembered and runs when the running one completes: a reset first, then one follow-up
  /// standing for every other request made meanwhile.
  void syncTrackedEventsInBackground(bool inBackground, bool andReset, bool andOnlyForEventsPlist);
  /// Syncs now, and calls the completion on the main queue once a sync that started after this
  /// call has ended and the batch file holds its outcome: true when nothing is left waiting for
  /// the service (no batch stored, no record in memory).
  void flush(std::function<void(bool allDelivered)> completion);
  /// The batches to send, cutting the records in memory into a new one first when asked.
  KODictionary getBatchesWithViewsArray(bool cut);
  /// Stores the records under the batch id in the batch file.
  void writeEvents(const KOArray& events, std::int64_t toFileWithBatchID);
  void removeEventsPlistFile();
  /// The end of a reset: user data cleared, then "KOV_INIT_NEW_USER" posted.
  void cleanUp();
  /// Drops every event held on the device, in memory and on file (batch file, journal, the older
  /// generation's file): the user refused consent. Nothing of them is ever sent.
  void discardAllPending();
  /// Sends the events of the older SDK generation's file once, and keeps them as a batch on failure.
  void syncToServerFromDumpFile();

  std::string eventsPlistFilePath() const;
  std::string oldDatFilePath() const;
  bool checkIfFileExists() const;
  KOArray getEventsFromDumpFile() const;
  void removeDatFile();

  std::uint64_t eventsBatchCountTreshold() const;
  /// Records per batch; the configuration's value applies from the next start.
  void setEventsBatchCountTreshold(std::uint64_t threshold);
  bool syncInProgress() const;
  void setBgTask(KOBackgroundTaskIdentifier task);
  /// Syncs everything inside a background task of the application, which the sync's end ends;
  /// returns the task.
  KOBackgroundTaskIdentifier syncInBackgroundTask(KOApplication* application);

  // ---- For tests and benchmarks only: the SDK itself never asks these.
  /// Records tracked and not yet cut into a batch.
  std::size_t eventsInMemory() const;
  /// Batches waiting for the service, in memory and in the batch file.
  std::size_t storedBatchCount();
  /// Bytes the journal's current generation holds.
  std::size_t journalBytes() const;
  /// Forgets every record and batch, on file too, and any back-off: a benchmark leaves the SDK as
  /// it found it. Call it while no sync runs.
  void discardEverythingStored();
  /// Serialises one event record (the benchmarks build batches with it).
  static std::string recordJSON(const std::string& name, const KOValue* attributes, const KODictionary* custom);
  /// The same into a buffer of the calling thread, valid until its next record.
  static std::string_view writeRecord(const std::string& name, const KOValue* attributes, const KODictionary* custom);

 private:
  KOEventsHandler();

  struct SyncRequest {
    bool inBackground;
    bool reset;
    bool onlyForEventsPlist;
    bool byThreshold = false;  // started by a cut: waits out a back-off (below)
  };
  /// Starts the sync a cut asks for.
  void syncAfterCut();

  /// Event names must be strings; anything else is logged at the caller's place.
  bool acceptsName(const KOSourceLocation& where, const KOValue& name) const;
  void append(std::string_view recordJSON);
  void offerToObserver(const std::string& name, const KOValue& attributes) const;
  struct Round;  // one sync round's batches and outcomes
  void runSync(SyncRequest request);
  /// A sync asked for while consent holds everything on the device: nothing is sent, and what the
  /// request owes is still done (a reset clears the user's data, a flush is answered, a background
  /// task ends).
  void holdSync(const SyncRequest& request);
  /// Whether the request waits: for the running sync, or out a back-off. Remembers it if so.
  bool waitingLocked(const SyncRequest& request);
  /// Starts a round: cuts when asked, and takes the batches it sends (none: the round is over).
  std::vector<std::string> beginRoundLocked(const SyncRequest& request, Round& round);
  void sendRound(const SyncRequest& request, const std::shared_ptr<Round>& round,
                 const std::vector<std::string>& batches);
  /// One batch's outcome; the last one ends the round.
  void batchFinished(const SyncRequest& request, Round& round, const std::string& id, long status);
  /// A batch refused for its content: split into two halves under new ids (true), or, a single
  /// record, kept and offered again at a slow pace.
  bool splitRefusedLocked(const std::string& id);
  void roundFinished(const SyncRequest& request, Round& round);
  /// The end of a sync: `failed` are the batches it sent that the service did not accept.
  void syncAttemptCompletedInBackground(bool inBackground, bool andForReset, std::vector<std::string> failed);
  /// Cuts the records in memory into a batch and has the file written; the caller holds the lock.
  bool cutLocked();
  /// Has the batch file brought up to date with the store. Writes run one at a time on the shared
  /// queue and coalesce: many cuts while one write runs cost one more write, not many.
  void persistLocked();
  /// Whether the journal holds what the batch file lacks, cheaply enough that the file may wait.
  bool journalCarriesFileLocked() const;
  void writeBatchFile();
  /// Writes the store as it is now, waiting for a write under way to finish first; returns
  /// whether the file now holds it.
  bool writeSnapshotNow();
  /// Loads the batch file and rebuilds from the journal what the file does not hold: records not
  /// yet cut return to memory, cut batches missing from the file return under their ids.
  void ensureLoadedLocked();
  /// Notes a tracked record, a cut, or a batch that left the store in the journal; returns where
  /// its payload is (0: not in the journal; for a record, the caller keeps it on the heap).
  std::uint64_t journalLocked(KOEventJournal::Kind kind, std::string_view payload);
  /// Moves a batch put into the store on the heap (not cut from tracked records) into the journal.
  void journalBatchLocked(const std::string& id);
  /// Removes a batch from the store for good (accepted, or dropped by a reset).
  void forgetBatchLocked(const std::string& id);
  /// Starts a new journal generation holding every record not yet accepted (the batches, then the
  /// records not yet cut) and the batches gone since the file was written; what was held on the
  /// heap moves into it.
  bool startJournalLocked();
  /// After the journal could not be written: a new generation is tried again, at a bounded pace.
  void retryJournalLocked();
  /// What a new journal generation would hold now, in bytes.
  std::size_t journalLiveBytesLocked() const;
  /// Whether something is held on the heap only (neither in the journal nor in the file).
  bool heapAtRiskLocked() const;
  /// After a failed write of the batch file: it stays due and is written again, at a bounded pace.
  void retryWriteLocked();
  /// Ends the running sync and starts the one waiting, if any (a reset before a follow-up).
  void releaseSyncLocked(bool afterReset);
  std::int64_t nowMilliseconds() const;
  // A journal generation that grew past this, and past twice what it holds live, starts over once
  // the file caught up; the file is rewritten at most once per this much journaled.
  static constexpr std::size_t kJournalCompactBytes = 64 * 1024;

  mutable std::mutex mutex_;
  std::mutex fileMutex_;  // taken before mutex_, never while holding it
  KOEventJournal journal_;
  std::vector<KOEventJournal::Ref> views_;  // records not yet cut, in the journal
  std::vector<std::string> heapViews_;      // and after them those the journal could not take
  KOBatchStore store_;
  bool syncInProgress_ = false;
  std::optional<SyncRequest> resetInvocation_;
  std::optional<SyncRequest> followUp_;
  KOBackgroundTaskIdentifier bgTask_ = KOBackgroundTaskInvalid;
  std::uint64_t threshold_ = 30;
  bool fileDirty_ = false;
  bool writerQueued_ = false;
  bool retryPending_ = false;
  double retryDelay_ = 0;                 // seconds before the next try of a failed write
  std::set<std::string> fileIds_;         // the batches the batch file holds, as of its last write
  KOBatchStore::FileIndex fileIndex_;     // where each is in it (empty: not known, after a start)
  std::uint64_t fileBytes_ = 0;           // the file's size as written
  std::uint64_t journaledSinceFile_ = 0;  // bytes of records and batches journaled since
  bool journalFailed_ = false;            // entries go to memory only until a new generation starts; logged once
  bool journalRetryPending_ = false;
  double journalRetryDelay_ = 0;  // seconds before the next try of a new generation
  struct FlushWaiter {
    std::uint64_t roundsBefore;  // served by the first sync round numbered above this
    std::function<void(bool)> completion;
    int roundsLeft = kFlushRounds;  // rounds it may still wait for records tracked meanwhile
  };
  /// Records the SDK itself tracks while a flush's round runs (the start's attributes, say) are
  /// waited for by this many further rounds, as long as each round delivers what it sent.
  static constexpr int kFlushRounds = 3;
  /// After sync round `round` ended: answers the flushes it served and syncs again for the rest.
  void completeFlushes(std::uint64_t round, bool roundFailed);
  std::uint64_t roundsStarted_ = 0;
  // While the service refuses every report, rounds started by cuts wait, from one second doubling
  // up to five minutes; the first accepted report ends the wait.
  static constexpr double kFirstBackoffSeconds = 1;
  static constexpr double kLongestBackoffSeconds = 300;
  double backoffSeconds_ = 0;  // 0: the last round delivered something, or none failed whole
  double backoffUntil_ = 0;    // seconds since 1970
  bool backoffRetryQueued_ = false;
  KODispatchToken backoffRetry_{};
  /// After a round ended: `sent` reports, `failed` of them refused.
  void noteRoundOutcomeLocked(std::size_t sent, std::size_t failed);
  std::vector<FlushWaiter> flushWaiters_;
  std::map<std::string, double> parked_;  // single records the service refused: id -> next try (s)
  std::atomic<const EventObserver*> observer_{nullptr};
  std::atomic<bool> afterPush_{false};
  std::vector<std::unique_ptr<EventObserver>> installedObservers_;  // kept: a tracking thread may still call one
};
