// The events handler's sync round: which request runs and which waits, the back-off while the
// service refuses everything, sending the stored batches, each batch's outcome, the round's end
// and the flushes it answers.
#include <algorithm>
#include <atomic>
#include <utility>

#include "KOEventsHandler.h"
#include "KOUtilities/KOConsentGate.h"
#include "KOUtilities/KOInternalConstants.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOSDKNotifications.h"
#include "KOUtilities/KOStringFormat.h"
#include "KOUtilities/KovantisDateUtils.h"
#include "Network/KOServerInterface.h"
#include "kovantis/KOConstants.h"
#include "kovantis/KONotificationCenter.h"

namespace {

const KOPlatform& platform() { return KOPlatform::current(); }

void logInfo(const std::string& line) { KOLogger::logPlain(line); }

void logSyncException(const std::exception& e) {
  KOLogger::logWithVerbosity(
      1, KOLogSeverityException,
      KOArray{KOStringFormat::format("Kovantis - Exception while syncing : %@", {KOValue(e.what())})});
}

}  // namespace

struct KOEventsHandler::Round {
  std::uint64_t number = 0;
  bool probe = false;  // the oldest batch alone, after a wait
  std::vector<std::string> ids;
  std::atomic<std::size_t> completed{0};
  std::mutex mutex;
  std::vector<std::string> failed;   // no answer, or one that may change (5xx, 408, 429…)
  std::vector<std::string> refused;  // refused for what they hold (400, 413)
};

namespace {

// What the service refuses for a batch's content is refused again however often it is sent.
bool refusedForContent(long status) { return status == 400 || status == 413; }

}  // namespace

void KOEventsHandler::syncTrackedEventsInBackground(bool inBackground, bool andReset, bool andOnlyForEventsPlist) {
  const SyncRequest request{inBackground, andReset, andOnlyForEventsPlist};
  platform().dispatch->asyncBackground([this, request] { runSync(request); });
}

void KOEventsHandler::syncAfterCut() {
  platform().dispatch->asyncBackground([this] { runSync(SyncRequest{false, false, false, true}); });
}

void KOEventsHandler::noteRoundOutcomeLocked(std::size_t sent, std::size_t failed) {
  if (sent == 0) return;
  if (failed < sent) {
    backoffSeconds_ = 0;
    return;
  }
  backoffSeconds_ = backoffSeconds_ == 0 ? kFirstBackoffSeconds : std::min(backoffSeconds_ * 2, kLongestBackoffSeconds);
  backoffUntil_ = KovantisDateUtils::now() + backoffSeconds_;
}

bool KOEventsHandler::waitingLocked(const SyncRequest& request) {
  if (syncInProgress_) {
    // Nothing asked for is dropped: a reset waits for the running sync, and every other request
    // becomes one follow-up that does what each of them asked (a cut unless all said no, a
    // background task to end if any said so).
    if (request.reset) {
      resetInvocation_ = request;
    } else if (followUp_) {
      followUp_->inBackground |= request.inBackground;
      followUp_->onlyForEventsPlist &= request.onlyForEventsPlist;
      followUp_->byThreshold &= request.byThreshold;
    } else {
      followUp_ = request;
    }
    return true;
  }
  // A phone's battery and data are not spent on a service that refuses everything: after a round
  // whose every report failed, the rounds that cuts start wait (the cut itself is made and kept),
  // and the first one after the wait sends the oldest batch alone; the rest follow at once when it
  // is accepted. The host's own syncs, the session end's and a reset go at once, and nothing
  // stored is ever dropped for it.
  if (!request.byThreshold || backoffSeconds_ == 0) return false;
  const double wait = backoffUntil_ - KovantisDateUtils::now();
  if (wait <= 0) return false;
  if (!backoffRetryQueued_) {
    backoffRetryQueued_ = true;
    backoffRetry_ = platform().dispatch->afterBackground(wait, [this] {
      {
        std::lock_guard<std::mutex> retry(mutex_);
        backoffRetryQueued_ = false;
      }
      runSync(SyncRequest{false, false, true, true});
    });
  }
  return true;
}

