// The writer that the crash test kills: `reliability_writer DB SEED FIRST COUNT` opens a
// manager on DB ("ready", or "open-failed CODE" and status 3) and makes the changes FIRST,
// FIRST + 1, ... of the stream of SEED, saying "ack INDEX RESULT" after each and "done" at
// the end. Each line goes out with one write(2) before the next change begins.

#include <unistd.h>

#include <cstdlib>
#include <string>

#include "reliability.h"

namespace {

void Say(std::string const& line) {
  std::string const text = line + "\n";
  if (::write(STDOUT_FILENO, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    std::_Exit(4);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  std::uint64_t const first = std::strtoull(argv[3], nullptr, 10);
  reliability::Client client;
  if (int rc = client.Open(argv[1]); rc != 0) return Say("open-failed " + std::to_string(rc)), 3;
  Say("ready");
  reliability::Stream const stream{std::strtoull(argv[2], nullptr, 10)};
  for (auto i = first; i < first + std::strtoull(argv[4], nullptr, 10); ++i)
    Say("ack " + std::to_string(i) + " " +
        std::to_string(reliability::Apply(stream.Make(i, client), client)));
  Say("done");
}
