// A writer process of the coherence tests: a manager on DB running one command a line,
// each answer written with one write(2) so that a kill never leaves half a line.
//   coherence_writer DB TAG SEED -> "ready"
//   random N  N random changes of keys every writer shares and of its own, each answered
//             "did RC" ("odd RC" if no store gives it); then "done OWN": what its own keys
//             must hold (as Client::Dump writes them)
//   sync      its tree (Client::Dump) after taking in every change
//   KIND KEY [VALUE] -> "rc CODE" of Client::Change

#include <unistd.h>

#include <iostream>
#include <map>
#include <random>
#include <set>
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
  std::string const tag = argv[2];
  std::mt19937_64 random(std::strtoull(argv[3], nullptr, 10));
  std::set<unsigned> const possible{0, 1, 0x8000004A, 0x8000004C, 0x8000004D, 0x80000066};
  std::map<std::string, std::string> own;  // value, then '!' when read-only
  Say("ready\n");
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    std::string verb, key, value;
    words >> verb >> key >> value;
    if (verb == "random") {
      for (auto n = std::stoul(key); n > 0; --n) {
        static char const* const shared[] = {"s/c0", "s/c1", "s/c2", "s/d0/x", "s/d1/x"};
        auto const pick = random() % 8;
        key = pick < 5 ? shared[pick] : "s/" + tag + "k" + std::to_string(pick - 5);
        char const kind = "cccvvvaad"[random() % 9];
        value = kind == 'a' ? std::to_string(random() % 2) : tag + ":" + std::to_string(random());
        int const rc = client.Change(kind, key, value);
        if (rc == 0 && pick >= 5) {
          auto& entry = own[key];
          entry =
              kind == 'a' ? entry.substr(0, entry.find('!')) + (value == "1" ? "!" : "") : value;
          if (kind == 'd') own.erase(key);
        }
        Say((possible.count(unsigned(rc)) ? "did " : "odd ") + std::to_string(rc) + "\n");
      }
      std::string state;
      for (auto const& [k, v] : own) state += k + "=" + v + ";";
      Say("done " + state + "\n");
    } else if (verb == "sync") {
      Say(client.Sync().Dump() + "\n");
    } else {
      Say("rc " + std::to_string(client.Change(verb[0], key, value)) + "\n");
    }
  }
  return 0;
}
