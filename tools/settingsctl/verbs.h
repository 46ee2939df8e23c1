#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>
#include <vector>

#include "report.h"

namespace settingsctl {

class Session;

// One command as the command line or a line of `watch` gives it.
struct Request {
  std::string verb;
  std::string path;                  // PATH; empty where a verb's PATH is optional and left out
  std::optional<std::string> value;  // VALUE
  std::optional<std::string> type;   // --type
  bool readOnly = false;             // --read-only of create and replace
  std::optional<bool> readOnlyMark;  // --read-only=true|false of attr
  std::optional<std::string> from;   // --from FILE of create and replace
  std::string file;                  // FILE of import, backup and restore
  std::optional<std::string> at;     // --at of import
  bool merge = false;                // --merge of import
  bool force = false;                // --force of replace, delete and import
  std::string helpVerb;              // VERB of help
  bool listVerbs = false;            // --verbs of help
  Style style;                       // --json and -q of the command line
};

// A verb and what it does, in the order help lists them.
struct VerbInfo {
  char const* name;
  char const* summary;
};
std::vector<VerbInfo> const& Verbs();

// Adds the verbs to `app` as subcommands that fill `request`; `watch` only with
// `withWatch`.
void AddVerbs(CLI::App& app, Request& request, bool withWatch);

// Runs one verb (anything but watch and help): prints its output on standard output and
// a failure in one line on standard error ("settingsctl: set net/port: read-only (...)"),
// and returns the exit status.
int RunVerb(Session& session, Request const& request);

}  // namespace settingsctl
