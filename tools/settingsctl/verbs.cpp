#include "verbs.h"

#include <fmt/format.h>

#include "actions.h"
#include "failure.h"
#include "value_text.h"

namespace settingsctl {
namespace {

std::string Summary(std::string const& name) {
  for (auto const& verb : Verbs())
    if (name == verb.name) return verb.summary;
  return std::string();
}

CLI::App* Verb(CLI::App& app, Request& request, std::string const& name) {
  auto* verb = app.add_subcommand(name, Summary(name));
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

void AddForce(CLI::App& verb, Request& request, char const* what) {
  verb.add_flag("--force", request.force, what);
}

void AddSettingOptions(CLI::App& verb, Request& request, char const* whose) {
  AddValue(verb, request, "the value (see --type)");
  AddType(verb, request, fmt::format("the type of VALUE; without it {}", whose));
  verb.add_flag("--read-only", request.readOnly, "mark the setting read-only");
  verb.add_option_function<std::string>(
          "--from", [&request](std::string const& f) { request.from = f; },
          "take the setting from a JSON file (typed or plain; - reads standard input)")
      ->type_name("FILE")
      ->excludes("VALUE")
      ->excludes("--type");
}

}  // namespace

std::vector<VerbInfo> const& Verbs() {
  static std::vector<VerbInfo> const verbs{
      {"get", "print a value, or a subtree as a tree (no PATH: the whole tree)"},
      {"ls", "list the children of a map or list with their types (no PATH: the top level)"},
      {"dump", "print the tree or a subtree, one node a line"},
      {"export", "print the tree or a subtree in the typed JSON form: a text backup"},
      {"attr", "print or change the read-only mark of a setting"},
      {"set", "change the value of a setting, keeping its type (refused for read-only ones)"},
      {"create", "create a setting or a subtree, and any missing maps above it"},
      {"replace", "replace a whole setting: value, subtree and read-only mark"},
      {"delete", "delete a setting and its subtree"},
      {"import", "replace the tree, or the subtree at --at, by a document, all or nothing"},
      {"backup", "copy the database to FILE while programs keep using it"},
      {"restore", "replace the whole tree by the content of a backup FILE, all or nothing"},
      {"watch", "run commands from standard input and print the change events"},
      {"help", "print the help of settingsctl or of one VERB"},
  };
  return verbs;
}

void AddVerbs(CLI::App& app, Request& request, bool withWatch) {
  auto* get = Verb(app, request, "get");
  AddPath(*get, request, false, "the setting (default: the whole tree)");

  auto* ls = Verb(app, request, "ls");
  AddPath(*ls, request, false, "the map or list (default: the top level)");

  auto* dump = Verb(app, request, "dump");
  AddPath(*dump, request, false, "the subtree (default: the whole tree)");

  auto* exportVerb = Verb(app, request, "export");
  AddPath(*exportVerb, request, false, "the subtree (default: the whole tree)");

  auto* attr = Verb(app, request, "attr");
  AddPath(*attr, request, true, "the setting");
  attr->add_option_function<bool>(
          "--read-only", [&request](bool mark) { request.readOnlyMark = mark; },
          "the new mark: true or false")
      ->type_name("BOOL");

  auto* set = Verb(app, request, "set");
  AddPath(*set, request, true, "the setting");
  AddValue(*set, request, "the new value");
  set->get_option("VALUE")->required();
  AddType(*set, request,
          "the type of VALUE; without it the setting keeps its type, and a map or list its kind");

  auto* create = Verb(app, request, "create");
  AddPath(*create, request, true, "the new setting");
  AddSettingOptions(*create, request, "VALUE is read as JSON if it is JSON, else as a string");

  auto* replace = Verb(app, request, "replace");
  AddPath(*replace, request, true, "the setting");
  AddSettingOptions(*replace, request, "the setting keeps its type");
  AddForce(*replace, request, "replace it even if it or something below it is read-only");

  auto* del = Verb(app, request, "delete");
  AddPath(*del, request, true, "the setting");
  AddForce(*del, request, "delete it even if it or something below it is read-only");

  auto* importVerb = Verb(app, request, "import");
  importVerb
      ->add_option("FILE", request.file,
                   "the document, typed or plain JSON; - reads standard input")
      ->required();
  importVerb
      ->add_option_function<std::string>(
          "--at", [&request](std::string const& p) { request.at = p; },
          "where the document goes (default: the path it was exported from; plain JSON: the "
          "whole tree)")
      ->type_name("PATH");
  importVerb->add_flag("--merge", request.merge,
                       "keep the settings the document does not name (maps merge key by key)");
  AddForce(*importVerb, request, "change read-only settings too");

  auto* backup = Verb(app, request, "backup");
  backup->add_option("FILE", request.file, "the copy; replaced when it exists")->required();

  auto* restore = Verb(app, request, "restore");
  restore->add_option("FILE", request.file, "a backup made by backup (any settings database)")
      ->required();

  if (withWatch) {
    auto* watch = Verb(app, request, "watch");
    AddPath(*watch, request, false, "the subtree to watch (default: the whole tree)");
  }

  auto* help = Verb(app, request, "help");
  help->add_option("VERB", request.helpVerb, "the verb to explain");
  help->add_flag("--verbs", request.listVerbs, "list the verbs, one a line");
}

int RunVerb(Session& session, Request const& request) {
  bool const fileVerb =
      request.verb == "import" || request.verb == "backup" || request.verb == "restore";
  std::string const subject = fileVerb ? request.file : request.path.empty() ? "/" : request.path;
  try {
    RunAction(session, request);
    return status::kOk;
  } catch (Failure const& failure) {
    ReportFailure(request.style, request.verb, subject, failure);
    return failure.ExitStatus();
  } catch (std::exception const& error) {
    ReportFailure(request.style, request.verb, subject, Failure(status::kFailed, error.what()));
    return status::kFailed;
  }
}

}  // namespace settingsctl
