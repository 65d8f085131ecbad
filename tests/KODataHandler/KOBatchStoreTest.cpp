#include <gtest/gtest.h>

#include "KODataHandler/KOBatchStore.h"
#include "KOTestDevice.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOPropertyListFile.h"

class KOBatchStoreTest : public KOTestDevice {
 protected:
  std::string path() { return device().documentsDirectory() + "/Batches.plist"; }
};

TEST_F(KOBatchStoreTest, IdsAreNeverReusedWithinAProcess) {
  KOBatchStore store(path());
  const std::vector<std::string> records{R"({"EVENT_ACTION":"A"})"};
  const std::string first = store.add(records, 1700000000000);
  const std::string second = store.add(records, 1700000000000);  // same millisecond
  EXPECT_EQ(first, "1700000000000");
  EXPECT_EQ(second, "1700000000001");
  // The service accepted both and they left the store; a cut in that same millisecond must still
  // get a new id, or the service would take it for a resend and drop its events.
  store.remove(first);
  store.remove(second);
  EXPECT_EQ(store.add(records, 1700000000000), "1700000000002");
  EXPECT_EQ(store.add(records, 1800000000000), "1800000000000");
}

TEST_F(KOBatchStoreTest, TheFileIsAPropertyListOfBatchesAndReadsBack) {
  KOBatchStore store(path());
  store.add({R"({"EVENT_ACTION":"A","EVENT_ATTRS":{"s":"<&>","n":1.5}})", R"({"EVENT_ACTION":"B"})"}, 1000);
  store.put("2000", KOArray{KODictionary{{"EVENT_ACTION", "C"}}});
  ASSERT_TRUE(store.write(device().files(), path()));
  const KOValue file = KOPropertyListFile::read(path());
  EXPECT_EQ(file, KOValue(store.dictionary()));
  EXPECT_EQ(file["1000"].arrayValue()[0]["EVENT_ATTRS"]["s"], KOValue("<&>"));
  EXPECT_EQ(KOJSONSerialization::parse(store.reportBody("1000").value())["viewsCount"], KOValue(2));

  KOBatchStore reloaded(path());
  reloaded.load(device().files());
  EXPECT_EQ(reloaded.ids(), (std::vector<std::string>{"1000", "2000"}));
  EXPECT_EQ(reloaded.add({R"({"EVENT_ACTION":"D"})"}, 1500), "2001");  // past every loaded id

  // An empty store removes the file.
  ASSERT_TRUE(KOBatchStore(path()).write(device().files(), path()));
  EXPECT_FALSE(device().files().fileExists(path()));
}

TEST_F(KOBatchStoreTest, AnUnreadableFileIsSetAsideNotOverwritten) {
  device().rawFiles().writeFile(path(), "<plist><dict><key>1</key><array><dict>");  // cut short
  KOBatchStore store(path());
  store.load(device().files());
  EXPECT_TRUE(store.empty());
  EXPECT_TRUE(device().files().fileExists(path() + ".unreadable"));
  store.add({R"({"EVENT_ACTION":"NEW"})"}, 1000);
  ASSERT_TRUE(store.write(device().files(), path()));
  EXPECT_EQ(device().rawFiles().readFile(path() + ".unreadable"),
            std::optional<std::string>("<plist><dict><key>1</key><array><dict>"));

  // One read error passes: tried again, the file is read and nothing is set aside.
  device().files().inject(KOFileFault::ReadError, "Batches.plist", 1);
  KOBatchStore again(path());
  again.load(device().files());
  EXPECT_EQ(again.ids(), std::vector<std::string>{"1000"});
  EXPECT_FALSE(device().files().fileExists(path() + ".unreadable-1"));

  // A lasting one is no empty file either: what is on disk is set aside, next to the first.
  device().files().inject(KOFileFault::ReadError, "Batches.plist", -1);
  KOBatchStore failing(path());
  failing.load(device().files());
  device().files().clear();
  EXPECT_TRUE(failing.empty());
  EXPECT_FALSE(device().files().fileExists(path()));
  EXPECT_TRUE(device().files().fileExists(path() + ".unreadable-1"));

  // The next start reads what was set aside again: its batches return under their ids, and the
  // file goes once the batch file holds them. The damaged one stays for a person to look at.
  KOBatchStore next(path());
  next.load(device().files());
  EXPECT_EQ(next.ids(), std::vector<std::string>{"1000"});
  ASSERT_TRUE(next.write(device().files(), path()));
  next.removeMergedAside(device().files());
  EXPECT_FALSE(device().files().fileExists(path() + ".unreadable-1"));
  EXPECT_TRUE(device().files().fileExists(path() + ".unreadable"));

  // Temporaries a crash left before their rename are removed at the next start.
  device().rawFiles().writeFile(path() + ".tmp-7", "half");
  KOBatchStore afterCrash(path());
  afterCrash.load(device().files());
  EXPECT_FALSE(device().files().fileExists(path() + ".tmp-7"));
  EXPECT_EQ(afterCrash.ids(), std::vector<std::string>{"1000"});
}