std::vector<std::string> KOEventsHandler::beginRoundLocked(const SyncRequest& request, Round& round) {
  const bool probe = request.byThreshold && backoffSeconds_ > 0;  // the wait is over
  syncInProgress_ = true;
  round.number = ++roundsStarted_;
  ensureLoadedLocked();
  if (!request.onlyForEventsPlist) cutLocked();
  std::vector<std::string> batches = store_.ids();
  // A batch refused alone waits out its own slow pace, whatever else is sent.
  if (!parked_.empty()) {
    const double now = KovantisDateUtils::now();
    std::erase_if(batches, [&](const std::string& id) {
      const auto it = parked_.find(id);
      return it != parked_.end() && it->second > now;
    });
  }
  if (probe && batches.size() > 1) {
    batches.resize(1);
    round.probe = true;
  }
  round.ids = batches;
  if (round.ids.empty()) releaseSyncLocked(request.reset);
  return batches;
}

void KOEventsHandler::runSync(SyncRequest request) {
  if (!KOConsentGate::shared().mayUpload()) return holdSync(request);
  auto round = std::make_shared<Round>();
  std::vector<std::string> batches;  // their bodies are made as each request is sent
  try {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (waitingLocked(request)) return;
      batches = beginRoundLocked(request, *round);
    }
    if (round->ids.empty()) {
      if (!request.onlyForEventsPlist) logInfo("Kovantis - All the tracked events are already synced with Kovantis :]");
      if (request.reset) cleanUp();
      completeFlushes(round->number, false);
      return;
    }
    sendRound(request, round, batches);
  } catch (const std::exception& e) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (round->number != 0) releaseSyncLocked(request.reset);
      persistLocked();
    }
    logSyncException(e);
    if (round->number != 0) completeFlushes(round->number, true);
  }
}

void KOEventsHandler::holdSync(const SyncRequest& request) {
  if (request.reset) cleanUp();
  std::vector<FlushWaiter> waiting;
  KOBackgroundTaskIdentifier task = KOBackgroundTaskInvalid;
  bool nothingHeld = false;
  {
    // Answered from what is known without loading or writing anything: a denied app touches no file.
    std::lock_guard<std::mutex> lock(mutex_);
    waiting.swap(flushWaiters_);
    KOFileSystem& fs = *platform().fileSystem;
    nothingHeld = store_.loaded() ? store_.empty() && views_.empty()
                                  : !fs.fileExists(store_.path()) && !fs.fileExists(journal_.pathOf(0)) &&
                                        !fs.fileExists(journal_.pathOf(1));
    if (request.inBackground) task = std::exchange(bgTask_, KOBackgroundTaskInvalid);
  }
  for (FlushWaiter& w : waiting) {
    if (w.completion)
      platform().dispatch->asyncMain([done = std::move(w.completion), nothingHeld] { done(nothingHeld); });
  }
  if (task != KOBackgroundTaskInvalid) platform().application->endBackgroundTask(task);
}

void KOEventsHandler::sendRound(const SyncRequest& request, const std::shared_ptr<Round>& round,
                                const std::vector<std::string>& batches) {
  auto finish = [this, round, request](const std::string& id, long status) {
    batchFinished(request, *round, id, status);
  };
  std::vector<KOServerInterface::Report> reports;
  reports.reserve(batches.size());
  for (const std::string& id : batches) {
    if (KOLogger::loggingEnabled()) {
      std::string records;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        records = store_.recordsJSON(id);
      }
      logInfo(KOStringFormat::format("Kovantis - syncing events from storage for Batch %@ and Events :\n %@",
                                     {KOValue(id), KOValue(records)}));
    }
    // The body is made from the journal only when its request is sent: a round of many batches
    // holds a copy of the few in flight, not of all.
    reports.push_back({id, [this, id]() -> std::shared_ptr<const std::string> {
                         std::lock_guard<std::mutex> lock(mutex_);
                         std::optional<std::string> body = store_.reportBody(id);
                         return body ? std::make_shared<const std::string>(std::move(*body)) : nullptr;
                       }});
  }
  try {
    KOServerInterface::sharedInstance().sendReports(reports, finish);
  } catch (const std::exception& e) {
    // Not one was sent: they count as failed and stay for the next sync.
    logSyncException(e);
    for (const auto& report : reports) finish(report.batchId, 0);
  }
}

