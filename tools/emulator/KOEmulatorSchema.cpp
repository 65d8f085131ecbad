#include "KOEmulatorSchema.h"

#include <rapidjson/pointer.h>
#include <rapidjson/schema.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <memory>
#include <stdexcept>
#include <vector>

namespace {

using rapidjson::Pointer;
using rapidjson::Value;

// A schema document keeps its source next to it: the source is what the messages quote from.
struct Compiled {
  explicit Compiled(rapidjson::Document parsed) : source(std::move(parsed)), schema(source) {}
  rapidjson::Document source;
  rapidjson::SchemaDocument schema;
};

rapidjson::Document parsedSchema() {
  rapidjson::Document doc;
  const std::string_view text = KOEmulatorSchema::text();
  if (doc.Parse(text.data(), text.size()).HasParseError() || !doc.IsObject()) {
    throw std::logic_error("the compiled-in seed schema is not a JSON object");
  }
  return doc;
}

const Compiled& seedSchema() {
  static const Compiled compiled(parsedSchema());
  return compiled;
}

// The schema whose root is the one at `pointer` of the seed schema: a copy of the whole with a
// reference at its root, so that every reference inside still resolves. Built only to explain a
// refused seed, so never on the way of a good one.
std::unique_ptr<Compiled> schemaAt(const std::string& pointer) {
  rapidjson::Document copy;
  copy.CopyFrom(seedSchema().source, copy.GetAllocator());
  copy.RemoveMember("$ref");
  copy.AddMember("$ref", Value(("#" + pointer).c_str(), copy.GetAllocator()), copy.GetAllocator());
  return std::make_unique<Compiled>(std::move(copy));
}

std::string pointerText(const Pointer& pointer) {
  rapidjson::StringBuffer buffer;
  pointer.Stringify(buffer);
  return {buffer.GetString(), buffer.GetSize()};
}

std::string quoted(std::string_view text) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
  return {buffer.GetString(), buffer.GetSize()};
}

// A value as it stands in the seed, cut short when long.
std::string shown(const Value& value) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  value.Accept(writer);
  std::string text(buffer.GetString(), buffer.GetSize());
  if (text.size() > 60) text = text.substr(0, 57) + "...";
  return text;
}

