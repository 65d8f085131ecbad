#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <set>

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
  EXPECT_EQ(replay.recordsJSON("1000"), R"([{"n":1},{"n":2}])");
  EXPECT_EQ(replay.batches.at("1000").count, 2u);
  EXPECT_EQ(replay.recordsJSON("2000"), R"([{"n":0}])");
  EXPECT_EQ(replay.done, std::set<std::string>{"900"});
  EXPECT_EQ(replay.issued, std::vector<std::string>{"2500"});
  EXPECT_EQ(replay.pendingTexts(), std::vector<std::string>{R"({"n":3})"});
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
  EXPECT_EQ(replay.recordsJSON("1000"), R"([{"n":1}])");
  EXPECT_EQ(replay.pendingTexts(), std::vector<std::string>{R"({"n":3})"});
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
  // A flipped byte anywhere in the header or the entries costs at most the entry it hit (its
  // records, its cut, its id), never the generation, and brings nothing back twice.
  struct Entry {
    std::size_t begin, end;
    std::vector<std::string> records;  // the events it holds
  };
  const std::string marker = "\xFF\xFEKJ";
  std::vector<Entry> entries;
  for (std::size_t m = bytes.find(marker); m < end; m = bytes.find(marker, m + 1)) {
    if (!entries.empty()) entries.back().end = m;
    entries.push_back({m, end, {}});
  }
  ASSERT_EQ(entries.size(), 7u);
  entries[1].records = {R"({"n":1})"};
  entries[2].records = {R"({"n":2})"};
  entries[4].records = {R"({"n":0})"};
  entries[6].records = {R"({"n":3})"};
  const auto eventsOf = [](const KOEventJournal::Replay& r) {
    const std::vector<std::string> pending = r.pendingTexts();
    std::multiset<std::string> events(pending.begin(), pending.end());
    for (const auto& [id, batch] : r.batches) {
      const std::string list = r.recordsJSON(batch);  // records of {"n":digit}, comma-separated
      for (std::size_t i = list.find('{'); i != std::string::npos; i = list.find('{', i + 1)) {
        events.insert(list.substr(i, 7));
      }
    }
    return events;
  };
  for (std::size_t offset = 0; offset < end; ++offset) {
    for (const unsigned char mask : {0x01, 0x80, 0xFF}) {
      std::string damaged = bytes;
      damaged[offset] = static_cast<char>(damaged[offset] ^ mask);
      replay = KOEventJournal::replay(damaged);
      ASSERT_EQ(replay.generation, 1u) << offset;
      const auto hit = std::find_if(entries.begin(), entries.end(),
                                    [&](const Entry& e) { return offset >= e.begin && offset < e.end; });
      std::multiset<std::string> expected = {R"({"n":0})", R"({"n":1})", R"({"n":2})", R"({"n":3})"};
      if (hit != entries.end()) {
        for (const std::string& lost : hit->records) expected.erase(lost);
      }
      const std::multiset<std::string> got = eventsOf(replay);
      for (const std::string& event : expected) EXPECT_EQ(got.count(event), 1u) << event << " at " << offset;
      EXPECT_LE(got.size(), 4u) << offset;
      for (const std::string& event : got) EXPECT_EQ(got.count(event), 1u) << event << " at " << offset;
      const long hitEntry = hit == entries.end() ? -1 : hit - entries.begin();
      EXPECT_EQ(replay.issued.size(), hitEntry == 0 ? 0u : 1u) << offset;
      EXPECT_EQ(replay.batches.count("1000"), hitEntry == 3 ? 0u : 1u) << offset;
      EXPECT_EQ(replay.done.size(), hitEntry == 5 ? 0u : 1u) << offset;
    }
  }

  // Garbage where entries should be is skipped, not taken for entries.
  std::string garbage = bytes;
  for (std::size_t i = KOEventJournal::kFileHeader; i < KOEventJournal::kFileHeader + 40; ++i) garbage[i] = 'x';
  replay = KOEventJournal::replay(garbage);
  EXPECT_GE(replay.damaged, 1u);
  EXPECT_EQ(replay.pendingTexts(), std::vector<std::string>{R"({"n":3})"});
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
  EXPECT_EQ(KOEventJournal(base()).recover(device().files()).pendingTexts(), std::vector<std::string>{R"({"n":3})"});
  // Appends still go to the first generation.
  ASSERT_TRUE(journal.append(KOEventJournal::Kind::Record, R"({"n":5})"));
  ASSERT_TRUE(journal.startGeneration(
      device().files(), 0, [](KOEventJournal& j) { return j.append(KOEventJournal::Kind::Record, R"({"n":6})"); }));
  KOEventJournal reader(base());
  const KOEventJournal::Replay replay = reader.recover(device().files());
  EXPECT_EQ(replay.generation, 2u);
  EXPECT_EQ(replay.pendingTexts(), std::vector<std::string>{R"({"n":6})"});
  EXPECT_TRUE(replay.batches.empty());

  // A file that cannot be mapped keeps the current generation; a full one refuses appends.
  device().files().inject(KOFileFault::DiskFull, "Test.journal", 1);
  EXPECT_FALSE(journal.startGeneration(device().files(), 0, [](KOEventJournal&) { return true; }));
  EXPECT_EQ(journal.generation(), 2u);
  EXPECT_FALSE(journal.append(KOEventJournal::Kind::Record, std::string(journal.capacity(), 'x')));
  EXPECT_TRUE(journal.append(KOEventJournal::Kind::Record, R"({"n":7})"));
  // The space ran out part-way through that allocation: nothing of it stays behind.
  EXPECT_FALSE(device().files().fileExists(base() + ".0"));

  // A full disk meets the growth where a real one does, at the allocation: the generation keeps
  // its room and every entry, and grows once there is space again.
  const std::size_t room = journal.capacity();
  device().files().inject(KOFileFault::DiskFull, "Test.journal", 1);
  EXPECT_FALSE(journal.grow());
  EXPECT_EQ(journal.capacity(), room);
  ASSERT_TRUE(journal.grow());
  EXPECT_EQ(journal.capacity(), 2 * room);
  EXPECT_EQ(KOEventJournal(base()).recover(device().files()).pendingTexts(),
            (std::vector<std::string>{R"({"n":6})", R"({"n":7})"}));
}

