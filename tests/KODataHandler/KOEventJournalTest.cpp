#include <gtest/gtest.h>

#include "KODataHandler/KOEventJournal.h"
#include "KOTestDevice.h"

class KOEventJournalTest : public KOTestDevice {
 protected:
  std::string base() { return device().documentsDirectory() + "/Test.journal"; }

  // A generation holding three records, a cut of the first two, a whole batch and a done batch.
  void writeSample(KOEventJournal& journal) {
    ASSERT_TRUE(journal.startGeneration(device().files(), 0, [](KOEventJournal& j) {
      return j.append(KOEventJournal::Kind::Issued, "2500") && j.append(KOEventJournal::Kind::Record, R"({"n":1})") &&
             j.append(KOEventJournal::Kind::Record, R"({"n":2})") && j.append(KOEventJournal::Kind::Cut, "1000") &&
             j.appendBatch("2000", 1, R"([{"n":0}])") && j.append(KOEventJournal::Kind::Done, "900") &&
             j.append(KOEventJournal::Kind::Record, R"({"n":3})");
    }));
  }

  std::string bytesOf(int file) { return device().rawFiles().readFile(base() + "." + std::to_string(file)).value(); }
};

TEST_F(KOEventJournalTest, ReplaysRecordsCutsBatchesAndDoneInOrder) {
  KOEventJournal journal(base());
  writeSample(journal);
  KOEventJournal reader(base());
  const KOEventJournal::Replay replay = reader.recover(device().files());
  EXPECT_EQ(replay.generation, 1u);
  EXPECT_EQ(replay.damaged, 0u);
  ASSERT_EQ(replay.batches.size(), 2u);
  EXPECT_EQ(replay.batches.at("1000").recordsJSON, R"([{"n":1},{"n":2}])");
  EXPECT_EQ(replay.batches.at("1000").count, 2u);
  EXPECT_EQ(replay.batches.at("2000").recordsJSON, R"([{"n":0}])");
  EXPECT_EQ(replay.done, std::set<std::string>{"900"});
  EXPECT_EQ(replay.issued, std::vector<std::string>{"2500"});
  EXPECT_EQ(replay.pending, std::vector<std::string>{R"({"n":3})"});
}

TEST_F(KOEventJournalTest, DamageLosesTheDamagedEntryOnlyAndNothingIsReadPastTheEnd) {
  KOEventJournal journal(base());
  writeSample(journal);
  const std::string bytes = bytesOf(0);
  // A flipped byte inside the second record's payload: that record alone is lost.
  std::string flipped = bytes;
  const std::size_t at = flipped.find(R"({"n":2})");
  ASSERT_NE(at, std::string::npos);
  flipped[at + 5] = '9';
  KOEventJournal::Replay replay = KOEventJournal::replay(flipped);
  EXPECT_EQ(replay.damaged, 1u);
  EXPECT_EQ(replay.batches.at("1000").recordsJSON, R"([{"n":1}])");
  EXPECT_EQ(replay.pending, std::vector<std::string>{R"({"n":3})"});
  EXPECT_EQ(replay.batches.count("2000"), 1u);

  // Cut short anywhere: everything before the cut survives, and the replay stays inside the bytes.
  const std::size_t end = bytes.find(R"({"n":3})") + 7;
  for (std::size_t size = 0; size <= end; ++size) {
    replay = KOEventJournal::replay(std::string_view(bytes.data(), size));
    if (size >= end) {
      EXPECT_EQ(replay.pending.size(), 1u);
    }
    if (size > bytes.find(R"([{"n":0}])") + 9) {
      EXPECT_EQ(replay.batches.size(), 2u) << size;
    }
  }
  // Garbage where entries should be is skipped, not taken for entries.
  std::string garbage = bytes;
  for (std::size_t i = KOEventJournal::kFileHeader; i < KOEventJournal::kFileHeader + 40; ++i) garbage[i] = 'x';
  replay = KOEventJournal::replay(garbage);
  EXPECT_GE(replay.damaged, 1u);
  EXPECT_EQ(replay.pending, std::vector<std::string>{R"({"n":3})"});
}

