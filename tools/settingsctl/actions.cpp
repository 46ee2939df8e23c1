#include "actions.h"

#include <fmt/format.h>

#include <functional>
#include <map>
#include <nlohmann/json.hpp>

#include "failure.h"
#include "json_input.h"
#include "path_text.h"
#include "plain_json.h"
#include "session.h"
#include "tree_print.h"
#include "typed_json.h"
#include "value_text.h"
#include "verbs.h"

namespace settingsctl {
namespace {

namespace ix = uvc::index;
using settings_manager::Setting;

void Outcome(uvc::Path const& path, char const* what) {
  fmt::print("{} {}\n", ShowPath(path), what);
}

// VALUE without --type: JSON if it reads as JSON, with the plain defaults, else a string.
Value UntypedValue(std::string const& text) {
  auto const json = nlohmann::json::parse(text, nullptr, false);
  if (json.is_discarded()) return Value(text);
  return FromPlainJson(json).value();
}

Value TypedValue(std::size_t type, std::optional<std::string> const& text) {
  if (IsContainer(type)) {
    Value empty = type == ix::kList ? Value(std::in_place_index<ix::kList>)
                                    : Value(std::in_place_index<ix::kMap>);
    if (!text) return empty;
    auto value = UntypedValue(*text);
    if (value.index() != type)
      throw UsageFailure(
          fmt::format("'{}' is not a JSON {}", *text, type == ix::kList ? "array" : "object"));
    return value;
  }
  if (!text && type != ix::kNone)
    throw UsageFailure(fmt::format("{} needs a VALUE", ATypeName(type)));
  return ParseScalar(type, text.value_or(""));
}

// The value of VALUE and --type; without --type a `current` scalar keeps its type.
Value ArgumentValue(Request const& request, Setting const* current) {
  if (request.type) return TypedValue(*TypeIndex(*request.type), request.value);
  if (!request.value) throw UsageFailure("give a VALUE, --type or --json");
  if (current != nullptr && !IsContainer(current->index()) && current->index() != ix::kNone)
    return ParseScalar(current->index(), *request.value);
  return UntypedValue(*request.value);
}

Setting ArgumentSetting(Request const& request, Setting const* current) {
  Setting setting;
  if (request.jsonIn) {
    try {
      setting = LoadDocument(*request.jsonIn).node;
    } catch (Failure const& failure) {
      throw Failure(failure.ExitStatus(), fmt::format("{}: {}", *request.jsonIn, failure.what()));
    }
  } else {
    setting = Setting(ArgumentValue(request, current));
  }
  if (request.readOnly) setting.attributes.readOnly = true;
  return setting;
}

void PrintNode(uvc::Path const& path, Setting const& node, bool json) {
  if (json)
    fmt::print("{}\n", JsonText(ToPlainJson(node)));
  else if (path.empty())
    fmt::print("{}", ChildrenText(node));
  else
    fmt::print("{}", TreeText(ShowPath(path), node));
}

void Get(Session& session, Request const& request) {
  auto const path = ParsePath(request.path);
  auto const node = session.Get(path);
  if (!request.jsonOut && !IsContainer(node.index()))
    fmt::print("{}\n", ScalarText(node));
  else
    PrintNode(path, node, request.jsonOut);
}

void Dump(Session& session, Request const& request) {
  auto const path = ParsePath(request.path);
  PrintNode(path, session.Get(path), request.jsonOut);
}

void Set(Session& session, Request const& request) {
  auto const path = ParsePath(request.path);
  std::optional<Setting> current;
  if (!request.type) current = session.Get(path);
  auto const value = ArgumentValue(request, current ? &*current : nullptr);
  Outcome(path, session.SetValue(path, value) ? "changed" : "unchanged");
}

void Create(Session& session, Request const& request) {
  auto const path = ParsePath(request.path);
  auto const setting = ArgumentSetting(request, nullptr);
  Outcome(path, session.Create(path, setting) ? "created" : "unchanged");
}

void Replace(Session& session, Request const& request) {
  auto const path = ParsePath(request.path);
  std::optional<Setting> current;
  if (!request.type && !request.jsonIn) current = session.Get(path);
  auto const setting = ArgumentSetting(request, current ? &*current : nullptr);
  Outcome(path, session.Replace(path, setting) ? "replaced" : "unchanged");
}

void Attr(Session& session, Request const& request) {
  auto const path = ParsePath(request.path);
  if (!request.readOnlyMark) {
    fmt::print("read-only: {}\n", session.GetAttributes(path).readOnly);
    return;
  }
  Outcome(path, session.SetAttributes(path, settings_manager::Attributes{*request.readOnlyMark})
                    ? "changed"
                    : "unchanged");
}

void Delete(Session& session, Request const& request) {
  auto const path = ParsePath(request.path);
  session.Delete(path);
  Outcome(path, "deleted");
}

void Export(Session& session, Request const& request) {
  auto const path = ParsePath(request.path);
  fmt::print("{}", TypedDocumentText(path, session.Get(path)));
}

// One setting an import writes, and what was there before it (to undo a partial import).
struct ImportItem {
  uvc::Path path;
  Setting setting;
  std::optional<Setting> before;
};

void Undo(Session& session, std::vector<ImportItem> const& done) {
  for (auto it = done.rbegin(); it != done.rend(); ++it) {
    try {
      if (it->before)
        session.Replace(it->path, *it->before);
      else
        session.Delete(it->path);
    } catch (Failure const& failure) {
      fmt::print(stderr, "settingsctl: import: could not undo {}: {}\n", ShowPath(it->path),
                 failure.what());
    }
  }
}

void Import(Session& session, Request const& request) {
  auto document = LoadDocument(request.file);
  auto const target = request.at ? ParsePath(*request.at) : document.path.value_or(uvc::Path());
  std::vector<ImportItem> items;
  if (!target.empty()) {
    items.push_back({target, std::move(document.node), std::nullopt});
  } else {
    // The whole tree: each top-level setting on its own, as the root cannot be written.
    auto* map = std::get_if<ix::kMap>(&document.node);
    if (map == nullptr)
      throw UsageFailure(fmt::format("the whole tree is a map, not a {}; give --at PATH",
                                     TypeName(document.node.index())));
    for (auto& [key, child] : *map)
      items.push_back(
          {uvc::Path{uvc::Id(std::in_place_index<1>, key)}, std::move(child), std::nullopt});
  }
  for (auto& item : items) item.before = session.Find(item.path);

  // Outcomes are printed once all of them stand.
  std::vector<std::pair<uvc::Path, char const*>> outcomes;
  std::vector<ImportItem> done;
  for (auto& item : items) {
    try {
      bool const changed = item.before ? session.Replace(item.path, item.setting)
                                       : session.Create(item.path, item.setting);
      outcomes.emplace_back(item.path, !changed      ? "unchanged"
                                       : item.before ? "replaced"
                                                     : "created");
      if (changed) done.push_back(std::move(item));
    } catch (Failure const& failure) {
      Undo(session, done);
      throw Failure(failure.ExitStatus(),
                    fmt::format("{}: {}", ShowPath(item.path), failure.what()));
    }
  }
  for (auto const& [path, what] : outcomes) Outcome(path, what);
}

}  // namespace

void RunAction(Session& session, Request const& request) {
  static std::map<std::string, std::function<void(Session&, Request const&)>> const actions{
      {"get", Get},       {"set", Set},   {"create", Create}, {"replace", Replace}, {"attr", Attr},
      {"delete", Delete}, {"dump", Dump}, {"export", Export}, {"import", Import}};
  auto const action = actions.find(request.verb);
  if (action == actions.end()) throw UsageFailure("no such command");
  action->second(session, request);
}

}  // namespace settingsctl
