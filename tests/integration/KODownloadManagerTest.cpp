// Campaign image downloads against the emulator: one answer per download, in URL order, five
// requests at a time, and a failure that stops what has not started.

#include <string>
#include <vector>

#include "KOEmulatorTestDevice.h"
#include "KOInAppV2/InAppHandlers/KODownloadManager.h"

namespace {

std::string fromHex(std::string_view hex) {
  std::string out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    out.push_back(static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  return out;
}

// A 1x1 RGB PNG and a 1x1 GIF89a of two frames (red, then blue, 100 ms each, looping).
const std::string kPNG = fromHex(
    "89504e470d0a1a0a0000000d4948445200000001000000010802000000907753de0000000c49444154789c63f8cfc0000003"
    "010100c9fe92ef0000000049454e44ae426082");
const std::string kGIF = fromHex(
    "47494638396101000100800000ff00000000ff21ff0b4e45545343415045322e30030100000021f904000a0000002c000000"
    "000100010000020244010021f904000a0000002c00000000010001000002024c01003b");

std::string base64(const std::string& bytes) {
  static const char* const kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  auto byte = [&](size_t i) { return static_cast<uint32_t>(static_cast<uint8_t>(bytes[i])); };
  std::string out;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    const size_t left = bytes.size() - i;
    const uint32_t n = byte(i) << 16 | (left > 1 ? byte(i + 1) << 8 : 0) | (left > 2 ? byte(i + 2) : 0);
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += left > 1 ? kAlphabet[(n >> 6) & 63] : '=';
    out += left > 2 ? kAlphabet[n & 63] : '=';
  }
  return out;
}

KOData dataOf(const std::string& bytes) { return KOData{std::vector<std::uint8_t>(bytes.begin(), bytes.end())}; }

struct Outcome {
  bool success;
  KOValue error, results;
  bool onMain;
};

}  // namespace

class KODownloadManagerTest : public KOEmulatorTestDevice {
 protected:
  // Seeds images under /images/ by name and returns their URLs on the emulator.
  void seedImages(const std::vector<std::pair<std::string, std::string>>& images) {
    std::string seed = R"({"images": {)";
    for (size_t i = 0; i < images.size(); ++i) {
      seed += (i ? "," : "") + ("\"/images/" + images[i].first + "\": \"" + base64(images[i].second) + "\"");
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
  seedImages({{"slow.png", kPNG}, {"anim.gif", kGIF}, {"notes.txt", "not an image"}, {"x.gif.png", kPNG}});
  KOEmulatorFault slow;
  slow.path = "/images/slow.png";
  slow.delayMs = 200;  // the first URL answers last
  emulator().injectFault(slow);
  download(KOArray{url("slow.png"), url("anim.gif?v=2&w=300"), url("notes.txt"), url("x.gif.png")});
  settle();

  ASSERT_EQ(outcomes.size(), 1u);
  EXPECT_TRUE(outcomes[0].success);
  EXPECT_TRUE(outcomes[0].error.isNil());
  EXPECT_TRUE(outcomes[0].onMain);
  const KOArray expected{
      KODictionary{{"isGif", 0}, {"data", dataOf(kPNG)}}, KODictionary{{"isGif", 1}, {"data", dataOf(kGIF)}},
      KODictionary{{"isGif", 0}, {"data", dataOf("not an image")}}, KODictionary{{"isGif", 0}, {"data", dataOf(kPNG)}}};
  EXPECT_EQ(outcomes[0].results, KOValue(expected));
}

TEST_F(KODownloadManagerTest, OneFailedImageFailsTheDownloadAndDropsWhatHasNotStarted) {
  struct Case {
    std::string name;
    std::vector<std::string> bad;  // failing images, first in the URL list
    KOEmulatorFault fault;         // on /images/bad/ (status 0 and no drop: none)
    bool transportError;
  };
  auto faultOf = [](int status, bool drop) {
    KOEmulatorFault f;
    f.path = "/images/bad/";
    f.status = status;
    f.drop = drop;
    return f;
  };
  const std::vector<Case> cases = {
      // First, while every connection is new: curl resends a request once when a reused one drops.
      {"dropped connection", {"bad/a.png"}, faultOf(0, true), true},
      {"injected 404", {"bad/a.png"}, faultOf(404, false), false},
      {"unknown image", {"bad/none.png"}, {}, false},
      {"empty body", {"bad/empty.png"}, {}, false},
      // Both are under way when the first fails, so the second reports its failure too.
      {"two failures", {"bad/a.png", "bad/none.png"}, faultOf(404, false), false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    emulator().reset(true);
    emulator().clearFaults();
    outcomes.clear();
    manager = std::make_unique<KODownloadManager>();
    seedImages({{"bad/a.png", kPNG}, {"bad/empty.png", ""}, {"slow/ok.png", kPNG}});
    if (c.fault.status || c.fault.drop) emulator().injectFault(c.fault);
    KOEmulatorFault slow;
    slow.path = "/images/slow/";
    slow.delayMs = 400;  // the good ones are still under way when a bad one fails
    emulator().injectFault(slow);
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
  seedImages({{"a.png", kPNG}});
  KOEmulatorFault slow;
  slow.path = "/images/";
  slow.delayMs = 250;  // every request stays open long enough to overlap with all the others allowed
  emulator().injectFault(slow);
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
  seedImages({{"a.png", kPNG}, {"last.png", kPNG}});
  KOEmulatorFault slow;
  slow.path = "/images/last.png";
  slow.delayMs = 300;  // the last image arrives last, after the others filled their slots
  emulator().injectFault(slow);
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
