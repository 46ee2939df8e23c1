#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>

namespace settingsctl {

class Session;

// One command as the command line or a line of `watch` gives it.
struct Request {
  std::string verb;
  std::string path;                   // PATH; empty where a verb's PATH is optional and left out
  std::optional<std::string> value;   // VALUE
  std::optional<std::string> type;    // --type
  bool readOnly = false;              // --read-only of create and replace
  std::optional<bool> readOnlyMark;   // --read-only=true|false of attr
  std::optional<std::string> jsonIn;  // --json FILE of create and replace
  bool jsonOut = false;               // --json of get and dump
  std::string file;                   // FILE of import
  std::optional<std::string> at;      // --at of import
};

// Adds the verbs to `app` as subcommands that fill `request`; `watch` only with `withWatch`.
void AddVerbs(CLI::App& app, Request& request, bool withWatch);

// Runs one verb (anything but watch): prints its output on standard output and a failure
// in one line on standard error ("settingsctl: set net/port: read-only (...)"), and
// returns the exit status.
int RunVerb(Session& session, Request const& request);

}  // namespace settingsctl
