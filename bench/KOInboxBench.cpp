// The inbox at its limit: a server merge into a full store (half the answer refreshes stored
// messages, half is new) and the newest-first read the inbox screen makes on every load.
#include <benchmark/benchmark.h>

#include <string>

#include "KOInbox/KOInboxHandler.h"
#include "KOUtilities/KOPropertyListFile.h"
#include "Sim/KOSimDevice.h"
#include "Sim/KOSimRenderer.h"
#include "kovantis/KOConstants.h"
#include "kovantis/KOInbox.h"

namespace {

void ensureDevice() {
  if (KOPlatform::isInstalled()) return;
  static auto* device = new KOSimDevice();
  device->install();
}

KOValue inboxMessage(int i) {
  const std::string cid = "7c1d3e0a-inbox-" + std::to_string(i);
  return KODictionary{
      {"cid", cid},
      {"c_cr_t", 1800000000 + i},
      {"data",
       KODictionary{{"aps", KODictionary{{"alert", KODictionary{{"title", "Offer"}, {"body", "20% off today"}}}}},
                    {"kovantis", KODictionary{{"cid", cid}, {"media-attachment", "https://cdn/x.png"}}},
                    {"app_extra", KODictionary{{"screenName", "Offers"}, {"screenData", KODictionary{}}}}}},
  };
}

void storeFull() {
  KOArray records;
  for (int i = 0; i < KOInboxMaximumMessages; ++i) {
    KOValue record = inboxMessage(i);
    if (i % 3 == 0) record.dictionaryValue().set("isRead", KOValue(true));
    records.push_back(std::move(record));
  }
  KOPropertyListFile::write(KOInboxHandler::getFilePathForInboxMessages(),
                            KOValue(KODictionary{{"messagesInfo", std::move(records)}}));
}

void BM_InboxServerMerge(benchmark::State& state) {
  ensureDevice();
  KOArray answer;
  for (int i = 50; i < 150; ++i) answer.push_back(inboxMessage(i));
  const KOValue response(KODictionary{{"messagesInfo", answer}});
  for (auto _ : state) {
    state.PauseTiming();
    storeFull();
    state.ResumeTiming();
    KOInboxHandler::saveServerPushDataToPlist(response);
  }
}
BENCHMARK(BM_InboxServerMerge)->Unit(benchmark::kMicrosecond);

void BM_InboxGetAllNotifications(benchmark::State& state) {
  ensureDevice();
  storeFull();
  for (auto _ : state) {
    KOArray all = KOInboxHandler::getAllNotifications();
    benchmark::DoNotOptimize(all);
  }
}
BENCHMARK(BM_InboxGetAllNotifications)->Unit(benchmark::kMicrosecond);

// What the screen costs to lay out whole at 100 rows (load included), and its picture.
void BM_InboxScreenDescribe(benchmark::State& state) {
  ensureDevice();
  storeFull();
  for (auto _ : state) {
    KOInboxViewController inbox;
    inbox.viewDidLoad();
    KOViewDescription screen = inbox.viewDescription();
    benchmark::DoNotOptimize(screen);
  }
}
BENCHMARK(BM_InboxScreenDescribe)->Unit(benchmark::kMicrosecond);

void BM_InboxScreenPicture(benchmark::State& state) {
  ensureDevice();
  storeFull();
  KOInboxViewController inbox;
  inbox.viewDidLoad();
  const KOViewDescription screen = inbox.viewDescription();
  for (auto _ : state) {
    std::string svg = KOSimRenderer::svg(screen);
    benchmark::DoNotOptimize(svg);
  }
}
BENCHMARK(BM_InboxScreenPicture)->Unit(benchmark::kMicrosecond);

}  // namespace