void KOEventsHandler::batchFinished(const SyncRequest& request, Round& round, const std::string& id, long status) {
  try {
    if (status == 200) {
      {
        // Accepted: never sent again while this process lives. It leaves the file with the next
        // write (at the latest when this sync ends); should the process die before, the service
        // recognises the resent batch by its id.
        std::lock_guard<std::mutex> lock(mutex_);
        forgetBatchLocked(id);
      }
      logInfo(KOStringFormat::format("Kovantis - sync success from batch %@", {KOValue(id)}));
    } else {
      {
        std::lock_guard<std::mutex> lock(round.mutex);
        // A reset drops what it could not send, refused or not.
        (refusedForContent(status) && !request.reset ? round.refused : round.failed).push_back(id);
      }
      logInfo(KOStringFormat::format("Kovantis - could not complete sync for batch %@, will try again later",
                                     {KOValue(id)}));
    }
  } catch (const std::exception& e) {
    KOLogger::logException(KO_HERE, this, "Kovantis - exception while syncing the data : %@", e);
  }
  if (++round.completed == round.ids.size()) roundFinished(request, round);
}

void KOEventsHandler::roundFinished(const SyncRequest& request, Round& round) {
  std::vector<std::string> failed;
  std::vector<std::string> refused;
  {
    std::lock_guard<std::mutex> lock(round.mutex);
    failed = round.failed;
    refused = round.refused;
  }
  const bool roundFailed = !failed.empty();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    // A refusal says the service is there: it neither starts nor lengthens the back-off.
    noteRoundOutcomeLocked(round.ids.size() - refused.size(), failed.size());
    bool split = false;
    for (const std::string& id : refused) split |= splitRefusedLocked(id);
    if (split && !followUp_) followUp_ = SyncRequest{request.inBackground, false, true, false};
    if (round.probe && !roundFailed) {
      // The service is back: what the probe left behind goes now.
      if (followUp_) {
        followUp_->byThreshold = false;
      } else {
        followUp_ = SyncRequest{request.inBackground, false, true, false};
      }
    }
  }
  syncAttemptCompletedInBackground(request.inBackground, request.reset, std::move(failed));
  completeFlushes(round.number, roundFailed);
}

void KOEventsHandler::syncAttemptCompletedInBackground(bool inBackground, bool andForReset,
                                                       std::vector<std::string> failed) {
  try {
    KOBackgroundTaskIdentifier task = KOBackgroundTaskInvalid;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      // A reset drops what it could not send. Batches cut while this sync ran were never part of
      // it and stay, whatever its outcome.
      if (andForReset) {
        for (const auto& id : failed) forgetBatchLocked(id);
      }
      persistLocked();
      task = bgTask_;
      if (inBackground) bgTask_ = KOBackgroundTaskInvalid;
    }
    if (failed.empty()) {
      logInfo("Kovantis - sync performed for all the batches successfully");
    } else if (andForReset) {
      logInfo("Kovantis - sync unsuccessful on reset");
    }
    // A reset is over only once the user's data is cleared: until then the sync still counts as
    // running, so nothing else starts (or looks idle) in between.
    if (andForReset) cleanUp();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      releaseSyncLocked(andForReset);
    }
    if (inBackground && task != KOBackgroundTaskInvalid) platform().application->endBackgroundTask(task);
  } catch (const std::exception& e) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      releaseSyncLocked(andForReset);
    }
    logSyncException(e);
  }
}

void KOEventsHandler::releaseSyncLocked(bool afterReset) {
  syncInProgress_ = false;
  std::optional<SyncRequest> next;
  if (!afterReset && resetInvocation_) {
    next.swap(resetInvocation_);
  } else if (followUp_) {
    next.swap(followUp_);
  }
  // Queued before the lock is released, so the waiting sync runs next.
  if (next) platform().dispatch->asyncBackground([this, queued = *next] { runSync(queued); });
}

void KOEventsHandler::flush(std::function<void(bool allDelivered)> completion) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    flushWaiters_.push_back({roundsStarted_, std::move(completion)});
  }
  syncTrackedEventsInBackground(false, false, false);
}

