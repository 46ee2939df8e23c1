#pragma once

#include <istream>
#include <string>

namespace settingsctl {

class Session;

// The interactive session: subscribes to the subtree at `pathText` ("" for the whole
// tree), then runs the verbs read from `in`, one a line ("#" starts a comment, "exit"
// ends), and after each line prints the change events the library delivered for it:
//
//   event: network/port value
//
// Returns 0, or the exit status of the last line that failed.
int Watch(Session& session, std::string const& pathText, std::istream& in);

}  // namespace settingsctl
