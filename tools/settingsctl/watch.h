#pragma once

#include <istream>

namespace settingsctl {

class Session;
struct Request;

// The interactive session: subscribes to the subtree at the request's PATH (the whole
// tree without one), then runs the verbs read from `in`, one a line ("#" starts a
// comment, "exit" ends), and after each line prints the change events the library
// delivered for it:
//
//   event: network/port value
//
// or, with --json, {"event": "value", "path": "network/port"}. Returns 0, or the exit
// status of the last line that failed.
int Watch(Session& session, Request const& request, std::istream& in);

}  // namespace settingsctl
