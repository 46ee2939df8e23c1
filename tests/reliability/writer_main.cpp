// The writer that the crash test kills: `reliability_writer DB SEED FIRST COUNT` opens a
// manager on DB ("ready", or "open-failed CODE" and status 3) and makes the changes FIRST,
// FIRST + 1, ... of the stream of SEED, saying "ack INDEX RESULT" after each and "done" at
// the end. Each line goes out (std::endl flushes it) before the next change begins.

#include <cstdlib>
#include <iostream>
#include <string>

#include "reliability.h"

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  auto const Say = [](std::string const& line) { std::cout << line << std::endl; };
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
