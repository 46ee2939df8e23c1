#include "plain_json.h"

#include <fmt/format.h>

#include <limits>

#include "failure.h"
#include "path_text.h"
#include "value_text.h"

namespace settingsctl {

using settings_manager::Setting;

std::string Where(nlohmann::json::json_pointer const& where) {
  return where.empty() ? std::string("the top") : where.to_string();
}

Setting FromPlainJson(nlohmann::json const& json, nlohmann::json::json_pointer const& where) {
  using Type = nlohmann::json::value_t;
  switch (json.type()) {
    case Type::object: {
      Setting map(Value(std::in_place_index<uvc::index::kMap>));
      auto& children = std::get<uvc::index::kMap>(map);
      for (auto const& [key, child] : json.items()) {
        if (auto const problem = KeyProblem(key))
          throw UsageFailure(fmt::format("at {}: '{}': {}", Where(where), key, *problem));
        children.emplace(key, FromPlainJson(child, where / key));
      }
      return map;
    }
    case Type::array: {
      Setting list(Value(std::in_place_index<uvc::index::kList>));
      auto& children = std::get<uvc::index::kList>(list);
      for (std::size_t i = 0; i < json.size(); ++i)
        children.push_back(FromPlainJson(json[i], where / i));
      return list;
    }
    case Type::string:
      return Setting(json.get<std::string>());
    case Type::boolean:
      return Setting(json.get<bool>());
    case Type::number_integer:
      return Setting(json.get<std::int64_t>());
    case Type::number_unsigned: {
      auto const value = json.get<std::uint64_t>();
      if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
        return Setting(static_cast<std::int64_t>(value));
      return Setting(value);
    }
    case Type::number_float:
      return Setting(json.get<double>());
    case Type::null:
      return Setting();
    case Type::binary:
    case Type::discarded:
      break;
  }
  throw UsageFailure(fmt::format("at {}: a value JSON cannot hold", Where(where)));
}

nlohmann::ordered_json ToPlainJson(Setting const& setting) {
  namespace ix = uvc::index;
  switch (setting.index()) {
    case ix::kMap: {
      auto object = nlohmann::ordered_json::object();
      for (auto const& [key, child] : std::get<ix::kMap>(setting)) object[key] = ToPlainJson(child);
      return object;
    }
    case ix::kList: {
      auto array = nlohmann::ordered_json::array();
      for (auto const& child : std::get<ix::kList>(setting)) array.push_back(ToPlainJson(child));
      return array;
    }
    case ix::kNone:
      return nullptr;
    case ix::kTimestamp:
    case ix::kBytes:
      return ScalarText(setting);
    default:
      break;
  }
  return std::visit(
      [](auto const& value) -> nlohmann::ordered_json {
        using T = std::decay_t<decltype(value)>;
        if constexpr (std::is_arithmetic_v<T> || std::is_same_v<T, std::string>)
          return value;
        else
          return nullptr;
      },
      setting.value());
}

std::string JsonText(nlohmann::ordered_json const& json) {
  return json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace settingsctl
