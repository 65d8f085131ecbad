// The seeds every answer comes from, and the images served from them or from a directory.

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <vector>

#include "KOEmulatorSchema.h"
#include "KOEmulatorServiceCalls.h"
#include "KOEmulatorStore.h"

namespace KOEmulatorCalls {

namespace {

const std::map<std::string, std::string, std::less<>> kDefaultSeeds = {
    {"config", R"({"l_e":0,"tkn":"5b7e0a92-3c41-4d8e-9f26-a1d04c7e8b13","e_b_c":30})"},
    {"inapps", R"({"campaign_info":[],"event_list":[]})"},
    {"campaigns", "{}"},
    {"smart_triggers", "{}"},
    {"inbox", R"({"messagesInfo":[]})"},
    {"geofences", R"({"fencesInfo":[]})"},
    {"geofence_hit", "{}"},
    {"images", "{}"},
};

// Standard base64 with padding, as seeds carry image bytes; nothing when the text is not that.
std::optional<std::string> decodeBase64(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::string out;
  out.reserve(text.size() / 4 * 3);
  uint32_t bits = 0;
  int pending = 0;
  size_t padding = 0;
  for (char c : text) {
    int value = -1;
    if (c >= 'A' && c <= 'Z') value = c - 'A';
    if (c >= 'a' && c <= 'z') value = c - 'a' + 26;
    if (c >= '0' && c <= '9') value = c - '0' + 52;
    if (c == '+') value = 62;
    if (c == '/') value = 63;
    if (c == '=') {
      ++padding;
      continue;
    }
    if (value < 0 || padding > 0) return std::nullopt;
    bits = (bits << 6) | static_cast<uint32_t>(value);
    pending += 6;
    if (pending >= 8) {
      pending -= 8;
      out.push_back(static_cast<char>((bits >> pending) & 0xFF));
    }
  }
  if (padding > 2) return std::nullopt;
  return out;
}

std::string imageType(const std::string& path) {
  const std::string extension = std::filesystem::path(path).extension().string();
  if (extension == ".png") return "image/png";
  if (extension == ".gif") return "image/gif";
  if (extension == ".jpg" || extension == ".jpeg") return "image/jpeg";
  return "application/octet-stream";
}

// A file under the images directory; nothing for a path that would leave it.
std::optional<std::string> imageFile(const std::string& dir, const std::string& path) {
  if (dir.empty()) return std::nullopt;
  const std::filesystem::path relative(path.substr(kImagePrefix.size()));
  for (const auto& part : relative) {
    if (part == ".." || part == "." || part.empty()) return std::nullopt;
  }
  const std::filesystem::path file = std::filesystem::path(dir) / relative;
  std::error_code ec;
  if (!std::filesystem::is_regular_file(file, ec)) return std::nullopt;
  std::ifstream in(file, std::ios::binary);
  if (!in) return std::nullopt;
  if (in.peek() == std::ifstream::traits_type::eof()) return std::string();
  std::ostringstream bytes;
  if (!(bytes << in.rdbuf())) return std::nullopt;
  return std::move(bytes).str();
}

}  // namespace

std::string section(const KOEmulatorStore& store, const std::string& name) {
  if (auto stored = store.seedSection(name)) return *stored;
  return kDefaultSeeds.find(name)->second;
}

std::string seedsOf(const KOEmulatorStore& store) {
  rapidjson::StringBuffer buffer;
  KOJSONWriter w(buffer);
  w.StartObject();
  for (const auto& [name, fallback] : kDefaultSeeds) {
    KOEmulatorJSON::writeString(w, name);
    KOEmulatorJSON::writeRaw(w, section(store, name));
  }
  w.EndObject();
  return {buffer.GetString(), buffer.GetSize()};
}

void applySeed(KOEmulatorStore& store, const std::string& json, SeedCheck check) {
  rapidjson::Document doc;
  std::string error;
  if (!KOEmulatorJSON::parse(json, doc, error)) throw std::invalid_argument("seed: " + error);
  if (!doc.IsObject()) throw std::invalid_argument("seed must be a JSON object");
  if (check == SeedCheck::Schema) {
    if (const std::optional<std::string> why = KOEmulatorSchema::check(doc))
      throw std::invalid_argument("seed: " + *why);
  }

  // Check every section before storing any, so a bad seed changes nothing.
  std::vector<std::pair<std::string, std::string>> sections;
  for (auto& m : doc.GetObject()) {
    std::string name(m.name.GetString(), m.name.GetStringLength());
    auto& value = m.value;
    if (kDefaultSeeds.find(name) == kDefaultSeeds.end()) {
      throw std::invalid_argument("seed: unknown section \"" + name + "\"");
    }
    static const std::map<std::string, const char*, std::less<>> listKeys = {
        {"inapps", "campaign_info"}, {"inbox", "messagesInfo"}, {"geofences", "fencesInfo"}};
    auto listKey = listKeys.find(name);
    std::string text;
    if (name == "inbox") checkInboxSeed(value);
    if (value.IsArray() && listKey != listKeys.end()) {
      text = std::string("{\"") + listKey->second + "\":" + KOEmulatorJSON::serialize(value) + "}";
    } else if (value.IsObject()) {
      if (name == "images") {
        for (auto& entry : value.GetObject()) {
          const std::string path = entry.name.GetString();
          if (!path.starts_with(kImagePrefix) || path.size() == kImagePrefix.size() || path.ends_with('/')) {
            throw std::invalid_argument("seed: image path \"" + path + "\" must name a file under " +
                                        std::string(kImagePrefix));
          }
          if (!entry.value.IsString() || !decodeBase64({entry.value.GetString(), entry.value.GetStringLength()})) {
            throw std::invalid_argument("seed: image \"" + path + "\" must be a base64 string");
          }
        }
      }
      if (name == "campaigns" || name == "smart_triggers") {
        for (auto& entry : value.GetObject()) {
          if (!entry.value.IsObject()) {
            throw std::invalid_argument("seed: " + name + " \"" + entry.name.GetString() + "\" must be an object");
          }
        }
      }
      text = KOEmulatorJSON::serialize(value);
    } else {
      throw std::invalid_argument("seed: section \"" + name + "\" must be an object" +
                                  (listKey != listKeys.end() ? " or an array" : ""));
    }
    sections.emplace_back(std::move(name), std::move(text));
  }
  for (const auto& [name, text] : sections) {
    if (name == "inapps") {
      rapidjson::Document inapps;
      KOEmulatorJSON::parse(text, inapps, error);
      store.setCampaignStamps(stampCampaigns(inapps, store.campaignStamps()));
    }
    store.setSeedSection(name, text);
  }
}

// Images are plain files at plain URLs, as a CDN serves them: any query is ignored.
Reply image(const Env& env, const Call& call, const Query&) {
  std::optional<std::string> bytes;
  rapidjson::Document seeded;
  std::string error;
  if (J::parse(section(env.store, "images"), seeded, error) && seeded.IsObject()) {
    const auto it = seeded.FindMember(call.path.c_str());
    if (it != seeded.MemberEnd() && it->value.IsString()) {
      bytes = decodeBase64({it->value.GetString(), it->value.GetStringLength()});
    }
  }
  if (!bytes) bytes = imageFile(env.imagesDir, call.path);
  if (!bytes) {
    const std::string message = "no such image: " + call.path;
    return {404, J::errorBody(message), message};
  }
  return {200, std::move(*bytes), {}, imageType(call.path)};
}

}  // namespace KOEmulatorCalls
