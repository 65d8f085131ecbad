// The event journal and the disk under it: a full disk, simulated and real, never kills the app nor
// loses an event while it lives; the space a burst took comes back once the burst is delivered.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>

#include "KOSDKTestDevice.h"
#include "KOUtilities/KOLogger.h"

class JournalDiskTest : public KOSDKTestDevice {
 protected:
  std::string journalPath(int file) {
    return device().documentsDirectory() + "/KovantisEvents.journal." + std::to_string(file);
  }

  /// Bytes the journal's files take on the disk (allocated), and their apparent size.
  std::size_t journalDiskBytes(bool apparent = false) {
    std::size_t bytes = 0;
    for (int file = 0; file < 2; ++file) {
      struct stat st {};
      if (::stat(journalPath(file).c_str(), &st) == 0) {
        bytes += apparent ? static_cast<std::size_t>(st.st_size) : static_cast<std::size_t>(st.st_blocks) * 512;
      }
    }
    return bytes;
  }

  void track(const std::string& name, int from, int count) {
    for (int i = from; i < from + count; ++i) sdk().trackEvent(KOValue(name), KOValue(KODictionary{{"i", i}}));
  }

  static std::int64_t indexOf(const KOValue& record) { return record["EVENT_ATTRS"]["i"].intValue(); }

  /// The events of that name a start would find now, were the app killed: in the batch file and
  /// in the journal (what it holds beyond the file), by index.
  std::multiset<std::int64_t> eventsSurvivingAKill(const std::string& name) {
    std::multiset<std::int64_t> found;
    const auto take = [&](const KOValue& record) {
      if (record.isDictionary() && record["EVENT_ACTION"] == KOValue(name)) found.insert(indexOf(record));
    };
    std::set<std::string> inFile;
    const KOValue file = KOPropertyListFile::read(device().rawFiles(), events().eventsPlistFilePath());
    if (file.isDictionary()) {
      for (const auto& [id, records] : file.dictionaryValue()) {
        inFile.insert(id);
        for (const KOValue& record : records.arrayValue()) take(record);
      }
    }
    KOEventJournal journal(device().documentsDirectory() + "/KovantisEvents.journal");
    const KOEventJournal::Replay replay = journal.recover(device().rawFiles());
    for (const auto& [id, batch] : replay.batches) {
      if (inFile.count(id) || replay.done.count(id)) continue;
      const KOValue records = KOJSONSerialization::parse(replay.recordsJSON(batch));
      for (const KOValue& record : records.arrayValue()) take(record);
    }
    for (const std::string& record : replay.pendingTexts()) take(KOJSONSerialization::parse(record));
    return found;
  }

  static bool onceEach(const std::multiset<std::int64_t>& found, std::size_t count) {
    return found.size() == count && std::set<std::int64_t>(found.begin(), found.end()).size() == count;
  }

  /// Every event of that name reached the service, once.
  void expectDeliveredOnce(const std::string& name, std::size_t count) {
    std::multiset<std::int64_t> delivered;
    for (const KOValue& record : storedRecords(name)) delivered.insert(indexOf(record));
    EXPECT_EQ(delivered.size(), count) << name;
    EXPECT_TRUE(onceEach(delivered, count)) << name << ": an event was stored twice";
  }

  void serviceDown() { emulator().injectFault(KOEmulatorFault{"/v2/report/add", 503, 0, false, -1, 1.0}); }
};

TEST_F(JournalDiskTest, AJournalThatCannotGetSpaceKeepsEventsInMemoryAndCatchesUpOnceItCan) {
  KOLogger::debug(1);
  startClean();
  serviceDown();
  // Every allocation of the journal fails, as on a full disk: growing it, or starting it over.
  device().files().inject(KOFileFault::DiskFull, "KovantisEvents.journal", -1);
  track("HELD", 0, 5000);  // far past the room the journal had
  ASSERT_GT(device().files().faultsFired(), 0);
  // Tried again at a bounded pace, not once per event.
  EXPECT_LT(device().files().faultsFired(), 50);
  EXPECT_TRUE(device().console().contains("The event journal cannot be written"));

  // Space again: the journal (with the batch file) soon holds every event once, so that a kill
  // from then on loses none.
  device().files().clear();
  ASSERT_TRUE(waitFor([&] { return onceEach(eventsSurvivingAKill("HELD"), 5000); }, 15));
  emulator().clearFaults();
  ASSERT_TRUE(flush(60));
  expectDeliveredOnce("HELD", 5000);
}

