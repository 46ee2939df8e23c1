#include "stream.h"

#include <cfloat>
#include <cmath>
#include <cstring>
#include <type_traits>
#include <utility>

namespace reliability {
namespace {

namespace ix = uvc::index;
using Nodes = std::vector<std::pair<uvc::Path, Setting const*>>;

std::uint64_t Mix(std::uint64_t seed, std::uint64_t index) {
  // splitmix64 of both: neighbouring indices give unrelated generators.
  std::uint64_t z = seed ^ (index + 0x9E3779B97F4A7C15ull) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

void Walk(Setting const& node, uvc::Path& at, Nodes& out) {
  if (!at.empty()) out.emplace_back(at, &node);
  if (auto const* map = std::get_if<ix::kMap>(&node)) {
    for (auto const& [key, child] : *map) {
      at.emplace_back(std::in_place_index<1>, key);
      Walk(child, at, out);
      at.pop_back();
    }
  } else if (auto const* list = std::get_if<ix::kList>(&node)) {
    for (std::size_t i = 0; i < list->size(); ++i) {
      at.emplace_back(std::in_place_index<0>, i);
      Walk((*list)[i], at, out);
      at.pop_back();
    }
  }
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

uvc::Path P(std::string const& text) {
  auto [path, state] = uvc::FromString(text, settings_manager::meta::GetIdSpecification());
  return state == uvc::IdState::Ok ? std::move(path) : uvc::Path();
}

std::string Text(uvc::Path const& path) { return settings_manager::PathToStr(path); }

std::vector<std::string> const& TopKeys() {
  static std::vector<std::string> const keys = {"sys", "net", "app", "user", "Net"};
  return keys;
}

Setting TreeOf(settings_manager::ISettingsGetter& getter, std::vector<std::string> const& keys) {
  Setting root;
  auto& map = root.emplace<ix::kMap>();
  for (auto const& key : keys) {
    Setting node;
    if (getter.GetSetting(uvc::Path{key}, node) == 0) map.emplace(key, std::move(node));
  }
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
  auto const bits = random_(), kind = Below(14);
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
  Setting node;
  if (budget <= 1 || depth >= 4 || Chance(35)) {
    node = Scalar();
  } else if (Chance(60)) {
    auto& map = node.emplace<ix::kMap>();
    auto const children = 1 + Below(std::min<std::size_t>(6, budget - 1));
    for (std::size_t i = 0; i < children; ++i)
      map.emplace(Key(), Tree(1 + Below((budget - 1) / children), depth + 1));
  } else {
    auto& list = node.emplace<ix::kList>();
    auto const children = Below(std::min<std::size_t>(6, budget));
    for (std::size_t i = 0; i < children; ++i)
      list.push_back(Tree(1 + Below((budget - 1) / children), depth + 1));
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

Op Stream::Make(std::uint64_t index, settings_manager::ISettingsGetter& current) const {
  std::mt19937_64 random(Mix(seed_, index));
  Values v(random);
  Setting const root = TreeOf(current);
  auto const& rootMap = std::get<ix::kMap>(root);
  Nodes nodes;
  uvc::Path at;
  Walk(root, at, nodes);
  auto const& top = TopKeys();
  Op op;
  // A big tree shrinks: deletes of whole top-level settings win.
  if (nodes.size() >= maxNodes_ && v.Chance(60)) {
    op.kind = Op::kDelete;
    op.path = {std::next(rootMap.begin(), static_cast<long>(v.Below(rootMap.size())))->first};
    return op;
  }
  auto const roll = v.Below(100);
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
      op.path.emplace_back(std::in_place_index<1>, path.empty() ? top[v.Below(5)] : v.Key());
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
    while (op.path.back().index() == 0) op.path.pop_back();  // the named node holding it
  }
  return op;
}

}  // namespace reliability
