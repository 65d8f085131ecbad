// Inbox messages as the service answers them: created after "last_updated", for the asking device.

#include <string>
#include <vector>

#include "EmulatorFixture.h"

namespace {
const std::string kInbox = "/v1/getInboxMessages";

std::vector<std::string> cidsOf(const rapidjson::Document& answer) {
  std::vector<std::string> out;
  for (const auto& m : answer["messagesInfo"].GetArray()) {
    out.push_back(m.IsObject() ? m["cid"].GetString() : "<not an object>");
  }
  return out;
}
}  // namespace

TEST_F(EmulatorTest, InboxAnswersMessagesNewerThanTheStampForThisDevice) {
  // Unchecked: messages without their payload, an entry that is no message and another key go out too.
  emulator->seedUnchecked(R"({"inbox": {"messagesInfo": [
      {"cid": "old", "c_cr_t": 1000},
      {"cid": "new", "c_cr_t": "5000.5"},
      {"cid": "mine", "c_cr_t": 5000, "push_id": "tok-1"},
      {"cid": "theirs", "c_cr_t": 5000, "push_id": "tok-2"},
      {"cid": "undated"}, 7], "extra": true}})");
  struct Case {
    std::string since, token;
    std::vector<std::string> expected;
  };
  const std::vector<Case> cases = {
      {"0", "tok-1", {"old", "new", "mine", "undated", "<not an object>"}},
      {"1000000", "tok-1", {"new", "mine", "undated", "<not an object>"}},
      {"4999999", "tok-2", {"new", "theirs", "undated", "<not an object>"}},
      {"5000000", "tok-2", {"new", "undated", "<not an object>"}},
      {"5000500", "", {"undated", "<not an object>"}},
  };
  for (const auto& c : cases) {
    auto res = get(kInbox, universal({{"last_updated", c.since}, {"push_id", c.token}, {"pushToken", c.token}}));
    ASSERT_TRUE(res);
    ASSERT_EQ(res->status, 200) << res->body;
    const auto answer = json(res->body);
    EXPECT_EQ(cidsOf(answer), c.expected) << c.since << " " << c.token;
    EXPECT_TRUE(answer["extra"].GetBool());
  }
}

TEST_F(EmulatorTest, InboxSeedsAreCheckedAndABadListIsServedAsSeeded) {
  // The device a message is for must be readable, even in an unchecked seed.
  EXPECT_THROW(emulator->seedUnchecked(R"({"inbox": [{"cid": "m", "push_id": 5}]})"), std::invalid_argument);
  emulator->seedUnchecked(R"({"inbox": {"messagesInfo": "not a list"}})");
  auto res = get(kInbox, universal({{"last_updated", "0"}}));
  ASSERT_TRUE(res);
  EXPECT_EQ(res->body, R"({"messagesInfo":"not a list"})");
  EXPECT_EQ(get(kInbox, universal({{"last_updated", "soon"}}))->status, 400);
}
