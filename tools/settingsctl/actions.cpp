#include "actions.h"

#include <fmt/format.h>

#include <functional>
#include <map>
#include <nlohmann/json.hpp>

#include "failure.h"
#include "import_tree.h"
#include "json_input.h"
#include "path_text.h"
#include "plain_json.h"
#include "report.h"
#include "session.h"
#include "tree_print.h"
#include "typed_json.h"
#include "value_text.h"
#include "verbs.h"

namespace settingsctl {
namespace {

namespace ix = uvc::index;
using settings_manager::Setting;

// VALUE without --type: JSON if it reads as JSON, with the plain defaults, else a string.
Value UntypedValue(std::string const& text) {
  auto const json = ParseJson(text, true);
  if (!json) return Value(text);
  return FromPlainJson(*json).value();
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
  if (!request.value) throw UsageFailure("give a VALUE, --type or --from");
  if (current != nullptr && !IsContainer(current->index()) && current->index() != ix::kNone)
    return ParseScalar(current->index(), *request.value);
  return UntypedValue(*request.value);
}

Setting ArgumentSetting(Request const& request, Setting const* current) {
  Setting setting;
  if (request.from) {
    try {
      setting = LoadDocument(*request.from).node;
    } catch (Failure const& failure) {
      throw Failure(failure.ExitStatus(), fmt::format("{}: {}", *request.from, failure.what()));
    }
  } else {
    setting = Setting(ArgumentValue(request, current));
  }
  if (request.readOnly) setting.attributes.readOnly = true;
  return setting;
}

void PrintJson(nlohmann::ordered_json const& json) { Print(JsonText(json) + '\n'); }

void PrintNode(Request const& request, uvc::Path const& path, Setting const& node) {
  if (request.style.json)
    PrintJson(ToPlainJson(node));
  else if (path.empty())
    Print(ChildrenText(node));
  else
    Print(TreeText(ShowPath(path), node));
}

void Outcome(Request const& request, uvc::Path const& path, std::string_view what) {
  PrintOutcome(request.style, ShowPath(path), what);
}

// Refuses to change `node` at `path` when it or anything below it is read-only.
void RefuseReadOnly(Request const& request, uvc::Path const& path, Setting const& node) {
  if (request.force) return;
  if (auto const marked = FirstReadOnly(node, path))
    throw Failure(status::kRefused, fmt::format("{} is read-only (--force {}s it anyway)",
                                                ShowPath(*marked), request.verb));
}

void Get(Session& session, Request const& request) {
  auto const path = ParsePath(request.path);
  auto const node = session.Read(path);
  if (request.style.json || IsContainer(node.index()))
    PrintNode(request, path, node);
  else if (node.index() != ix::kNone)  // none prints nothing at all, "" an empty line
    Print(ScalarText(node) + '\n');
}

void Ls(Session& session, Request const& request) {
  auto const path = ParsePath(request.path);
  auto const children = session.List(path);
  std::vector<ListedChild> listed;
  if (children) {
    for (auto const& child : *children)
      listed.push_back(
          {child.id.index() == 1 ? std::get<1>(child.id) : std::to_string(std::get<0>(child.id)),
           child.type, child.attributes.readOnly});
  } else {
    auto const node = session.Read(path);
    listed.push_back({ShowPath(path), node.index(), node.attributes.readOnly});
  }
  if (!request.style.json) {
    Print(ListingText(listed));
    return;
  }
  auto array = nlohmann::ordered_json::array();
  for (auto const& child : listed)
    array.push_back(
        {{"name", child.name}, {"type", TypeName(child.type)}, {"readOnly", child.readOnly}});
  PrintJson(array);
}

void Dump(Session& session, Request const& request) {
  auto const path = ParsePath(request.path);
  PrintNode(request, path, session.Read(path));
}

void Export(Session& session, Request const& request) {
  auto const path = ParsePath(request.path);
  Print(TypedDocumentText(path, session.Read(path)));
}

void Attr(Session& session, Request const& request) {
  auto const path = ParsePath(request.path);
  if (!request.readOnlyMark) {
    bool const mark = session.Read(path).attributes.readOnly;
    if (request.style.json)
      PrintJson({{"path", ShowPath(path)}, {"readOnly", mark}});
    else
      Print(fmt::format("read-only: {}\n", mark));
    return;
  }
  Outcome(request, path,
          session.SetAttributes(path, settings_manager::Attributes{*request.readOnlyMark})
              ? "changed"
              : "unchanged");
}

void Set(Session& session, Request const& request) {
  auto const path = ParsePath(request.path);
  session.Open();
  auto const current = session.Read(path);
  auto const value = ArgumentValue(request, &current);
  // Without --type a map stays a map and a list a list.
  if (!request.type && IsContainer(current.index()) && value.index() != current.index())
    throw Failure(status::kRefused,
                  fmt::format("it is {}, and '{}' is {}; --type {} changes its kind",
                              ATypeName(current.index()), *request.value, ATypeName(value.index()),
                              TypeName(value.index())));
  Setting const setting(value);
  CheckDepth(path, setting);
  Outcome(request, path, session.SetValue(path, value) ? "changed" : "unchanged");
}

void Create(Session& session, Request const& request) {
  auto const path = ParsePath(request.path);
  if (path.empty()) throw UsageFailure("the whole tree always exists; import replaces it");
  auto const setting = ArgumentSetting(request, nullptr);
  CheckDepth(path, setting);
  Outcome(request, path, session.Create(path, setting) ? "created" : "unchanged");
}

void Replace(Session& session, Request const& request) {
  auto const path = ParsePath(request.path);
  if (path.empty()) throw UsageFailure("import replaces the whole tree");
  session.Open();
  auto const current = session.Read(path);
  auto const setting = ArgumentSetting(request, request.type || request.from ? nullptr : &current);
  CheckDepth(path, setting);
  if (current != setting) RefuseReadOnly(request, path, current);
  Outcome(request, path, session.Replace(path, setting) ? "replaced" : "unchanged");
}

void Delete(Session& session, Request const& request) {
  auto const path = ParsePath(request.path);
  if (path.empty())
    throw UsageFailure("the whole tree cannot be deleted (importing {} empties it)");
  session.Open();
  RefuseReadOnly(request, path, session.Read(path));
  session.Delete(path);
  Outcome(request, path, "deleted");
}

void Import(Session& session, Request const& request) {
  auto document = LoadDocument(request.file);
  auto const target = request.at ? ParsePath(*request.at) : document.path.value_or(uvc::Path());
  CheckDepth(target, document.node);
  if (target.empty() && document.node.index() != ix::kMap)
    throw UsageFailure(fmt::format("the whole tree is a map, not {}; give --at PATH",
                                   ATypeName(document.node.index())));
  ImportOptions const options{request.merge, request.force};
  std::vector<ImportOutcome> outcomes;
  session.Edit([&](Setting& tree) { outcomes = ImportInto(tree, target, document.node, options); });
  for (auto const& [path, what] : outcomes) Outcome(request, path, what);
}

void Backup(Session& session, Request const& request) {
  CheckFile(request.file, "the backup", status::kBadInput);
  session.Backup(request.file);
  PrintOutcome(request.style, request.file, "written");
}

void Restore(Session& session, Request const& request) {
  Outcome(request, uvc::Path(), session.Restore(request.file) ? "restored" : "unchanged");
}

}  // namespace

void RunAction(Session& session, Request const& request) {
  static std::map<std::string, std::function<void(Session&, Request const&)>> const actions{
      {"get", Get},       {"ls", Ls},         {"dump", Dump},     {"export", Export},
      {"attr", Attr},     {"set", Set},       {"create", Create}, {"replace", Replace},
      {"delete", Delete}, {"import", Import}, {"backup", Backup}, {"restore", Restore}};
  auto const action = actions.find(request.verb);
  if (action == actions.end()) throw UsageFailure("no such verb");
  action->second(session, request);
}

}  // namespace settingsctl
