// settingsctl: reads, changes, exports, imports and watches the settings of a
// libsettings_manager database from the command line, through the library's public API
// as any device program uses it.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <iostream>

#include "failure.h"
#include "session.h"
#include "settings_manager/product.h"
#include "verbs.h"
#include "watch.h"

int main(int argc, char** argv) {
  using namespace settingsctl;
  CLI::App app("Read, change, export, import and watch device settings.", "settingsctl");
  app.set_version_flag("--version", std::string(sdkProdName));
  app.require_subcommand(1);
  app.fallthrough();  // global options may follow the verb

  std::string database = "settings.db";
  bool memory = false;
  auto* dbOption = app.add_option("--db", database, "the settings database, created when missing")
                       ->capture_default_str()
                       ->type_name("FILE");
  app.add_flag("--memory", memory, "work on an empty tree in memory, without a database")
      ->excludes(dbOption);

  Request request;
  AddVerbs(app, request, true);
  try {
    app.parse(argc, argv);
  } catch (CLI::ParseError const& error) {
    return app.exit(error) == 0 ? status::kOk : status::kUsage;
  }

  try {
    Session session(memory ? std::string() : database);
    if (request.verb == "watch") return Watch(session, request.path, std::cin);
    return RunVerb(session, request);
  } catch (Failure const& failure) {
    fmt::print(stderr, "settingsctl: {}\n", failure.what());
    return failure.ExitStatus();
  }
}
