// Campaign image downloads against the emulator: one answer per download, in URL order, five
// requests at a time, and a failure that stops what has not started.

#include <string>
#include <vector>

#include "KOEmulatorTestDevice.h"
#include "KOInAppV2/InAppHandlers/KODownloadManager.h"

namespace {

// Image bytes, and as the emulator's seed takes them (base64). The manager never looks inside.
const std::string kPNG = "png", kPNG64 = "cG5n";
const std::string kGIF = "gif", kGIF64 = "Z2lm";
const std::string kText = "not an image", kText64 = "bm90IGFuIGltYWdl";

KOData dataOf(const std::string& bytes) { return KOData{std::vector<std::uint8_t>(bytes.begin(), bytes.end())}; }

struct Outcome {
  bool success;
  KOValue error, results;
  bool onMain;
};

}  // namespace

class KODownloadManagerTest : public KOEmulatorTestDevice {
 protected:
  // Seeds images (name, base64 bytes) under /images/.
  void seedImages(const std::vector<std::pair<std::string, std::string>>& images) {
    std::string seed = R"({"images": {)";
    for (size_t i = 0; i < images.size(); ++i) {
      seed += (i ? "," : "") + ("\"/images/" + images[i].first + "\": \"" + images[i].second + "\"");
    }
    emulator().seed(seed + "}}");
  }
  std::string url(const std::string& name) { return emulator().baseURL() + "/images/" + name; }

  void download(const KOArray& urls) {
    manager->download(urls, [this](bool success, const KOValue& error, const KOValue& results) {
      outcomes.push_back({success, error, results, KOPlatform::current().dispatch->isMainThread()});
    });
  }
  // Until every operation has reported or was dropped, and every report posted has run.
  void settle() {
    ASSERT_TRUE(waitFor([&] {
      for (const auto& op : manager->downloads()) {
        if (!op->isFinished()) return false;
      }
      return true;
    }));
    bool drained = false;
    KOPlatform::current().dispatch->asyncMain([&] { drained = true; });
    ASSERT_TRUE(waitFor([&] { return drained; }));
  }

  std::unique_ptr<KODownloadManager> manager = std::make_unique<KODownloadManager>();
  std::vector<Outcome> outcomes;
};

TEST_F(KODownloadManagerTest, ResultsComeInURLOrderTaggedGifByTheURLText) {
  seedImages({{"slow.png", kPNG64}, {"anim.gif", kGIF64}, {"notes.txt", kText64}, {"x.gif.png", kPNG64}});
  emulator().injectFault({.path = "/images/slow.png", .delayMs = 200});  // the first URL answers last
  download(KOArray{url("slow.png"), url("anim.gif?v=2&w=300"), url("notes.txt"), url("x.gif.png")});
  settle();

  ASSERT_EQ(outcomes.size(), 1u);
  EXPECT_TRUE(outcomes[0].success);
  EXPECT_TRUE(outcomes[0].error.isNil());
  EXPECT_TRUE(outcomes[0].onMain);
  const KOArray expected{
      KODictionary{{"isGif", 0}, {"data", dataOf(kPNG)}}, KODictionary{{"isGif", 1}, {"data", dataOf(kGIF)}},
      KODictionary{{"isGif", 0}, {"data", dataOf(kText)}}, KODictionary{{"isGif", 0}, {"data", dataOf(kPNG)}}};
  EXPECT_EQ(outcomes[0].results, KOValue(expected));
}

