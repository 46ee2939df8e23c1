#include "typed_json.h"

#include <fmt/format.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "failure.h"
#include "path_text.h"
#include "plain_json.h"
#include "value_text.h"

namespace settingsctl {
namespace {

namespace ix = uvc::index;
using settings_manager::Setting;
using Json = nlohmann::json;
using Pointer = Json::json_pointer;

constexpr std::uint64_t kQuietNan = 0x7ff8000000000000u;

[[noreturn]] void Fail(Pointer const& where, std::string const& what) {
  throw UsageFailure(fmt::format("at {}: {}", Where(where), what));
}

std::uint64_t Bits(double value) {
  std::uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

double FromBits(std::uint64_t bits) {
  double value = 0;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

nlohmann::ordered_json DoubleJson(double value) {
  if (std::isfinite(value)) return value;
  if (std::isinf(value)) return value > 0 ? "inf" : "-inf";
  auto const bits = Bits(value);
  return bits == kQuietNan ? std::string("nan") : fmt::format("nan:0x{:016x}", bits);
}

double DoubleFrom(Json const& value, Pointer const& where) {
  if (value.is_number()) return value.get<double>();
  if (value.is_string()) {
    auto const text = value.get<std::string>();
    if (text == "inf") return std::numeric_limits<double>::infinity();
    if (text == "-inf") return -std::numeric_limits<double>::infinity();
    if (text == "nan") return FromBits(kQuietNan);
    std::uint64_t bits = 0;
    if (text.rfind("nan:0x", 0) == 0 && text.size() == 22) {
      if (auto const digits = ParseHex(text.substr(6))) {
        for (auto byte : *digits) bits = bits << 8 | byte;
        if (std::isnan(FromBits(bits))) return FromBits(bits);
      }
    }
  }
  Fail(where, "a double is a JSON number or \"inf\", \"-inf\", \"nan\", \"nan:0x<16 hex digits>\"");
}

template <typename T>
T IntegerFrom(Json const& value, Pointer const& where) {
  if (value.is_number_unsigned()) {
    auto const number = value.get<std::uint64_t>();
    if (number <= static_cast<std::uint64_t>(std::numeric_limits<T>::max()))
      return static_cast<T>(number);
  } else if (value.is_number_integer()) {
    auto const number = value.get<std::int64_t>();
    if constexpr (std::is_signed_v<T>)
      if (number >= std::numeric_limits<T>::min() && number <= std::numeric_limits<T>::max())
        return static_cast<T>(number);
  } else {
    Fail(where, fmt::format("{} is a JSON integer", ATypeName(Setting(T{}).index())));
  }
  Fail(where,
       fmt::format("{} is out of range for {}", value.dump(), TypeName(Setting(T{}).index())));
}

std::string TextFrom(Json const& value, Pointer const& where, char const* what) {
  if (!value.is_string()) Fail(where, fmt::format("{} is JSON text", what));
  return value.get<std::string>();
}

Bytes HexFrom(Json const& value, Pointer const& where, char const* what) {
  auto bytes = ParseHex(TextFrom(value, where, what));
  if (!bytes) Fail(where, fmt::format("{} is an even number of hex digits", what));
  return std::move(*bytes);
}

bool IsUtf8(std::string const& text) {
  try {
    (void)Json(text).dump();
    return true;
  } catch (Json::type_error const&) {
    return false;
  }
}

Setting::Value ValueFrom(std::size_t type, Json const& node, Pointer const& where) {
  auto const found = node.find("value");
  bool const has = found != node.end();
  Json const& value = has ? *found : node;
  Pointer const at = where / "value";
  if (type == ix::kString && node.contains("hex")) {
    if (has) Fail(where, "a string has a \"value\" or a \"hex\", not both");
    auto bytes = HexFrom(node["hex"], where / "hex", "\"hex\"");
    return std::string(bytes.begin(), bytes.end());
  }
  if (!has && type != ix::kNone && !IsContainer(type))
    Fail(where, fmt::format("{} node needs a \"value\"", ATypeName(type)));
  switch (type) {
    case ix::kNone:
      if (has && !value.is_null()) Fail(at, "a none node has no value");
      return Setting::Value();
    case ix::kList: {
      Setting::Value list(std::in_place_index<ix::kList>);
      if (!has) return list;
      if (!value.is_array()) Fail(at, "a list's value is an array of nodes");
      for (std::size_t i = 0; i < value.size(); ++i)
        std::get<ix::kList>(list).push_back(FromTypedJson(value[i], at / i));
      return list;
    }
    case ix::kMap: {
      Setting::Value map(std::in_place_index<ix::kMap>);
      if (!has) return map;
      if (!value.is_object()) Fail(at, "a map's value is an object of nodes");
      for (auto const& [key, child] : value.items()) {
        if (auto const problem = KeyProblem(key)) Fail(at, fmt::format("'{}': {}", key, *problem));
        std::get<ix::kMap>(map).emplace(key, FromTypedJson(child, at / key));
      }
      return map;
    }
    case ix::kBool:
      if (!value.is_boolean()) Fail(at, "a bool is true or false");
      return value.get<bool>();
    case ix::kInt8:
      return IntegerFrom<std::int8_t>(value, at);
    case ix::kInt16:
      return IntegerFrom<std::int16_t>(value, at);
    case ix::kInt32:
      return IntegerFrom<std::int32_t>(value, at);
    case ix::kInt64:
      return IntegerFrom<std::int64_t>(value, at);
    case ix::kUint8:
      return IntegerFrom<std::uint8_t>(value, at);
    case ix::kUint16:
      return IntegerFrom<std::uint16_t>(value, at);
    case ix::kUint32:
      return IntegerFrom<std::uint32_t>(value, at);
    case ix::kUint64:
      return IntegerFrom<std::uint64_t>(value, at);
    case ix::kDouble:
      return DoubleFrom(value, at);
    case ix::kTimestamp: {
      if (value.is_number_integer())
        return tern::rtl::Timestamp(IntegerFrom<std::int64_t>(value, at));
      auto const stamp =
          value.is_string() ? ParseTimestamp(value.get<std::string>()) : std::nullopt;
      if (!stamp)
        Fail(at,
             "a timestamp is its microseconds since 1970 or text like \"2024-05-01T12:00:00Z\"");
      return *stamp;
    }
    case ix::kString:
      return TextFrom(value, at, "a string");
    case ix::kBytes:
      return HexFrom(value, at, "bytes");
    default:
      break;
  }
  Fail(where, "unknown type");
}

}  // namespace

nlohmann::ordered_json ToTypedJson(Setting const& node) {
  auto json = nlohmann::ordered_json::object();
  json["type"] = TypeName(node.index());
  switch (node.index()) {
    case ix::kNone:
      break;
    case ix::kList: {
      auto& children = json["value"] = nlohmann::ordered_json::array();
      for (auto const& child : std::get<ix::kList>(node)) children.push_back(ToTypedJson(child));
      break;
    }
    case ix::kMap: {
      auto& children = json["value"] = nlohmann::ordered_json::object();
      for (auto const& [key, child] : std::get<ix::kMap>(node)) children[key] = ToTypedJson(child);
      break;
    }
    case ix::kDouble:
      json["value"] = DoubleJson(std::get<double>(node));
      break;
    case ix::kTimestamp:
      json["value"] = std::get<tern::rtl::Timestamp>(node).Microseconds();
      break;
    case ix::kString: {
      auto const& text = std::get<std::string>(node);
      if (IsUtf8(text))
        json["value"] = text;
      else
        json["hex"] = HexText(Bytes(text.begin(), text.end()));
      break;
    }
    case ix::kBytes:
      json["value"] = HexText(std::get<Bytes>(node));
      break;
    default:
      json["value"] = ToPlainJson(node);
      break;
  }
  if (node.attributes.readOnly) json["readOnly"] = true;
  return json;
}

std::string TypedDocumentText(uvc::Path const& path, Setting const& node) {
  nlohmann::ordered_json document;
  document["format"] = kTypedFormat;
  document["path"] = PathField(path);
  document["node"] = ToTypedJson(node);
  try {
    return document.dump(2) + '\n';
  } catch (nlohmann::ordered_json::type_error const&) {
    throw Failure(status::kFailed, "a key is not UTF-8 text, which JSON cannot hold");
  }
}

bool IsTypedDocument(Json const& json) {
  auto const format = json.is_object() ? json.find("format") : json.end();
  return json.is_object() && format != json.end() && *format == kTypedFormat;
}

TypedDocument FromTypedDocument(Json const& json) {
  Pointer const top;
  for (auto const& [key, value] : json.items())
    if (key != "format" && key != "path" && key != "node")
      Fail(top, fmt::format("unknown member \"{}\"", key));
  if (!json.contains("node")) Fail(top, "a typed document needs a \"node\"");
  TypedDocument document;
  if (json.contains("path")) {
    try {
      document.path = ParsePath(TextFrom(json["path"], top / "path", "\"path\""));
    } catch (Failure const& failure) {
      Fail(top / "path", failure.what());
    }
  }
  document.node = FromTypedJson(json["node"], top / "node");
  return document;
}

Setting FromTypedJson(Json const& json, Pointer const& where) {
  if (!json.is_object()) Fail(where, "a node is an object with a \"type\"");
  for (auto const& [key, value] : json.items())
    if (key != "type" && key != "value" && key != "readOnly" && key != "hex")
      Fail(where, fmt::format("unknown member \"{}\"", key));
  auto const type = json.find("type");
  if (type == json.end() || !type->is_string()) Fail(where, "a node needs a \"type\"");
  auto const index = TypeIndex(type->get<std::string>());
  if (!index) Fail(where / "type", fmt::format("unknown type \"{}\"", type->get<std::string>()));
  if (json.contains("hex") && *index != ix::kString) Fail(where, "only a string has a \"hex\"");
  settings_manager::Attributes attributes;
  if (auto const mark = json.find("readOnly"); mark != json.end()) {
    if (!mark->is_boolean()) Fail(where / "readOnly", "\"readOnly\" is true or false");
    attributes.readOnly = mark->get<bool>();
  }
  return Setting(ValueFrom(*index, json, where), attributes);
}

}  // namespace settingsctl
