// Writes the small seed corpora of the fuzz targets into <folder>/<target>/ with the record
// encoder the test suites use (run again after changing a target's input format):
//   build/fuzz/fuzz/fuzz_make_seeds fuzz/corpus

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/records.h"

namespace {

using namespace test_support;
std::filesystem::path folder;

struct Row {
  std::string path;
  ByteVector value, attrib = AttribRecord(false);
};

ByteVector operator+(ByteVector a, ByteVector const& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
ByteVector Text(std::string const& text) { return ByteVector(text.begin(), text.end()); }
ByteVector Cut(ByteVector bytes) {  // one byte short
  bytes.pop_back();
  return bytes;
}
// The attrib and value of a row as every target frames them: [attrib length][attrib]
// [value length, 2 bytes LE][value].
ByteVector Columns(Row const& r) {
  auto const n = r.value.size();
  return ByteVector{std::uint8_t(r.attrib.size())} + r.attrib +
         ByteVector{std::uint8_t(n), std::uint8_t(n >> 8)} + r.value;
}
// Records as fuzz_input.h reads them: [path length][path] before the columns.
ByteVector Frames(std::vector<Row> const& rows) {
  ByteVector out;
  for (auto const& r : rows)
    out = out + ByteVector{std::uint8_t(r.path.size())} + Text(r.path) + Columns(r);
  return out;
}

void Write(char const* target, std::string const& name, ByteVector const& bytes) {
  std::filesystem::create_directories(folder / target);
  std::ofstream(folder / target / name, std::ios::binary)
      .write(reinterpret_cast<char const*>(bytes.data()), std::streamsize(bytes.size()));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return std::fprintf(stderr, "usage: %s CORPUS_FOLDER\n", argv[0]), 2;
  folder = argv[1];
  char const* texts[] = {"network/port",
                         "net/3/name/",
                         "",
                         "a//b",
                         "0/x",
                         "a/65535/",
                         "a/65536",
                         "\xc3\xa9t\xc3\xa9/k\xff/",
                         "a%b",
                         "a/18446744073709551616"};
  for (int i = 0; i < 10; ++i) Write("path_text", "seed0" + std::to_string(i), Text(texts[i]));

  // The record target takes the path last and unframed.
  Row const records[] = {{"network/port/", ValueRecord(13, 8080)},
                         {"a/0/", StringRecord("hello"), AttribRecord(true)},
                         {"", ValueRecord(11, 0)},
                         {"s/", ValueRecord(10, 0)},
                         {"list/", ValueRecord(1, 3)},
                         {"x/", ValueRecord(16, 0), AttribRecord(false, 0x20000)},
                         {"short/", Cut(ValueRecord(5, 0xFFFE)), Cut(AttribRecord(false))},
                         {"big/", ValueRecord(10, ~0ull, 8, "abc")}};
  for (int i = 0; i < 8; ++i)
    Write("record", "seed0" + std::to_string(i), Columns(records[i]) + Text(records[i].path));

  // A small device tree in row order: maps, a list of 12 (10 and 11 before 2), scalars.
  std::vector<Row> tree = {{"", ValueRecord(2, 0)},
                           {"dev/", ValueRecord(2, 0)},
                           {"dev/fw/", StringRecord("1.4.2"), AttribRecord(true)},
                           {"dev/net/", ValueRecord(2, 0)},
                           {"dev/net/dns/", ValueRecord(1, 12)}};
  for (int i : {0, 1, 10, 11, 2, 3, 4, 5, 6, 7, 8, 9})
    tree.push_back(
        {"dev/net/dns/" + std::to_string(i) + "/", StringRecord("192.0.2." + std::to_string(i))});
  tree.insert(tree.end(), {{"dev/net/mtu/", ValueRecord(13, 1500)},
                           {"dev/net/on/", ValueRecord(3, 1)},
                           {"dev/t/", ValueRecord(9, 1714564800000000)},
                           {"dev/x/", ValueRecord(8, 0x3FF8000000000000)},
                           {"dev/y/", ValueRecord(11, 3, 8, std::string("\x00\xff\x01", 3))},
                           {"dev/z/", ValueRecord(0, 0)}});
  auto const rows = [&tree](std::initializer_list<int> at) {
    std::vector<Row> out;
    for (int i : at) out.push_back(tree[i]);
    return Frames(out);
  };
  Write("deserialize", "tree", Frames(tree));
  Write("deserialize", "subtree", Frames({tree.begin() + 3, tree.begin() + 19}));
  Write("deserialize", "jump", rows({0, 4}));
  Write("deserialize", "unrooted", rows({3, 1}));
  Write("deserialize", "scalar", Frames({{"a/b/", ValueRecord(7, 1ull << 63)}}));

  // Start-up: [flags][version length][version][records]; flags as startup_fuzzer.cpp reads them.
  Write("startup", "tree", ByteVector{0, 1} + Text("1") + Frames(tree));
  Write("startup", "wal", ByteVector{16, 0} + rows({0, 1, 2, 3, 4, 5}));
  Write("startup", "empty", ByteVector{0, 0});
  Write("startup", "version2", ByteVector{4, 1} + Text("2") + rows({0, 1, 2}));
  Write("startup", "textcolumns", ByteVector{8, 0} + rows({0, 1, 2}));
  Write("startup", "nometa", ByteVector{1, 0} + rows({0, 1, 2}));
  Write("startup", "noroot", ByteVector{0, 0} + rows({1, 2, 3, 4, 5, 6}));
  return 0;
}