TEST_F(JournalDiskTest, AJournalGrownForABurstShrinksToItsStartingSizeOnceTheBurstIsDelivered) {
  startClean();
  const std::size_t starting = journalDiskBytes();
  EXPECT_EQ(starting, KOEventJournal::kMinimumCapacity);
  serviceDown();
  std::size_t peak = 0;
  for (int i = 0; i < 20; ++i) {
    track("BURST", i * 1000, 1000);
    peak = std::max(peak, journalDiskBytes());
  }
  EXPECT_GT(peak, starting);  // or the burst proved nothing
  emulator().clearFaults();
  ASSERT_TRUE(flush(60));
  ASSERT_TRUE(settle());
  expectDeliveredOnce("BURST", 20000);
  EXPECT_EQ(journalDiskBytes(), starting);
  EXPECT_EQ(journalDiskBytes(true), KOEventJournal::kMinimumCapacity);  // one file, not two
}

// On a real file system of 16 MB that runs full. Mounting it takes root (the tests run as root in
// CI); elsewhere these skip.
class JournalFullDiskTest : public JournalDiskTest {
 protected:
  void SetUp() override {
    JournalDiskTest::SetUp();
    if (::geteuid() != 0) GTEST_SKIP() << "mounting a small file system takes root";
    documents_ = device().documentsDirectory();
    if (::mount("kovantis-full-disk", documents_.c_str(), "tmpfs", 0, "size=16m,mode=0755") != 0) {
      GTEST_SKIP() << "cannot mount a tmpfs on " << documents_ << ": " << std::strerror(errno);
    }
    mounted_ = true;
  }

  void TearDown() override {
    // Lazily: the events handler, which outlives the test, still maps its journal there.
    if (mounted_) ::umount2(documents_.c_str(), MNT_DETACH);
    JournalDiskTest::TearDown();
  }

  /// Adds up to `bytes` to a filler file; false once the disk is full.
  bool fill(std::size_t bytes) {
    const int fd = ::open((documents_ + "/filler").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    const std::string chunk(64 * 1024, 'f');
    bool room = true;
    for (std::size_t written = 0; room && written < bytes; written += chunk.size()) {
      room = ::write(fd, chunk.data(), chunk.size()) == static_cast<ssize_t>(chunk.size());
    }
    ::close(fd);
    return room;
  }

  void fillUp() {
    while (fill(std::size_t(1) << 30)) {
    }
  }

  void freeSpace() { ::unlink((documents_ + "/filler").c_str()); }

  std::string documents_;
  bool mounted_ = false;
};

TEST_F(JournalFullDiskTest, FullBeforeTheStartTheAppRunsAndDeliversEverythingOnceSpaceReturns) {
  KOLogger::debug(1);
  fillUp();
  serviceDown();
  // Not waited for: on a full disk the other stores' writes are retried for as long as it lasts.
  sdk().initializeWithApiKey(KOValue("kov-test-app"));
  track("FULL", 0, 3000);  // the first load of the journal meets the full disk
  EXPECT_TRUE(device().console().contains("The event journal cannot be written"));
  EXPECT_LT(eventsSurvivingAKill("FULL").size(), 3000u);  // or the disk was not full
  freeSpace();
  ASSERT_TRUE(waitFor([&] { return onceEach(eventsSurvivingAKill("FULL"), 3000); }, 15));
  emulator().clearFaults();
  ASSERT_TRUE(flush(60));
  expectDeliveredOnce("FULL", 3000);
}

TEST_F(JournalFullDiskTest, FillingUpWhileTrackingAtFullRateKillsNothingAndLosesNothing) {
  startClean();
  serviceDown();
  // The disk fills up under the app while it tracks as fast as it can, then stays full a while.
  int tracked = 0;
  for (bool room = true; room; tracked += 500) {
    track("FILLING", tracked, 500);
    room = fill(1 << 20);
  }
  track("FILLING", tracked, 5000);
  tracked += 5000;
  EXPECT_LT(eventsSurvivingAKill("FILLING").size(), static_cast<std::size_t>(tracked));
  freeSpace();
  ASSERT_TRUE(
      waitFor([&] { return onceEach(eventsSurvivingAKill("FILLING"), static_cast<std::size_t>(tracked)); }, 15));
  emulator().clearFaults();
  ASSERT_TRUE(flush(60));
  expectDeliveredOnce("FILLING", static_cast<std::size_t>(tracked));
}
