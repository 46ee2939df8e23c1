// The writer that the crash test kills: it opens a manager on a database file and makes
// the changes FIRST, FIRST + 1, ... of the stream of SEED, telling after each one on
// standard output that the call returned and what it returned:
//
//   reliability_writer DB SEED FIRST COUNT
//   ready                    the manager is open
//   ack INDEX RESULT         change INDEX returned RESULT (decimal)
//   done                     all COUNT changes made
//   open-failed CODE         the manager could not be made (exit status 3)
//
// Each line is written with one write(2), so the line of a change is out before the next
// change begins.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "stream.h"
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

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "usage: %s DB SEED FIRST COUNT\n", argv[0]);
    return 2;
  }
  // Type changes are logged as errors; only a failure to start matters here.
  tern::logger::TernLogger::RootLogger().SetThreshold(tern::logger::LogLevel::Fatal);
  std::uint64_t const seed = std::strtoull(argv[2], nullptr, 10);
  std::uint64_t const first = std::strtoull(argv[3], nullptr, 10);
  std::uint64_t const count = std::strtoull(argv[4], nullptr, 10);

  reliability::Client client;
  if (int rc = client.Open(argv[1]); rc != 0) {
    Say("open-failed " + std::to_string(rc));
    return 3;
  }
  Say("ready");
  reliability::Stream const stream(seed);
  for (std::uint64_t i = first; i < first + count; ++i) {
    auto const op = stream.Make(i, *client.getter);
    int const rc = reliability::Apply(op, client);
    Say("ack " + std::to_string(i) + " " + std::to_string(rc));
  }
  Say("done");
  return 0;
}