TEST_F(KOBatchStoreTest, ABatchTheFileCannotHoldDoesNotKeepTheOthersOffDisk) {
  KOBatchStore store(path());
  store.add({R"({"EVENT_ACTION":"A\u0000B"})"}, 1000);  // a NUL byte: JSON can carry it, the file cannot
  store.add({R"({"EVENT_ACTION":"OK"})"}, 2000);
  ASSERT_TRUE(store.write(device().files(), path()));
  const KOValue file = KOPropertyListFile::read(path());
  ASSERT_TRUE(file.isDictionary());
  EXPECT_EQ(file.dictionaryValue().keys(), std::vector<std::string>{"2000"});
  EXPECT_EQ(store.size(), 2u);  // still sent from memory
}

TEST_F(KOBatchStoreTest, EveryControlCharacterButNulReadsBackFromTheFile) {
  KOBatchStore store(path());
  for (int c = 1; c < 32; ++c) {
    const std::string text = std::string("a") + static_cast<char>(c) + "b";
    store.put(std::to_string(1000 + c), KOArray{KODictionary{{"EVENT_ACTION", text}, {text, 1}}});
  }
  ASSERT_TRUE(store.write(device().files(), path()));
  KOBatchStore reloaded(path());
  reloaded.load(device().files());
  ASSERT_EQ(reloaded.size(), 31u);
  for (int c = 1; c < 32; ++c) {
    const std::string text = std::string("a") + static_cast<char>(c) + "b";
    const KOArray records = reloaded.records(std::to_string(1000 + c));
    EXPECT_EQ(records[0]["EVENT_ACTION"], KOValue(text)) << c;
  }
}

// A rewrite copies what the file already holds and makes XML only for new batches; the file is
// byte for byte what the batch file's writer makes of the same batches in one go, and the
// property-list library reads back the batches themselves.
TEST_F(KOBatchStoreTest, ARewriteCopiesWhatTheFileHoldsAndStaysThePropertyListWritersOutput) {
  KOBatchStore store(path());
  for (int i = 0; i < 3; ++i) {
    store.add({R"({"EVENT_ACTION":"A","EVENT_ATTRS":{"s":"<&>","n":1.5,"l":[1,true,"x"]}})",
               R"({"EVENT_ACTION":"B","EVENT_ATTRS":{"z":"é","a":-3}})"},
              1000);
  }
  int made = 0;
  const KOBatchStore::RecordsSource source = [&](const std::string& id) -> std::optional<std::string> {
    ++made;
    return store.find(id) ? std::optional(store.recordsJSON(id)) : std::nullopt;
  };
  const auto writersOutput = [&] {
    EXPECT_EQ(KOPropertyListFile::read(path()), KOValue(store.dictionary()));
    return store.fileText();
  };
  KOBatchStore::FileIndex index;
  ASSERT_TRUE(KOBatchStore::write(device().files(), path(), store.ids(), {}, source, &index));
  EXPECT_EQ(made, 3);
  EXPECT_EQ(device().rawFiles().readFile(path()), writersOutput());

  // One accepted, two cut since: only the two are made, in their place among the copied ones.
  store.remove("1001");
  store.add({R"({"EVENT_ACTION":"C"})"}, 1500);
  store.put("1700", KOArray{KODictionary{{"EVENT_ACTION", "D"}}});
  made = 0;
  KOBatchStore::FileIndex next;
  ASSERT_TRUE(KOBatchStore::write(device().files(), path(), store.ids(), index, source, &next));
  EXPECT_EQ(made, 2);
  EXPECT_EQ(device().rawFiles().readFile(path()), writersOutput());
  EXPECT_EQ(next.size(), 4u);

  // A file that is not what the index says is never copied from: the write fails, and one with no
  // index makes every batch again.
  std::string changed = device().rawFiles().readFile(path()).value();
  changed.replace(changed.find("<key>1002</key>"), 15, "<key>9999</key>");
  device().rawFiles().writeFile(path(), changed);
  KOBatchStore::FileIndex after = next;
  EXPECT_FALSE(KOBatchStore::write(device().files(), path(), store.ids(), next, source, &after));
  EXPECT_TRUE(after.empty());
  ASSERT_TRUE(KOBatchStore::write(device().files(), path(), store.ids(), after, source, &after));
  EXPECT_EQ(device().rawFiles().readFile(path()), writersOutput());
}