void KOEventsHandler::completeFlushes(std::uint64_t round, bool roundFailed) {
  std::vector<FlushWaiter> served;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (flushWaiters_.empty()) return;
    std::erase_if(flushWaiters_, [&](FlushWaiter& w) {
      if (w.roundsBefore >= round) return false;  // asked while this round ran: not part of it
      served.push_back(std::move(w));
      return true;
    });
  }
  if (!served.empty()) {
    writeSnapshotNow();  // the answer speaks of the file too
    bool delivered = false;
    std::vector<std::function<void(bool)>> answered;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      delivered = store_.size() == 0 && views_.empty();
      for (FlushWaiter& w : served) {
        // The round delivered all it sent, yet more is waiting: tracked while it ran. Wait for it
        // with another round, a few times at most, rather than answer "not delivered".
        if (!delivered && !roundFailed && w.roundsLeft > 0) {
          --w.roundsLeft;
          w.roundsBefore = roundsStarted_;
          flushWaiters_.push_back(std::move(w));
        } else {
          answered.push_back(std::move(w.completion));
        }
      }
    }
    for (auto& completion : answered) {
      if (completion)
        platform().dispatch->asyncMain([completion = std::move(completion), delivered] { completion(delivered); });
    }
  }
  bool waiting = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    waiting = !flushWaiters_.empty();
  }
  if (waiting) syncTrackedEventsInBackground(false, false, false);
}

void KOEventsHandler::cleanUp() {
  // Every handler that keeps data of the user clears it first; then the new user starts.
  KONotificationCenter& center = KONotificationCenter::defaultCenter();
  center.post(KOUserDataResetNotification);
  center.post(KOV_INIT_NEW_USER);
}

bool KOEventsHandler::splitRefusedLocked(const std::string& id) {
  const auto batch = store_.find(id);
  if (!batch) return false;
  if (batch->count < 2) {
    // The one record the service will not take: kept, never dropped silently, and offered again
    // at the back-off's slowest pace in case the service changes its mind.
    if (parked_.insert_or_assign(id, KovantisDateUtils::now() + kLongestBackoffSeconds).second) {
      KOLogger::logLocated(
          KO_HERE, this, KOLogSeverityError,
          KOStringFormat::format("Kovantis - the service refused the event of batch %@: it is kept "
                                 "and sent again every %@ seconds",
                                 {KOValue(id), KOValue(static_cast<std::int64_t>(kLongestBackoffSeconds))}));
    }
    return false;
  }
  // The good records are not held back by a bad one: the batch goes again as two halves, each
  // under an id of its own, until the record the service refuses stands alone. The journal
  // carries the split in one entry before either half is sent, so a resend after a kill carries
  // the same ids.
  const KOArray records = store_.records(id);
  KOArray first, second;
  for (std::size_t i = 0; i < records.size(); ++i) (i < records.size() / 2 ? first : second).push_back(records[i]);
  const std::string firstId = store_.issueId(nowMilliseconds());
  const std::string secondId = store_.issueId(nowMilliseconds());
  store_.put(firstId, first);
  store_.put(secondId, second);
  store_.remove(id);
  parked_.erase(id);
  KOEventJournal::Half a{firstId, first.size(), store_.find(firstId)->heapJSON};
  KOEventJournal::Half b{secondId, second.size(), store_.find(secondId)->heapJSON};
  if (!journalFailed_ && journal_.appendSplit(id, a, b)) {
    const auto length = [](const KOEventJournal::Half& h) { return static_cast<std::uint32_t>(h.recordsJSON.size()); };
    store_.moveToJournal(firstId, {a.at, length(a)});
    store_.moveToJournal(secondId, {b.at, length(b)});
  } else if (journal_.isOpen() || !journalFailed_) {
    // No room: a new generation holds the store as it now is, halves and all.
    startJournalLocked();
  }
  logInfo(KOStringFormat::format(
      "Kovantis - the service refused batch %@: its %@ events are sent again as batches %@ "
      "and %@",
      {KOValue(id), KOValue(static_cast<std::int64_t>(records.size())), KOValue(firstId), KOValue(secondId)}));
  return true;
}
