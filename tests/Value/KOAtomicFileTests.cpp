#include <gtest/gtest.h>

#include <string>

#include "KOTestDevice.h"
#include "KOUtilities/KOAtomicFile.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOPropertyListFile.h"
#include "KOUtilities/KOPropertyListSerialization.h"
#include "KOValuePrinting.h"
#include "kovantis/KOValue.h"

namespace {

const KOValue kOld = KODictionary{{"generation", 1}, {"events", KOArray{"a", "b"}}};
const KOValue kNew = KODictionary{{"generation", 2}, {"events", KOArray{"a", "b", "c"}}};

}  // namespace

class KOAtomicFileTest : public KOTestDevice {
 protected:
  void SetUp() override {
    KOTestDevice::SetUp();
    KOLogger::debug(1);
    path_ = KOPropertyListFile::documentsPath("events.plist");
    ASSERT_TRUE(KOPropertyListFile::write(path_, kOld));
    ASSERT_EQ(KOPropertyListFile::read(path_), kOld);
  }

  // The old contents must still be there, whole, through the raw file system as well as ours.
  void expectOldFileIntact() {
    EXPECT_EQ(KOPropertyListFile::read(path_), kOld);
    const auto raw = device().rawFiles().readFile(path_);
    ASSERT_TRUE(raw.has_value());
    EXPECT_EQ(KOPropertyListSerialization::parse(*raw), kOld);
  }

  std::string path_;
};

TEST_F(KOAtomicFileTest, WriteFaultsLeaveTheOldFileAndLog) {
  struct Case {
    KOFileFault fault;
    const char* logged;
  };
  for (const Case& c : {Case{KOFileFault::DiskFull, "Failed to write"}, Case{KOFileFault::IOError, "Failed to write"},
                        Case{KOFileFault::CrashBeforeRename, "Failed to replace"}}) {
    SCOPED_TRACE(c.logged);
    device().console().clear();
    device().files().inject(c.fault, "events.plist");
    EXPECT_FALSE(KOPropertyListFile::write(path_, kNew));
    EXPECT_EQ(device().files().faultsFired() > 0, true);
    EXPECT_TRUE(device().console().contains(c.logged));
    EXPECT_TRUE(device().console().contains("events.plist"));
    device().files().clear();
    expectOldFileIntact();
  }

  // Once the fault is gone, the next write replaces the file despite any leftover temporary.
  EXPECT_TRUE(KOPropertyListFile::write(path_, kNew));
  EXPECT_EQ(KOPropertyListFile::read(path_), kNew);
}

TEST_F(KOAtomicFileTest, FailedWriteCleansUpItsTemporaryUnlessItCrashed) {
  const std::string dir = device().documentsDirectory();
  device().files().inject(KOFileFault::DiskFull, "events.plist");
  EXPECT_FALSE(KOAtomicFile::write(device().files(), path_, "replacement"));
  EXPECT_EQ(device().rawFiles().listDirectory(dir), std::vector<std::string>{"events.plist"});

  device().files().inject(KOFileFault::CrashBeforeRename, "events.plist");
  EXPECT_FALSE(KOAtomicFile::write(device().files(), path_, "replacement"));
  EXPECT_EQ(device().rawFiles().listDirectory(dir).size(), 2u);
  expectOldFileIntact();
}

TEST_F(KOAtomicFileTest, WritesIntoMissingDirectoriesAndPlainBytes) {
  const std::string nested = device().documentsDirectory() + "/a/b/raw.bin";
  const std::string bytes("\0\x01 binary \xFF", 11);
  EXPECT_TRUE(KOAtomicFile::write(device().files(), nested, bytes, 0600));
  EXPECT_EQ(KOAtomicFile::read(device().files(), nested), bytes);
  EXPECT_TRUE(KOAtomicFile::write(nested, "shorter"));
  EXPECT_EQ(KOAtomicFile::read(device().files(), nested), "shorter");
}

TEST_F(KOAtomicFileTest, MissingCorruptAndUnwritableFilesReadAsNil) {
  device().console().clear();
  EXPECT_TRUE(KOPropertyListFile::read(KOPropertyListFile::documentsPath("absent.plist")).isNil());
  EXPECT_FALSE(device().console().contains("Unreadable"));

  const std::string corrupt = KOPropertyListFile::documentsPath("corrupt.plist");
  ASSERT_TRUE(KOAtomicFile::write(device().files(), corrupt, "<?xml version=\"1.0\"?><plist><dict><key>"));
  EXPECT_TRUE(KOPropertyListFile::read(corrupt).isNil());
  EXPECT_TRUE(device().console().contains("Unreadable file"));
  EXPECT_TRUE(device().console().contains("corrupt.plist"));

  // A value the format cannot hold is refused before the old file is touched.
  EXPECT_FALSE(KOPropertyListFile::write(path_, KOValue::null()));
  EXPECT_TRUE(device().console().contains("Failed to serialise"));
  expectOldFileIntact();

  device().files().inject(KOFileFault::ReadError, "events.plist");
  EXPECT_TRUE(KOPropertyListFile::read(path_).isNil());
  EXPECT_EQ(KOPropertyListFile::read(path_), kOld);
}
