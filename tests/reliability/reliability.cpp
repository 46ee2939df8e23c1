#include "reliability.h"

#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <type_traits>
#include <utility>

#include "support/sqlite_file.h"

namespace reliability {
namespace {

namespace ix = uvc::index;
using Nodes = std::vector<std::pair<uvc::Path, Setting const*>>;

// Every node below `node`, which is at `at`, with its path.
void Walk(Setting const& node, uvc::Path at, Nodes& out) {
  if (!at.empty()) out.emplace_back(at, &node);
  at.emplace_back();  // each child's id in turn
  auto const* list = std::get_if<ix::kList>(&node);
  for (std::size_t i = 0; list != nullptr && i < list->size(); ++i)
    Walk((*list)[i], (at.back() = uvc::Id(std::in_place_index<0>, i), at), out);
  if (auto const* map = std::get_if<ix::kMap>(&node))
    for (auto const& [key, child] : *map) Walk(child, (at.back() = uvc::Id(key), at), out);
}

// The `pick`th of the types T, made from `bits`.
template <typename... T>
Setting OneOf(std::uint64_t pick, std::uint64_t bits) {
  Setting out;
  std::uint64_t i = 0;
  ((i++ == pick ? void(out = Setting(static_cast<T>(std::is_same_v<T, bool> ? bits & 1 : bits)))
                : void()),
   ...);
  return out;
}

}  // namespace

std::size_t Scaled(std::size_t base, std::size_t least) {
  char const* text = std::getenv("SM_RELIABILITY_SCALE");
  double const scale = text != nullptr ? std::atof(text) : kSanitizerBuild ? 0.25 : 1.0;
  return std::max(least, static_cast<std::size_t>(static_cast<double>(base) * scale));
}

std::uint64_t TestSeed(char const* suite) {
  char const* text = std::getenv("SM_RELIABILITY_SEED");
  std::uint64_t const seed = text ? std::strtoull(text, nullptr, 10) : std::random_device()();
  std::cout << "[ seed     ] " << suite << ": SM_RELIABILITY_SEED=" << seed << std::endl;
  return seed;
}

std::string ReadBytes(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Type changes are logged as errors, a refused file as fatal; the suites and the writer
// look at results, not at the log.
bool const quiet = (tern::logger::TernLogger::RootLogger().SetSink([](auto const&) {}), true);

Setting Restarted(std::string const& path) {
  Client client;
  EXPECT_EQ(client.Open(path), 0) << "a new manager refused " << path;
  return client.manager ? TreeOf(client) : Setting();
}

Setting TreeOf(Client& client) {
  Setting root;
  EXPECT_EQ(settings_manager::GetTree(*client.manager, root), 0);
  return root;
}

int Seed(Client& client, Setting const& root) {
  for (auto const& [key, node] : std::get<ix::kMap>(root))
    if (int rc = client.creator->CreateSetting(uvc::Path{key}, node); rc != 0) return rc;
  return 0;
}

std::string Values::Key() {
  // Keys that differ only in case or by a suffix, and non-ASCII bytes: the store must
  // never mix them up.
  static char const* const keys[] = {
      "a",     "b",   "c",    "d",   "e",  "ab", "A", "a.b", "\xC3\xA9t\xC3\xA9",
      "k\xFF", "mtu", "port", "dns", "x-y"};
  return keys[Below(std::size(keys))];
}

Setting Values::Scalar() {
  static double const special[] = {0.0,       -0.0,         1.5,      HUGE_VAL,
                                   -HUGE_VAL, std::nan(""), 4.9e-324, DBL_MAX};
  auto const bits = random(), kind = Below(14);
  double real = special[Below(8)];
  if (Chance(60)) std::memcpy(&real, &bits, sizeof real);
  std::string text;
  for (auto n = Below(Chance(5) ? 300 : 24); n > 0; --n)
    text += static_cast<char>(Chance(70) ? 'a' + Below(26) : Below(256));
  if (kind == 0) return Setting();
  if (kind == 1) return Setting(real);
  if (kind == 2) return Setting(tern::rtl::Timestamp(static_cast<std::int64_t>(bits)));
  if (kind == 3) return Setting(text);
  if (kind == 4) return Setting(std::vector<std::uint8_t>(text.begin(), text.end()));
  return OneOf<bool, std::int8_t, std::int16_t, std::int32_t, std::int64_t, std::uint8_t,
               std::uint16_t, std::uint32_t, std::uint64_t>(kind - 5, bits);
}

Setting Values::Tree(std::size_t budget, int depth) {
  bool const leaf = budget <= 1 || depth >= 4 || Chance(35), map = Chance(60);
  Setting node = leaf  ? Scalar()
                 : map ? Setting(test_support::Map())
                       : Setting(test_support::List());
  // A map has a child at least, a list may be empty.
  auto const children = leaf ? 0 : map + Below(std::min<std::size_t>(6, budget - map));
  for (std::size_t i = 0; i < children; ++i) {
    auto child = Tree(1 + Below((budget - 1) / children), depth + 1);
    map ? void(std::get<ix::kMap>(node).emplace(Key(), std::move(child)))
        : std::get<ix::kList>(node).push_back(std::move(child));
  }
  node.attributes.readOnly = Chance(8);
  return node;
}

int Apply(Op const& op, Client& client) {
  if (op.kind == Op::kCreate) return client.creator->CreateSetting(op.path, op.setting);
  if (op.kind == Op::kSetValue) return client.valueSetter->SetValue(op.path, op.setting.value());
  if (op.kind == Op::kSetSetting) return client.setter->SetSetting(op.path, op.setting);
  if (op.kind == Op::kSetAttribute) return client.setter->SetAttribute(op.path, op.attributes);
  return client.deleter->DeleteSetting(op.path);
}

Op Stream::Make(std::uint64_t index, Client& current) const {
  // Neighbouring indices give unrelated generators.
  std::seed_seq mixed{seed, seed >> 32, index, index >> 32};
  std::mt19937_64 random(mixed);
  Values v{random};
  Setting const root = TreeOf(current);
  Nodes nodes;
  Walk(root, {}, nodes);
  Op op;
  // A big tree shrinks: deletes of whole top-level settings win.
  bool const shrink = nodes.size() >= maxNodes && v.Chance(60);
  auto const roll = shrink ? 99 : v.Below(100);
  op.kind = nodes.empty() || roll < 26 ? Op::kCreate
            : roll < 46                ? Op::kSetValue
            : roll < 68                ? Op::kSetSetting
            : roll < 84                ? Op::kSetAttribute
                                       : Op::kDelete;
  if (op.kind == Op::kCreate) {
    // A new child of the root, of a map or of a list (at or past its end: the gap gets
    // None placeholders), now and then with missing map levels in between.
    Nodes parents = {{uvc::Path(), &root}};
    for (auto const& entry : nodes)
      if (entry.second->index() == ix::kMap || entry.second->index() == ix::kList)
        parents.push_back(entry);
    auto const& [path, parent] = v.Chance(20) ? parents[0] : parents[v.Below(parents.size())];
    op.path = path;
    if (auto const* list = std::get_if<ix::kList>(parent))
      op.path.emplace_back(std::in_place_index<0>, list->size() + v.Below(3));
    else
      op.path.emplace_back(std::in_place_index<1>, path.empty() ? kTopKeys[v.Below(5)] : v.Key());
    for (auto extra = v.Chance(25) ? 1 + v.Below(2) : 0; extra > 0; --extra)
      op.path.emplace_back(std::in_place_index<1>, v.Key());
    op.setting = v.Tree(1 + v.Below(v.Chance(10) ? 150 : 40));
    return op;
  }
  auto const& [path, node] = nodes[v.Below(nodes.size())];
  op.path = path;
  if (op.kind == Op::kSetValue) {
    op.setting = v.Chance(75) ? v.Scalar() : v.Tree(1 + v.Below(20));
    op.setting.attributes = {};
  } else if (op.kind == Op::kSetSetting) {
    op.setting = v.Tree(1 + v.Below(60));
  } else if (op.kind == Op::kSetAttribute) {
    op.attributes.readOnly = v.Chance(85) != node->attributes.readOnly;
  } else {
    if (shrink) op.path.resize(1);
    while (op.path.back().index() == 0) op.path.pop_back();  // the named node holding it
  }
  return op;
}

}  // namespace reliability
