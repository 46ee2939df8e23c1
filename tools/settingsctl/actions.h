#pragma once

namespace settingsctl {

class Session;
struct Request;

// Carries out one verb (anything but watch) and prints its output. Throws Failure; checks
// its input before it changes anything.
void RunAction(Session& session, Request const& request);

}  // namespace settingsctl
