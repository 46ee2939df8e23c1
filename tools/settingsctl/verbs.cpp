#include "verbs.h"

#include <fmt/format.h>

#include "actions.h"
#include "failure.h"
#include "value_text.h"

namespace settingsctl {
namespace {

CLI::App* Verb(CLI::App& app, Request& request, std::string const& name, std::string const& help) {
  auto* verb = app.add_subcommand(name, help);
  verb->callback([&request, name] { request.verb = name; });
  return verb;
}

void AddPath(CLI::App& verb, Request& request, bool required, std::string const& help) {
  verb.add_option("PATH", request.path, help)->required(required);
}

void AddValue(CLI::App& verb, Request& request, std::string const& help) {
  verb.add_option_function<std::string>(
      "VALUE", [&request](std::string const& v) { request.value = v; }, help);
}

CLI::Option* AddType(CLI::App& verb, Request& request, std::string const& help) {
  return verb
      .add_option_function<std::string>(
          "--type", [&request](std::string const& t) { request.type = t; }, help)
      ->check(CLI::IsMember(TypeNames()))
      ->type_name("TYPE");
}

void AddSettingOptions(CLI::App& verb, Request& request, char const* whose) {
  AddValue(verb, request, "the value (see --type)");
  AddType(verb, request, fmt::format("the type of VALUE; without it {}", whose));
  verb.add_flag("--read-only", request.readOnly, "mark the setting read-only");
  verb.add_option_function<std::string>(
          "--json", [&request](std::string const& f) { request.jsonIn = f; },
          "take the setting from a JSON file (typed or plain; - reads standard input)")
      ->type_name("FILE")
      ->excludes("VALUE")
      ->excludes("--type");
}

}  // namespace

void AddVerbs(CLI::App& app, Request& request, bool withWatch) {
  auto* get = Verb(app, request, "get", "print a value, or a subtree as a tree");
  AddPath(*get, request, true, "the setting");
  get->add_flag("--json", request.jsonOut, "print plain JSON");

  auto* set =
      Verb(app, request, "set", "change the value of a setting (refused for read-only ones)");
  AddPath(*set, request, true, "the setting");
  AddValue(*set, request, "the new value");
  set->get_option("VALUE")->required();
  AddType(*set, request, "the type of VALUE; without it the setting keeps its type");

  auto* create =
      Verb(app, request, "create", "create a setting or a subtree, and any missing maps above it");
  AddPath(*create, request, true, "the new setting");
  AddSettingOptions(*create, request, "VALUE is read as JSON if it is JSON, else as a string");

  auto* replace =
      Verb(app, request, "replace", "replace a whole setting: value, subtree and read-only mark");
  AddPath(*replace, request, true, "the setting");
  AddSettingOptions(*replace, request, "the setting keeps its type");

  auto* attr = Verb(app, request, "attr", "print or change the read-only mark of a setting");
  AddPath(*attr, request, true, "the setting");
  attr->add_option_function<bool>(
          "--read-only", [&request](bool mark) { request.readOnlyMark = mark; },
          "the new mark: true or false")
      ->type_name("BOOL");

  auto* del = Verb(app, request, "delete", "delete a setting and its subtree");
  AddPath(*del, request, true, "the setting");

  auto* dump = Verb(app, request, "dump", "print the tree, or the subtree at PATH");
  AddPath(*dump, request, false, "the subtree (default: the whole tree)");
  dump->add_flag("--json", request.jsonOut, "print plain JSON");

  auto* exportVerb =
      Verb(app, request, "export", "print the tree or a subtree in the typed JSON form");
  AddPath(*exportVerb, request, false, "the subtree (default: the whole tree)");

  auto* importVerb =
      Verb(app, request, "import", "create or replace settings from a typed or plain JSON file");
  importVerb->add_option("FILE", request.file, "the file; - reads standard input")->required();
  importVerb
      ->add_option_function<std::string>(
          "--at", [&request](std::string const& p) { request.at = p; },
          "where the node goes (default: where it was exported from; plain JSON: the top)")
      ->type_name("PATH");

  if (withWatch) {
    auto* watch =
        Verb(app, request, "watch", "run commands from standard input and print the change events");
    AddPath(*watch, request, false, "the subtree to watch (default: the whole tree)");
  }
}

int RunVerb(Session& session, Request const& request) {
  std::string const subject = request.verb == "import" ? request.file
                              : request.path.empty()   ? std::string("/")
                                                       : request.path;
  try {
    RunAction(session, request);
    return status::kOk;
  } catch (Failure const& failure) {
    fmt::print(stderr, "settingsctl: {} {}: {}\n", request.verb, subject, failure.what());
    return failure.ExitStatus();
  } catch (std::exception const& error) {
    fmt::print(stderr, "settingsctl: {} {}: {}\n", request.verb, subject, error.what());
    return status::kFailed;
  }
}

}  // namespace settingsctl
