// A writer of the coherence suites: a manager on a database file running the commands read
// from standard input, one answer line each, written with one write(2):
//   coherence_writer DB TAG SEED  -> "ready"
//   random N                      -> N "ack ..." lines (coherence::Format), then "done"
//   sync                          -> coherence::Dump after taking in every change, then "end"
//   KIND PATH [VALUE]             -> "rc CODE" of coherence::Change

#include <unistd.h>

#include <iostream>
#include <sstream>

#include "coherence.h"

namespace {

void Say(std::string const& text) {
  if (::write(STDOUT_FILENO, text.data(), text.size()) != ssize_t(text.size())) std::_Exit(4);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  tern::logger::TernLogger::RootLogger().SetThreshold(tern::logger::LogLevel::Fatal);
  coherence::Client client;
  if (client.Open(argv[1]) != 0) return 3;
  std::mt19937_64 random(std::strtoull(argv[3], nullptr, 10));
  Say("ready\n");
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    std::string verb, path, value;
    words >> verb >> path >> value;
    if (verb == "random") {
      for (auto n = std::stoul(path); n > 0; --n)
        Say(coherence::Format(coherence::RandomChange(client, random, argv[2])) + "\n");
      Say("done\n");
    } else if (verb == "sync") {
      coherence::Sync(client);
      Say(coherence::Dump(client) + "end\n");
    } else {
      Say("rc " + std::to_string(coherence::Change(client, verb[0], path, value)) + "\n");
    }
  }
  return 0;
}
