#include "watch.h"

#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "failure.h"
#include "path_text.h"
#include "report.h"
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

std::size_t PrintEvents(Style const& style, std::deque<Event> const& events) {
  for (auto const& event : events) {
    if (style.json)
      Print(nlohmann::ordered_json{{"event", KindText(event.kind)}, {"path", ShowPath(event.path)}}
                .dump() +
            '\n');
    else
      Print(fmt::format("event: {} {}\n", ShowPath(event.path), KindText(event.kind)));
  }
  return events.size();
}

// One line: its exit status, with its output printed.
int RunLine(Session& session, Style const& style, std::string const& line) {
  CLI::App app("Verbs of a watch session, one a line; exit ends.", "");
  app.require_subcommand(1);
  Request request;
  AddVerbs(app, request, false);
  request.style = style;
  std::string verb;
  std::istringstream(line) >> verb;
  try {
    if (verb == "help") {
      Print(app.help());
      return status::kOk;
    }
    try {
      if (verb.front() != '-') app.get_subcommand(verb);
    } catch (CLI::OptionNotFound const&) {
      throw UsageFailure(fmt::format("unknown verb '{}' (help lists them)", verb));
    }
    try {
      app.parse(line, false);
    } catch (CLI::CallForHelp const&) {
      Print(app.help());
      return status::kOk;
    } catch (CLI::ParseError const& error) {
      throw UsageFailure(error.what());
    }
    if (request.file == "-" || request.from == "-")
      throw UsageFailure("standard input carries the commands here");
  } catch (Failure const& failure) {
    ReportFailure(style, request.verb, std::string(), failure);
    return failure.ExitStatus();
  }
  return RunVerb(session, request);
}

}  // namespace

int Watch(Session& session, Request const& request, std::istream& in) {
  uvc::Path watched;
  auto const queue = std::make_shared<EventQueue>();
  settings_manager::SubscriptionId id{};
  try {
    watched = ParsePath(request.path);
    id = session.Subscribe(watched, queue);
  } catch (Failure const& failure) {
    ReportFailure(request.style, "watch", request.path.empty() ? "/" : request.path, failure);
    return failure.ExitStatus();
  }
  bool const interactive = isatty(STDIN_FILENO) == 1;
  if (interactive)
    std::fprintf(stderr,
                 "Watching %s. Enter commands (help lists them); end with exit or Ctrl-D.\n",
                 watched.empty() ? "the whole tree" : ShowPath(watched).c_str());

  int result = status::kOk;
  std::string line;
  for (;;) {
    if (interactive) Print("> ");
    std::fflush(stdout);
    if (!std::getline(in, line)) break;
    auto const start = line.find_first_not_of(" \t");
    if (start == std::string::npos || line[start] == '#') continue;
    if (line.substr(start, line.find_last_not_of(" \t") + 1 - start) == "exit") break;

    if (int const lineStatus = RunLine(session, request.style, line); lineStatus != status::kOk)
      result = lineStatus;
    // Each change of a distinct path in the watched subtree is one event for us.
    std::set<uvc::Path> expected;
    for (auto& path : session.TakeChanges())
      if (IsWithin(path, watched)) expected.insert(std::move(path));
    auto const delivered = PrintEvents(request.style, queue->Take(expected.size(), kPatience));
    if (delivered < expected.size())
      ReportFailure(request.style, "watch", std::string(),
                    Failure(status::kFailed, fmt::format("{} event(s) not delivered in time",
                                                         expected.size() - delivered)));
  }
  session.Unsubscribe(id);
  PrintEvents(request.style, queue->Take(0, std::chrono::milliseconds(0)));
  return result;
}

}  // namespace settingsctl
