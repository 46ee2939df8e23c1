#include "watch.h"

#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
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

// Prints the events the library's event thread delivers. While a command runs they are
// kept, so that they appear after the output of the command that caused them; while the
// session waits for input they are printed as they come (changes of other processes).
class EventQueue : public settings_manager::ISettingsUpdateObserver {
 public:
  explicit EventQueue(Style const& style) : style_(style) {}

  void Update(uvc::Path const& path, unsigned char kind) override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (idle_) {
      Print({path, kind});
      std::fflush(stdout);
      return;
    }
    events_.push_back({path, kind});
    delivered_.notify_all();
  }

  // Keeps the events from now on.
  void Busy() {
    std::lock_guard<std::mutex> lock(mutex_);
    idle_ = false;
  }

  // Prints the kept events once every path of `expected` is among them or `patience` has
  // passed, then prints events as they come; returns how many expected paths did not come.
  std::size_t Idle(std::set<uvc::Path> const& expected, std::chrono::milliseconds patience) {
    std::unique_lock<std::mutex> lock(mutex_);
    auto missing = [&] {
      std::size_t count = 0;
      for (auto const& path : expected)
        count += std::none_of(events_.begin(), events_.end(),
                              [&](Event const& event) { return event.path == path; });
      return count;
    };
    delivered_.wait_for(lock, patience, [&] { return missing() == 0; });
    std::size_t const notDelivered = missing();
    for (auto const& event : events_) Print(event);
    events_.clear();
    idle_ = true;
    return notDelivered;
  }

 private:
  void Print(Event const& event) const;

  Style const style_;

  std::mutex mutex_;
  std::condition_variable delivered_;
  std::deque<Event> events_;  // guarded by mutex_
  bool idle_ = false;         // guarded by mutex_
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

void EventQueue::Print(Event const& event) const {
  if (style_.json)
    settingsctl::Print(
        nlohmann::ordered_json{{"event", KindText(event.kind)}, {"path", ShowPath(event.path)}}
            .dump() +
        '\n');
  else
    settingsctl::Print(fmt::format("event: {} {}\n", ShowPath(event.path), KindText(event.kind)));
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
  auto const queue = std::make_shared<EventQueue>(request.style);
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
  // While the session waits for input, the changes of other processes print as they come.
  queue->Idle({}, std::chrono::milliseconds(0));
  for (;;) {
    if (interactive) Print("> ");
    std::fflush(stdout);
    if (!std::getline(in, line)) break;
    auto const start = line.find_first_not_of(" \t");
    if (start == std::string::npos || line[start] == '#') continue;
    if (line.substr(start, line.find_last_not_of(" \t") + 1 - start) == "exit") break;

    queue->Busy();
    if (int const lineStatus = RunLine(session, request.style, line); lineStatus != status::kOk)
      result = lineStatus;
    // Each change of a distinct path in the watched subtree is an event for us.
    std::set<uvc::Path> expected;
    for (auto& path : session.TakeChanges())
      if (IsWithin(path, watched)) expected.insert(std::move(path));
    if (auto const missing = queue->Idle(expected, kPatience); missing > 0)
      ReportFailure(request.style, "watch", std::string(),
                    Failure(status::kFailed,
                            fmt::format("{} event(s) not delivered in time", missing)));
  }
  queue->Busy();
  session.Unsubscribe(id);
  queue->Idle({}, std::chrono::milliseconds(0));
  std::fflush(stdout);
  return result;
}

}  // namespace settingsctl
