// settingsctl: reads, changes, exports, imports, backs up and watches the settings of a
// libsettings_manager database from the command line, through the library's public API
// as any device program uses it.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>

#include "failure.h"
#include "report.h"
#include "session.h"
#include "settings_manager/product.h"
#include "verbs.h"
#include "watch.h"

#ifndef SETTINGSCTL_VERSION
#error "SETTINGSCTL_VERSION must name the tool's version"
#endif
#ifndef SETTINGSCTL_DEFAULT_DB
#error "SETTINGSCTL_DEFAULT_DB must name the default database"
#endif

namespace settingsctl {
namespace {

constexpr char kDatabaseVariable[] = "SETTINGSCTL_DB";

std::string Footer() {
  return fmt::format(
      "The database is --db FILE, else ${}, else {}. Verbs that only read never create it;\n"
      "changes create it when it is missing.\n"
      "Paths: keys separated by '/', list elements by their index: network/dns/0. '' and '/'\n"
      "name the whole tree.\n"
      "Exit status: 0 done (also when there was nothing to change), 1 any other failure (such\n"
      "as output that could not be written), 2 bad input (command line, path, value, type,\n"
      "document), 3 no such setting, 4 refused (read-only, a different setting is there, a\n"
      "change of type or kind), 5 the database is missing, not a regular file or unusable.\n"
      "'settingsctl help VERB' explains a verb; 'settingsctl help --verbs' lists them.",
      kDatabaseVariable, SETTINGSCTL_DEFAULT_DB);
}

bool IsVerb(std::string const& word) {
  for (auto const& verb : Verbs())
    if (word == verb.name) return true;
  return false;
}

// The first word of the command line that is no option nor an option's value, and the
// style of the command line, for failures found before it is parsed.
std::string FirstWord(int argc, char** argv, Style& style) {
  std::string word;
  for (int i = 1; i < argc; ++i) {
    std::string const arg = argv[i];
    style.json = style.json || arg == "--json";
    style.quiet = style.quiet || arg == "-q" || arg == "--quiet";
    if (arg == "--db")
      ++i;
    else if (word.empty() && (arg.empty() || arg.front() != '-'))
      word = arg;
  }
  return word;
}

Failure UnknownVerb(std::string const& verb) {
  return UsageFailure(fmt::format("unknown verb '{}' (settingsctl help --verbs lists them)", verb));
}

int Help(CLI::App& app, Request const& request) {
  if (request.listVerbs) {
    for (auto const& verb : Verbs()) Print(std::string(verb.name) + '\n');
  } else if (request.helpVerb.empty()) {
    // app.help() would explain the verb parsed last: help itself.
    Print(app.get_formatter()->make_help(&app, "settingsctl", CLI::AppFormatMode::Normal));
  } else if (IsVerb(request.helpVerb)) {
    Print(app.get_subcommand(request.helpVerb)->help("settingsctl"));
  } else {
    throw UnknownVerb(request.helpVerb);
  }
  return status::kOk;
}

int Run(int argc, char** argv, Style& style) {
  CLI::App app("Read, change, back up, restore and watch the settings of a device.", "settingsctl");
  app.set_version_flag(
      "--version", fmt::format("settingsctl {} (library: {})", SETTINGSCTL_VERSION, sdkProdName));
  app.require_subcommand(0, 1);
  app.fallthrough();  // global options may follow the verb

  std::string database;
  bool memory = false;
  bool verbose = false;
  Request request;
  auto* dbOption = app.add_option("--db", database,
                                  fmt::format("the settings database (default: ${}, else {})",
                                              kDatabaseVariable, SETTINGSCTL_DEFAULT_DB))
                       ->type_name("FILE");
  app.add_flag("--memory", memory, "work on an empty tree in memory, without a database")
      ->excludes(dbOption);
  app.add_flag("--json", request.style.json, "JSON output, and errors as JSON lines");
  app.add_flag("-q,--quiet", request.style.quiet,
               "print only the data asked for: no outcome and no error lines");
  app.add_flag("-v,--verbose", verbose,
               "show the library's log records on standard error: info and above, or the "
               "level SETTINGS_MANAGER_LOG_LEVEL names");
  AddVerbs(app, request, true);
  app.footer(Footer());  // after the verbs, which would inherit it

  Style early;
  auto const word = FirstWord(argc, argv, early);
  try {
    if (!word.empty() && !IsVerb(word)) {
      request.style = early;
      throw UnknownVerb(word);
    }
    app.parse(argc, argv);
  } catch (CLI::Success const& done) {
    return app.exit(done);  // --help, --version
  } catch (CLI::ParseError const& error) {
    ReportFailure(request.style, request.verb, std::string(), UsageFailure(error.what()));
    return status::kBadInput;
  } catch (Failure const& failure) {
    ReportFailure(request.style, std::string(), std::string(), failure);
    return failure.ExitStatus();
  }
  ShowLibraryRecords(verbose);
  style = request.style;

  if (request.verb.empty())
    throw UsageFailure("no verb given (settingsctl help --verbs lists them)");
  if (request.verb == "help") return Help(app, request);
  std::string dbPath;
  if (dbOption->count() > 0) {
    if (database.empty())
      throw UsageFailure("--db: an empty path names no database (--memory works without one)");
    dbPath = database;
  } else if (char const* fromEnvironment = std::getenv(kDatabaseVariable);
             !memory && fromEnvironment != nullptr && *fromEnvironment != '\0') {
    dbPath = fromEnvironment;
  } else if (!memory) {
    dbPath = SETTINGSCTL_DEFAULT_DB;
  }
  Session session(dbPath);
  if (request.verb == "watch") return Watch(session, request, std::cin);
  return RunVerb(session, request);
}

}  // namespace
}  // namespace settingsctl

int main(int argc, char** argv) {
  using namespace settingsctl;
  int result = status::kFailed;
  Style style;
  try {
    result = Run(argc, argv, style);
  } catch (Failure const& failure) {
    ReportFailure(style, std::string(), std::string(), failure);
    result = failure.ExitStatus();
  }
  try {
    FinishOutput();
  } catch (Failure const& failure) {
    ReportFailure(style, std::string(), std::string(), failure);
    if (result == status::kOk) result = failure.ExitStatus();
  }
  return result;
}