TEST_F(KOEventJournalTest, OnlyTheNewestGenerationStaysOnDiskAndEveryByteOfItIsAllocated) {
  KOEventJournal journal(base());
  writeSample(journal);
  ASSERT_TRUE(journal.startGeneration(
      device().files(), 0, [](KOEventJournal& j) { return j.append(KOEventJournal::Kind::Record, R"({"n":4})"); }));
  // What the first generation said is in the second or in the batch file: replayed after a loss of
  // the second it would bring back records long delivered.
  EXPECT_FALSE(device().files().fileExists(base() + ".0"));
  struct stat st {};
  ASSERT_EQ(::stat((base() + ".1").c_str(), &st), 0);
  EXPECT_GE(static_cast<std::size_t>(st.st_blocks) * 512, static_cast<std::size_t>(st.st_size));  // not sparse
  ASSERT_TRUE(journal.grow());
  ASSERT_EQ(::stat((base() + ".1").c_str(), &st), 0);
  EXPECT_EQ(static_cast<std::size_t>(st.st_size), journal.capacity());
  EXPECT_GE(static_cast<std::size_t>(st.st_blocks) * 512, static_cast<std::size_t>(st.st_size));
}

TEST_F(KOEventJournalTest, ADamagedHeaderCopyIsMadeWholeWhenTheGenerationGoesOn) {
  {
    KOEventJournal journal(base());
    writeSample(journal);
  }
  std::string bytes = bytesOf(0);
  bytes[3] = 'x';  // the first copy's magic
  device().rawFiles().writeFile(base() + ".0", bytes);
  KOEventJournal journal(base());
  EXPECT_EQ(journal.recover(device().files()).pendingTexts(), std::vector<std::string>{R"({"n":3})"});
  ASSERT_TRUE(journal.reopen(device().files()));
  ASSERT_TRUE(journal.append(KOEventJournal::Kind::Record, R"({"n":4})"));
  // Now the second copy is damaged: the first, repaired, still names the generation.
  bytes = bytesOf(0);
  bytes[KOEventJournal::kFileHeader / 2 + 9] ^= 0x10;
  const KOEventJournal::Replay replay = KOEventJournal::replay(bytes);
  EXPECT_EQ(replay.generation, 1u);
  EXPECT_EQ(replay.pendingTexts(), (std::vector<std::string>{R"({"n":3})", R"({"n":4})"}));
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
  KOEventJournal reader(base());
  const KOEventJournal::Replay replay = reader.recover(device().files());
  EXPECT_EQ(replay.generation, 1u);  // the same generation, in the same file
  EXPECT_EQ(replay.damaged, 0u);
  EXPECT_EQ(replay.pendingTexts(), (std::vector<std::string>{R"({"n":3})", R"({"n":4})"}));
  EXPECT_EQ(replay.batches.size(), 2u);
  EXPECT_FALSE(device().files().fileExists(base() + ".1"));
}
