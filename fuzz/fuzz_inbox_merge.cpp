// The inbox merge and the message model over any store file and any answer, on a simulated device
// in a temporary directory. Input: the bytes of the store file, "\n--\n", then the answer as JSON
// (no separator: the answer alone, over an empty inbox). After the merge every stored record is
// read as a model, pending messages are taken twice and one message is deleted. Checks: nothing
// escapes, the file stays readable, a merge leaves at most the limit, read copies the answer names
// count as handed out, pending messages are handed out once, a delete removes at most one record.
// A file the writer refuses (see run) stays as it was.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "KOFuzzInput.h"
#include "KOInbox/KOInboxHandler.h"
#include "KOInbox/KOInboxPushDataModel.h"
#include "KOUtilities/KOJSONSerialization.h"
#include "KOUtilities/KOLogger.h"
#include "KOUtilities/KOPropertyListFile.h"
#include "KOUtilities/KOValueHelpers.h"
#include "Sim/KOSimDevice.h"
#include "kovantis/KOConstants.h"

namespace fs = std::filesystem;

namespace {

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "%s\n", what.c_str());
  std::abort();
}

KOSimDevice& device() {
  static KOSimDevice* d = [] {
    const fs::path base = fs::exists("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path();
    std::string pattern = (base / "kovantis-fuzz-inbox-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) fail("no temporary directory");
    KOSimDeviceConfig config;
    config.rootDirectory = pattern + "/device";
    config.backgroundThreads = 1;
    config.echoConsole = std::getenv("KOV_FUZZ_ECHO") != nullptr;
    auto* made = new KOSimDevice(config);
    made->install();
    if (config.echoConsole) KOLogger::debug(1);
    made->clock().setNow(1800000000);
    return made;
  }();
  return *d;
}

// The stored list; fails when the file exists and is not an inbox the store itself would write.
KOArray storedList() {
  const KOValue file = KOPropertyListFile::read(KOInboxHandler::getFilePathForInboxMessages());
  if (file.isNil()) return KOArray();
  if (!file.isDictionary() || !file["messagesInfo"].isArray()) fail("the store wrote a file it cannot read");
  return file["messagesInfo"].arrayValue();
}

void run(const std::string_view storeBytes, bool withStore, const KOValue& answer) {
  KOSimDevice& d = device();
  const std::string path = KOInboxHandler::getFilePathForInboxMessages();
  KOInboxHandler::removeAllData();
  if (withStore) d.rawFiles().writeFile(path, storeBytes);
  // Campaigns the user has read: whatever the answer says, their stored copy stays, handed out.
  std::vector<KOValue> readCampaigns;
  for (const KOValue& record : KOInboxHandler::getAllNotifications()) {
    const KOValue& cid = validObjectForKey(record, "cid");
    if (!cid.isAbsent() && KOInboxPushDataModel::flagValue(validObjectForKey(record, "isRead"))) {
      readCampaigns.push_back(cid);
    }
  }

  // A stored record the writer cannot render (a NUL inside a string, say) makes every write fail
  // with a log line and leaves the file as it was; the checks below hold for a written file.
  const auto bytes = [&] { return d.rawFiles().readFile(path).value_or(std::string()); };
  const std::string unmerged = bytes();
  KOInboxHandler::saveServerPushDataToPlist(answer);
  const KOValue& list = validObjectForKey(answer, "messagesInfo");
  if (list.isArray() && bytes() != unmerged) {
    const KOArray after = storedList();
    if (after.size() > static_cast<std::size_t>(KOInboxMaximumMessages)) fail("a merge left more than the limit");
    for (const KOValue& message : list.arrayValue()) {
      const KOValue& cid = validObjectForKey(message, "cid");
      if (cid.isAbsent() || std::find(readCampaigns.begin(), readCampaigns.end(), cid) == readCampaigns.end()) continue;
      for (const KOValue& record : after) {
        if (validObjectForKey(record, "cid") != cid) continue;
        if (!KOInboxPushDataModel::flagValue(validObjectForKey(record, "isRead")) ||
            !KOInboxPushDataModel::flagValue(validObjectForKey(record, "isGiven"))) {
          fail("a read copy the answer named was replaced or not marked as handed out");
        }
      }
    }
  }

  const KOArray all = KOInboxHandler::getAllNotifications();
  for (const KOInboxPushDataModel& model : KOInboxPushDataModel::modelsWithArray(all)) {
    if (model.isRead() != KOInboxPushDataModel::flagValue(validObjectForKey(model.record(), "isRead"))) {
      fail("the model misreads isRead");
    }
  }
  const std::string unmarked = bytes();
  const bool handedOut = !KOInboxHandler::getPendingNotifications().empty();
  if ((!handedOut || bytes() != unmarked) && !KOInboxHandler::getPendingNotifications().empty()) {
    fail("pending messages handed out twice");
  }

  const std::size_t count = storedList().size();
  const std::string first = all.empty() ? std::string("none") : KOInboxPushDataModel(all[0]).campaignID();
  KOInboxHandler::removeMessageWithCampaignID(KOValue(first));
  const std::size_t left = storedList().size();
  if (left + 1 < std::min(count, static_cast<std::size_t>(KOInboxMaximumMessages)) || left > count) {
    fail("a delete removed more than one message");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const KOFuzzInput parts = KOFuzzInput::split(input);
  const std::optional<KOValue> parsed = parts.parsedAnswer();
  if (!parsed) return 0;
  const KOValue& answer = *parsed;
  try {
    run(parts.stored.value_or(std::string_view()), parts.stored.has_value(), answer);
  } catch (const std::exception& e) {
    fail(std::string("an exception escaped the inbox: ") + e.what());
  }
  return 0;
}