TEST_F(KODownloadManagerTest, OneFailedImageFailsTheDownloadAndDropsWhatHasNotStarted) {
  struct Case {
    std::string name;
    std::vector<std::string> bad;  // failing images, first in the URL list
    KOEmulatorFault fault;         // on /images/bad/ (status 0 and no drop: none)
    bool transportError;
  };
  const std::vector<Case> cases = {
      // First, while every connection is new: curl resends a request once when a reused one drops.
      {"dropped connection", {"bad/a.png"}, {.path = "/images/bad/", .drop = true}, true},
      {"injected 404", {"bad/a.png"}, {.path = "/images/bad/", .status = 404}, false},
      {"unknown image", {"bad/none.png"}, {}, false},
      {"empty body", {"bad/empty.png"}, {}, false},
      // Both are under way when the first fails, so the second reports its failure too.
      {"two failures", {"bad/a.png", "bad/none.png"}, {.path = "/images/bad/", .status = 404}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    emulator().reset(true);
    emulator().clearFaults();
    outcomes.clear();
    manager = std::make_unique<KODownloadManager>();
    seedImages({{"bad/a.png", kPNG64}, {"bad/empty.png", ""}, {"slow/ok.png", kPNG64}});
    if (c.fault.status || c.fault.drop) emulator().injectFault(c.fault);
    // The good ones are still under way when a bad one fails.
    emulator().injectFault({.path = "/images/slow/", .delayMs = 400});
    KOArray urls;
    for (const auto& bad : c.bad) urls.push_back(url(bad));
    while (urls.size() < 10) urls.push_back(url("slow/ok.png"));
    download(urls);
    settle();

    ASSERT_EQ(outcomes.size(), c.bad.size()) << "one failure per failed image, and no success after it";
    for (const auto& o : outcomes) {
      EXPECT_FALSE(o.success);
      EXPECT_TRUE(o.results.isNil());
      EXPECT_EQ(o.error.isString(), c.transportError);
    }
    // Five start at once; each failure frees a slot before its report cancels the rest.
    const size_t requested = emulator().requestCount("/images/");
    EXPECT_GE(requested, 5u);
    EXPECT_LE(requested, 5u + c.bad.size());
    size_t dropped = 0;
    for (const auto& op : manager->downloads()) dropped += op->isCancelled() && op->isFinished();
    EXPECT_GE(dropped, 10u - requested) << "what never started was cancelled";
  }
}

TEST_F(KODownloadManagerTest, NeverMoreThanFiveRequestsAtOnce) {
  seedImages({{"a.png", kPNG64}});
  // Every request stays open long enough to overlap with all the others allowed.
  emulator().injectFault({.path = "/images/", .delayMs = 250});
  emulator().reset();
  KOArray urls;
  for (int i = 0; i < 10; ++i) urls.push_back(url("a.png?i=" + std::to_string(i)));
  download(urls);
  settle();

  ASSERT_EQ(outcomes.size(), 1u);
  EXPECT_TRUE(outcomes[0].success);
  EXPECT_EQ(outcomes[0].results.arrayValue().size(), 10u);
  EXPECT_EQ(emulator().requestCount("/images/"), 10u);
  EXPECT_EQ(emulator().peakConcurrentRequests(), 5u) << "the HTTP client alone would allow six";
}

// Ten images fill the result slots; an eleventh has none and fails the download when it arrives.
TEST_F(KODownloadManagerTest, TenImagesFitAndAnEleventhFailsTheDownload) {
  seedImages({{"a.png", kPNG64}, {"last.png", kPNG64}});
  // The last image arrives last, after the others filled their slots.
  emulator().injectFault({.path = "/images/last.png", .delayMs = 300});
  for (size_t count : {10u, 11u}) {
    SCOPED_TRACE(count);
    outcomes.clear();
    manager = std::make_unique<KODownloadManager>();
    KOArray urls;
    for (size_t i = 0; i + 1 < count; ++i) urls.push_back(url("a.png?i=" + std::to_string(i)));
    urls.push_back(url("last.png"));
    download(urls);
    settle();

    ASSERT_EQ(outcomes.size(), 1u);
    EXPECT_EQ(outcomes[0].success, count <= KODownloadManager::kResultSlots);
    EXPECT_EQ(outcomes[0].results.isArray() ? outcomes[0].results.arrayValue().size() : 0u, count == 10 ? 10u : 0u);
  }
}

TEST_F(KODownloadManagerTest, AnEmptyListNeverCompletes) {
  download(KOArray{});
  EXPECT_FALSE(device().runMainUntil([&] { return !outcomes.empty(); }, 0.3));
  EXPECT_TRUE(manager->downloads().empty());
  EXPECT_EQ(emulator().requestCount(), 0u);
}
