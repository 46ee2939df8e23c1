#include "watch.h"

#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <set>
#include <sstream>

#include "failure.h"
#include "path_text.h"
#include "session.h"
#include "verbs.h"

namespace settingsctl {
namespace {

// A change event as the library delivered it.
struct Event {
  uvc::Path path;
  unsigned char kind;
};

// Keeps the events the library's event thread delivers until the session prints them, so
// that they appear after the output of the command that caused them.
class EventQueue : public settings_manager::ISettingsUpdateObserver {
 public:
  void Update(uvc::Path const& path, unsigned char kind) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      events_.push_back({path, kind});
    }
    delivered_.notify_all();
  }

  // The events delivered so far, once there are at least `count` of them or `patience`
  // has passed.
  std::deque<Event> Take(std::size_t count, std::chrono::milliseconds patience) {
    std::unique_lock<std::mutex> lock(mutex_);
    delivered_.wait_for(lock, patience, [&] { return events_.size() >= count; });
    return std::exchange(events_, {});
  }

 private:
  std::mutex mutex_;
  std::condition_variable delivered_;
  std::deque<Event> events_;  // guarded by mutex_
};

// Delivery is asynchronous but prompt; this bounds the wait should an event never come.
constexpr std::chrono::milliseconds kPatience{10000};

std::string KindText(unsigned char kind) {
  namespace event = settings_manager::event;
  switch (kind) {
    case event::kCreated:
      return "created";
    case event::kValue:
      return "value";
    case event::kAttributes:
      return "attributes";
    case event::kSetting:
      return "setting";
    case event::kDeleted:
      return "deleted";
    default:
      return fmt::format("0x{:02x}", kind);
  }
}

std::size_t PrintEvents(std::deque<Event> const& events) {
  for (auto const& event : events)
    fmt::print("event: {} {}\n", ShowPath(event.path), KindText(event.kind));
  return events.size();
}

// One line: its exit status, with its output printed.
int RunLine(Session& session, std::string const& line) {
  CLI::App app("Commands: get set create replace attr delete dump export import; exit ends.", "");
  app.require_subcommand(1);
  Request request;
  AddVerbs(app, request, false);
  std::string verb;
  std::istringstream(line) >> verb;
  if (verb == "help") {
    fmt::print("{}", app.help());
    return status::kOk;
  }
  try {
    if (verb.front() != '-') app.get_subcommand(verb);
  } catch (CLI::OptionNotFound const&) {
    fmt::print(stderr, "settingsctl: unknown command '{}' (help lists them)\n", verb);
    return status::kUsage;
  }
  try {
    app.parse(line, false);
  } catch (CLI::CallForHelp const&) {
    fmt::print("{}", app.help());
    return status::kOk;
  } catch (CLI::ParseError const& error) {
    fmt::print(stderr, "settingsctl: {}\n", error.what());
    return status::kUsage;
  }
  if (request.file == "-" || request.jsonIn == "-") {
    fmt::print(stderr, "settingsctl: {}: standard input carries the commands here\n", request.verb);
    return status::kUsage;
  }
  return RunVerb(session, request);
}

}  // namespace

int Watch(Session& session, std::string const& pathText, std::istream& in) {
  uvc::Path watched;
  auto const queue = std::make_shared<EventQueue>();
  settings_manager::SubscriptionId id{};
  try {
    watched = ParsePath(pathText);
    id = session.Subscribe(watched, queue);
  } catch (Failure const& failure) {
    fmt::print(stderr, "settingsctl: watch {}: {}\n", pathText.empty() ? "/" : pathText,
               failure.what());
    return failure.ExitStatus();
  }
  bool const interactive = isatty(STDIN_FILENO) == 1;
  if (interactive)
    fmt::print(stderr, "Watching {}. Enter commands (help lists them); end with exit or Ctrl-D.\n",
               watched.empty() ? std::string("the whole tree") : ShowPath(watched));

  int result = status::kOk;
  std::string line;
  for (;;) {
    if (interactive) fmt::print("> ");
    std::fflush(stdout);
    if (!std::getline(in, line)) break;
    auto const start = line.find_first_not_of(" \t");
    if (start == std::string::npos || line[start] == '#') continue;
    if (line.substr(start, line.find_last_not_of(" \t") + 1 - start) == "exit") break;

    if (int const lineStatus = RunLine(session, line); lineStatus != status::kOk)
      result = lineStatus;
    // Each change of a distinct path in the watched subtree is one event for us.
    std::set<uvc::Path> expected;
    for (auto& path : session.TakeChanges())
      if (IsWithin(path, watched)) expected.insert(std::move(path));
    auto const delivered = PrintEvents(queue->Take(expected.size(), kPatience));
    if (delivered < expected.size())
      fmt::print(stderr, "settingsctl: watch: {} event(s) not delivered in time\n",
                 expected.size() - delivered);
  }
  session.Unsubscribe(id);
  PrintEvents(queue->Take(0, std::chrono::milliseconds(0)));
  std::fflush(stdout);
  return result;
}

}  // namespace settingsctl
