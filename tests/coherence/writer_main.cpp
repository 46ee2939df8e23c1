// A writer of the coherence suites: a manager on a database file that runs the commands
// given on standard input and answers each on standard output:
//
//   coherence_writer DB TAG SEED
//   ready                          the manager is open (or "open-failed CODE", status 3)
//   random N      -> N "ack ..." lines (coherence::Format), then "done"
//   sync          -> "tree" lines of the settings under s after taking in every change
//                    (coherence::Dump), then "end"
//   create|set|attr|delete PATH [VALUE] -> "rc CODE": one change (a value is a string;
//                    attr takes 0 or 1)
//   exit
//
// Each answer line is written with one write(2), so it is out before the next change.

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <sstream>

#include "load.h"
#include "tern/logger/tern_logger.h"

namespace {

void Say(std::string const& line) {
  std::string const text = line + "\n";
  std::size_t done = 0;
  while (done < text.size()) {
    auto const n = ::write(STDOUT_FILENO, text.data() + done, text.size() - done);
    if (n <= 0) std::_Exit(4);
    done += static_cast<std::size_t>(n);
  }
}

int One(coherence::Client& client, std::string const& verb, std::string const& path,
        std::string const& value) {
  auto const at = reliability::P(path);
  if (verb == "create") return client.creator->CreateSetting(at, settings_manager::Setting(value));
  if (verb == "set")
    return client.valueSetter->SetValue(at, settings_manager::Setting::Value(value));
  if (verb == "attr")
    return client.setter->SetAttribute(at, settings_manager::Attributes{value == "1"});
  return client.deleter->DeleteSetting(at);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s DB TAG SEED\n", argv[0]);
    return 2;
  }
  tern::logger::TernLogger::RootLogger().SetThreshold(tern::logger::LogLevel::Fatal);
  coherence::Client client;
  if (int rc = client.Open(argv[1]); rc != 0) {
    Say("open-failed " + std::to_string(rc));
    return 3;
  }
  coherence::Load load(argv[2], std::strtoull(argv[3], nullptr, 10));
  Say("ready");
  std::string line;
  while (std::getline(std::cin, line)) {
    std::istringstream words(line);
    std::string verb, path, value;
    words >> verb >> path >> value;
    if (verb == "random") {
      for (auto n = std::stoul(path); n > 0; --n) Say(coherence::Format(load.Next(client)));
      Say("done");
    } else if (verb == "sync") {
      coherence::Sync(client);
      std::istringstream tree(coherence::Dump(client));
      for (std::string node; std::getline(tree, node);) Say("tree " + node);
      Say("end");
    } else if (verb == "exit") {
      break;
    } else {
      Say("rc " + std::to_string(One(client, verb, path, value)));
    }
  }
  return 0;
}