TEST_F(KOEventJournalTest, ANewGenerationCountsOnlyOnceComplete) {
  KOEventJournal journal(base());
  writeSample(journal);
  // The next generation goes to the other file; filled only in part (the fill fails), the first
  // stays the one a restart reads.
  EXPECT_FALSE(journal.startGeneration(device().files(), 0, [](KOEventJournal& j) {
    j.append(KOEventJournal::Kind::Record, R"({"n":4})");
    return false;
  }));
  EXPECT_EQ(KOEventJournal(base()).recover(device().files()).pending, std::vector<std::string>{R"({"n":3})"});
  // Appends still go to the first generation.
  ASSERT_TRUE(journal.append(KOEventJournal::Kind::Record, R"({"n":5})"));
  ASSERT_TRUE(journal.startGeneration(
      device().files(), 0, [](KOEventJournal& j) { return j.append(KOEventJournal::Kind::Record, R"({"n":6})"); }));
  KOEventJournal reader(base());
  const KOEventJournal::Replay replay = reader.recover(device().files());
  EXPECT_EQ(replay.generation, 2u);
  EXPECT_EQ(replay.pending, std::vector<std::string>{R"({"n":6})"});
  EXPECT_TRUE(replay.batches.empty());

  // A file that cannot be mapped keeps the current generation; a full one refuses appends.
  device().files().inject(KOFileFault::DiskFull, "Test.journal", 1);
  EXPECT_FALSE(journal.startGeneration(device().files(), 0, [](KOEventJournal&) { return true; }));
  EXPECT_EQ(journal.generation(), 2u);
  EXPECT_FALSE(journal.append(KOEventJournal::Kind::Record, std::string(journal.capacity(), 'x')));
  EXPECT_TRUE(journal.append(KOEventJournal::Kind::Record, R"({"n":7})"));
}

TEST_F(KOEventJournalTest, AFileThatCannotBeReadIsSetAsideNotReused) {
  KOEventJournal journal(base());
  writeSample(journal);
  device().files().inject(KOFileFault::ReadError, "Test.journal.0", -1);
  KOEventJournal reader(base());
  EXPECT_EQ(reader.recover(device().files()).generation, 0u);
  device().files().clear();
  EXPECT_TRUE(device().files().fileExists(base() + ".0.unreadable"));
  // One read error passes.
  writeSample(journal);
  device().files().inject(KOFileFault::ReadError, "Test.journal", 1);
  EXPECT_EQ(KOEventJournal(base()).recover(device().files()).pending.size(), 1u);
}

TEST_F(KOEventJournalTest, AStartGoesOnAfterTheLastEntryWithoutCopyingTheJournal) {
  {
    KOEventJournal journal(base());
    writeSample(journal);
  }
  // The remains of an append a kill cut short, after the last entry.
  std::string bytes = bytesOf(0);
  const std::size_t end = bytes.find(R"({"n":3})") + 7;
  ASSERT_LT(end + 40, bytes.size());
  bytes.replace(end + 17, 20, "{\"torn\":\"xxxxxxxxxx\"");
  device().rawFiles().writeFile(base() + ".0", bytes);

  KOEventJournal journal(base());
  EXPECT_EQ(journal.recover(device().files()).end, end);
  ASSERT_TRUE(journal.reopen(device().files()));
  EXPECT_EQ(journal.generation(), 1u);
  ASSERT_TRUE(journal.append(KOEventJournal::Kind::Record, R"({"n":4})"));
  const KOEventJournal::Replay replay = KOEventJournal(base()).recover(device().files());
  EXPECT_EQ(replay.generation, 1u);  // the same generation, in the same file
  EXPECT_EQ(replay.damaged, 0u);
  EXPECT_EQ(replay.pending, (std::vector<std::string>{R"({"n":3})", R"({"n":4})"}));
  EXPECT_EQ(replay.batches.size(), 2u);
  EXPECT_FALSE(device().files().fileExists(base() + ".1"));
}