bool isIdentifier(std::string_view name) {
  if (name.empty()) return false;
  for (char c : name) {
    const bool plain =
        (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
    if (!plain) return false;
  }
  return true;
}

// "campaigns.c1.widgets[2]" for the pointer /campaigns/c1/widgets/2 walked from `start`; the value
// reached is left in `reached` (nullptr when the pointer leaves the seed).
std::string pathOf(const Value& start, const Pointer& pointer, std::string path, const Value** reached = nullptr) {
  const Value* at = &start;
  for (size_t i = 0; i < pointer.GetTokenCount(); ++i) {
    const Pointer::Token& token = pointer.GetTokens()[i];
    const std::string_view name(token.name, token.length);
    if (at && at->IsArray() && token.index != rapidjson::kPointerInvalidIndex) {
      path += "[" + std::to_string(token.index) + "]";
      at = token.index < at->Size() ? &(*at)[token.index] : nullptr;
      continue;
    }
    path += isIdentifier(name) ? (path.empty() ? "" : ".") + std::string(name) : "[" + quoted(name) + "]";
    const Value* next = nullptr;
    if (at && at->IsObject()) {
      const auto member = at->FindMember(Value(rapidjson::StringRef(token.name, token.length)));
      if (member != at->MemberEnd()) next = &member->value;
    }
    at = next;
  }
  if (reached) *reached = at;
  return path;
}

const Value* member(const Value& object, const char* key) {
  if (!object.IsObject()) return nullptr;
  const auto it = object.FindMember(key);
  return it == object.MemberEnd() ? nullptr : &it->value;
}

// A schema node with its local reference followed; `pointer` follows along.
const Value* resolved(const Value* node, std::string& pointer) {
  for (int hops = 0; node && hops < 8; ++hops) {
    const Value* ref = member(*node, "$ref");
    if (!ref || !ref->IsString() || ref->GetString()[0] != '#') break;
    pointer = ref->GetString() + 1;
    node = Pointer(pointer.c_str()).Get(seedSchema().source);
  }
  return node;
}

std::string joined(const Value& list, bool quote, const char* separator) {
  std::string out;
  for (const Value& item : list.GetArray()) {
    if (!out.empty()) out += separator;
    out += quote || !item.IsString() ? shown(item) : std::string(item.GetString(), item.GetStringLength());
  }
  return out;
}

std::string typesOf(const Value& schema) {
  const Value* type = member(schema, "type");
  if (!type) return "any";
  if (type->IsString()) return type->GetString();
  return type->IsArray() ? joined(*type, false, " or ") : "any";
}

bool hasType(const Value& value, std::string_view type) {
  if (type == "object") return value.IsObject();
  if (type == "array") return value.IsArray();
  if (type == "string") return value.IsString();
  if (type == "boolean") return value.IsBool();
  if (type == "null") return value.IsNull();
  if (type == "number") return value.IsNumber();
  if (type == "integer") return value.IsInt64() || value.IsUint64();
  return false;
}

bool matchesType(const Value& value, const Value& schema) {
  const Value* type = member(schema, "type");
  if (!type) return true;
  if (type->IsString()) return hasType(value, type->GetString());
  if (!type->IsArray()) return true;
  for (const Value& t : type->GetArray()) {
    if (t.IsString() && hasType(value, t.GetString())) return true;
  }
  return false;
}

bool hasRequired(const Value& value, const Value& schema) {
  const Value* required = member(schema, "required");
  if (!required || !required->IsArray()) return true;
  for (const Value& key : required->GetArray()) {
    if (!value.IsObject() || !value.HasMember(key)) return false;
  }
  return true;
}

// "a campaign" for a schema titled "campaign", "an inbox message", ...
std::string named(const Value& schema, const char* otherwise) {
  const Value* title = member(schema, "title");
  if (!title || !title->IsString() || title->GetStringLength() == 0) return otherwise;
  const char first = title->GetString()[0];
  const bool vowel = first == 'a' || first == 'e' || first == 'i' || first == 'o' || first == 'u';
  return std::string(vowel ? "an " : "a ") + title->GetString();
}

std::string withDescription(std::string why, const Value& schema) {
  if (const Value* description = member(schema, "description"); description && description->IsString()) {
    why += " (" + std::string(description->GetString()) + ")";
  }
  return why;
}

struct Failure {
  std::string schemaPointer;
  std::string keyword;
  Pointer documentPointer;
};

std::optional<Failure> validate(const rapidjson::SchemaDocument& schema, const Value& value) {
  rapidjson::SchemaValidator validator(schema);
  if (value.Accept(validator)) return std::nullopt;
  const char* keyword = validator.GetInvalidSchemaKeyword();
  return Failure{pointerText(validator.GetInvalidSchemaPointer()), keyword ? keyword : "",
                 validator.GetInvalidDocumentPointer()};
}

std::string explain(const Value& start, const Failure& failure, const std::string& prefix, int depth);

// Among a failed anyOf's forms, the one the value was meant as: the first of its type whose
// required keys it has, else the first of its type. Its own failure says what is wrong.
std::string explainAlternatives(const Value& value, const Value& schema, const std::string& schemaPointer,
                                const std::string& keyword, const std::string& path, int depth) {
  const Value* forms = member(schema, keyword.c_str());
  if (!forms || !forms->IsArray() || forms->Empty() || depth > 16) {
    return path + ": " + shown(value) + " matches none of the allowed forms";
  }
  int ofType = -1;
  int meant = -1;
  std::string types;
  std::vector<std::string> pointers;
  for (rapidjson::SizeType i = 0; i < forms->Size(); ++i) {
    std::string pointer = schemaPointer + "/" + keyword + "/" + std::to_string(i);
    const Value* form = resolved(&(*forms)[i], pointer);
    pointers.push_back(pointer);
    if (!form) continue;
    types += (types.empty() ? "" : " or ") + typesOf(*form);
    if (!matchesType(value, *form)) continue;
    if (ofType < 0) ofType = static_cast<int>(i);
    if (meant < 0 && hasRequired(value, *form)) meant = static_cast<int>(i);
  }
  if (ofType < 0) return path + ": " + shown(value) + " is not of type " + types;
  const int chosen = meant >= 0 ? meant : ofType;
  const auto form = schemaAt(pointers[static_cast<size_t>(chosen)]);
  const std::optional<Failure> failure = validate(form->schema, value);
  if (!failure) return path + ": " + shown(value) + " matches more than one of the allowed forms";
  return explain(value, *failure, path, depth + 1);
}

std::string explain(const Value& start, const Failure& failure, const std::string& prefix, int depth) {
  const Value* value = nullptr;
  const std::string path = pathOf(start, failure.documentPointer, prefix, &value);
  const Value* schema = Pointer(failure.schemaPointer.c_str()).Get(seedSchema().source);
  const std::string& keyword = failure.keyword;
  const auto at = [&](const std::string& why) { return path.empty() ? why : path + ": " + why; };
  if (!schema || !value) return at("breaks the schema's \"" + keyword + "\"");

  if (keyword == "anyOf" || keyword == "oneOf") {
    return explainAlternatives(*value, *schema, failure.schemaPointer, keyword, path, depth);
  }
  if (keyword == "additionalProperties") {
    // The pointer names the unknown key itself.
    const size_t tokens = failure.documentPointer.GetTokenCount();
    const Pointer::Token& last = failure.documentPointer.GetTokens()[tokens - 1];
    const Pointer parent(failure.documentPointer.GetTokens(), tokens - 1);
    const std::string owner = pathOf(start, parent, prefix);
    std::string why = quoted({last.name, last.length}) + " is not a key of " + named(*schema, "this object");
    if (const Value* known = member(*schema, "properties"); known && known->IsObject()) {
      std::string keys;
      for (const auto& k : known->GetObject()) keys += (keys.empty() ? "" : ", ") + std::string(k.name.GetString());
      why += " (its keys: " + keys + ")";
    }
    return owner.empty() ? why : owner + ": " + why;
  }
  if (keyword == "required") {
    if (const Value* required = member(*schema, "required"); required && required->IsArray()) {
      for (const Value& key : required->GetArray()) {
        if (!value->IsObject() || !value->HasMember(key)) {
          return at(named(*schema, "this object") + " needs the key " + shown(key));
        }
      }
    }
  }
  if (keyword == "type") return at(shown(*value) + " is not of type " + typesOf(*schema));
  if (keyword == "enum") {
    if (const Value* allowed = member(*schema, "enum"); allowed && allowed->IsArray()) {
      return at(shown(*value) + " is not one of " + joined(*allowed, true, ", "));
    }
  }
  if (keyword == "minimum" || keyword == "maximum") {
    const Value* limit = member(*schema, keyword.c_str());
    const std::string side = keyword == "minimum" ? "less than the minimum " : "more than the maximum ";
    if (limit) return at(shown(*value) + " is " + side + shown(*limit));
  }
  if (keyword == "minLength") return at(shown(*value) + " is too short");
  if (keyword == "maxLength") return at(shown(*value) + " is too long");
  if (keyword == "pattern") {
    const Value* pattern = member(*schema, "pattern");
    return at(
        withDescription(shown(*value) + " does not match " + (pattern ? shown(*pattern) : "the pattern"), *schema));
  }
  if (keyword == "not") return at(withDescription(shown(*value) + " is not allowed here", *schema));
  return at(shown(*value) + " breaks the schema's \"" + keyword + "\"");
}

}  // namespace

std::optional<std::string> KOEmulatorSchema::check(const rapidjson::Value& seed) {
  const std::optional<Failure> failure = validate(seedSchema().schema, seed);
  if (!failure) return std::nullopt;
  return explain(seed, *failure, "", 0);
}
