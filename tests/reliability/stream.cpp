#include "stream.h"

#include <cstring>
#include <limits>
#include <utility>

namespace reliability {
namespace {

namespace ix = uvc::index;
using Map = std::map<std::string, Setting, std::less<>>;
using List = std::vector<Setting>;

std::uint64_t Mix(std::uint64_t seed, std::uint64_t index) {
  // splitmix64 of both: neighbouring indices give unrelated generators.
  std::uint64_t z = seed ^ (index + 0x9E3779B97F4A7C15ull) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

template <typename T>
std::uint64_t Bits(T value) {
  std::uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof value);
  return bits;
}

void Walk(Setting const& node, uvc::Path& at,
          std::vector<std::pair<uvc::Path, Setting const*>>& out) {
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

void DescribeInto(Setting const& s, std::string& out, std::size_t limit) {
  if (out.size() > limit) return;
  if (s.attributes.readOnly) out += '!';
  switch (s.index()) {
    case ix::kNone:
      out += "none";
      break;
    case ix::kList: {
      out += '[';
      for (auto const& child : std::get<ix::kList>(s)) {
        DescribeInto(child, out, limit);
        out += ',';
      }
      out += ']';
      break;
    }
    case ix::kMap: {
      out += '{';
      for (auto const& [key, child] : std::get<ix::kMap>(s)) {
        out += key + ':';
        DescribeInto(child, out, limit);
        out += ',';
      }
      out += '}';
      break;
    }
    case ix::kString:
      out += '"' + std::get<ix::kString>(s).substr(0, 16) + '"';
      break;
    case ix::kBytes:
      out += "bytes" + std::to_string(std::get<ix::kBytes>(s).size());
      break;
    case ix::kDouble:
      out += std::to_string(std::get<ix::kDouble>(s));
      break;
    default:
      out += '#' + std::to_string(s.index());
  }
}

}  // namespace

int Client::Open(std::string const& path) {
  Close();
  int const rc = settings_manager::CreateSettingsManager({path}, manager);
  if (rc != 0) return rc;
  manager->GetSettingsCreator(creator);
  manager->GetSettingsGetter(getter);
  manager->GetSettingsValueSetter(valueSetter);
  manager->GetSettingsSetter(setter);
  manager->GetSettingsDeleter(deleter);
  manager->GetSettingsUpdateSubscriber(subscriber);
  return 0;
}

void Client::Close() { *this = Client(); }

uvc::Path P(std::string const& text) {
  auto [path, state] = uvc::FromString(text, settings_manager::meta::GetIdSpecification());
  return state == uvc::IdState::Ok ? std::move(path) : uvc::Path();
}

std::string Text(uvc::Path const& path) { return settings_manager::PathToStr(path); }

bool Same(Setting const& a, Setting const& b) {
  if (a.index() != b.index() || a.attributes != b.attributes) return false;
  switch (a.index()) {
    case ix::kList: {
      auto const& x = std::get<ix::kList>(a);
      auto const& y = std::get<ix::kList>(b);
      if (x.size() != y.size()) return false;
      for (std::size_t i = 0; i < x.size(); ++i)
        if (!Same(x[i], y[i])) return false;
      return true;
    }
    case ix::kMap: {
      auto const& x = std::get<ix::kMap>(a);
      auto const& y = std::get<ix::kMap>(b);
      if (x.size() != y.size()) return false;
      for (auto i = x.begin(), j = y.begin(); i != x.end(); ++i, ++j)
        if (i->first != j->first || !Same(i->second, j->second)) return false;
      return true;
    }
    case ix::kDouble:
      return Bits(std::get<ix::kDouble>(a)) == Bits(std::get<ix::kDouble>(b));
    default:
      return a.value() == b.value();
  }
}

std::size_t CountNodes(Setting const& s) {
  std::size_t count = 1;
  if (auto const* list = std::get_if<ix::kList>(&s))
    for (auto const& child : *list) count += CountNodes(child);
  if (auto const* map = std::get_if<ix::kMap>(&s))
    for (auto const& entry : *map) count += CountNodes(entry.second);
  return count;
}

std::string Describe(Setting const& s, std::size_t limit) {
  std::string out;
  DescribeInto(s, out, limit);
  if (out.size() > limit) out = out.substr(0, limit) + "...";
  return out;
}

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
  return keys[Below(sizeof keys / sizeof keys[0])];
}

Setting Values::Scalar() {
  if (Chance(3)) return Setting();
  auto const bits = random_();
  switch (3 + Below(13)) {
    case ix::kBool:
      return Setting((bits & 1u) != 0);
    case ix::kInt8:
      return Setting(static_cast<std::int8_t>(bits));
    case ix::kInt16:
      return Setting(static_cast<std::int16_t>(bits));
    case ix::kInt32:
      return Setting(static_cast<std::int32_t>(bits));
    case ix::kInt64:
      return Setting(static_cast<std::int64_t>(bits));
    case ix::kDouble: {
      static double const special[] = {0.0,
                                       -0.0,
                                       1.5,
                                       std::numeric_limits<double>::infinity(),
                                       -std::numeric_limits<double>::infinity(),
                                       std::numeric_limits<double>::quiet_NaN(),
                                       std::numeric_limits<double>::denorm_min(),
                                       std::numeric_limits<double>::max()};
      if (Chance(40)) return Setting(special[Below(8)]);
      double value = 0;
      std::memcpy(&value, &bits, sizeof value);
      return Setting(value);
    }
    case ix::kTimestamp:
      return Setting(tern::rtl::Timestamp(static_cast<std::int64_t>(bits)));
    case ix::kString: {
      std::string text(Below(Chance(5) ? 300 : 24), '\0');
      for (auto& c : text) c = static_cast<char>(Chance(70) ? 'a' + Below(26) : Below(256));
      return Setting(std::move(text));
    }
    case ix::kBytes: {
      std::vector<std::uint8_t> bytes(Below(24));
      for (auto& b : bytes) b = static_cast<std::uint8_t>(random_());
      return Setting(std::move(bytes));
    }
    case ix::kUint8:
      return Setting(static_cast<std::uint8_t>(bits));
    case ix::kUint16:
      return Setting(static_cast<std::uint16_t>(bits));
    case ix::kUint32:
      return Setting(static_cast<std::uint32_t>(bits));
    default:
      return Setting(static_cast<std::uint64_t>(bits));
  }
}

Setting Values::Tree(std::size_t budget, int depth) {
  Setting node;
  if (budget <= 1 || depth >= 4 || Chance(35)) {
    node = Scalar();
  } else if (Chance(60)) {
    auto& map = node.emplace<ix::kMap>();
    auto const children = 1 + Below(std::min<std::size_t>(6, budget - 1));
    auto const share = (budget - 1) / children;
    for (std::size_t i = 0; i < children; ++i)
      map.emplace(Key(), Tree(1 + Below(share), depth + 1));
  } else {
    auto& list = node.emplace<ix::kList>();
    auto const children = Below(std::min<std::size_t>(6, budget));
    auto const share = children == 0 ? 0 : (budget - 1) / children;
    for (std::size_t i = 0; i < children; ++i) list.push_back(Tree(1 + Below(share), depth + 1));
  }
  node.attributes.readOnly = Chance(8);
  return node;
}

char const* KindName(Op::Kind kind) {
  switch (kind) {
    case Op::kCreate:
      return "create";
    case Op::kSetValue:
      return "set-value";
    case Op::kSetSetting:
      return "replace";
    case Op::kSetAttribute:
      return "set-attribute";
    case Op::kDelete:
      return "delete";
  }
  return "?";
}

std::string Describe(Op const& op) {
  std::string text = std::string(KindName(op.kind)) + " " + Text(op.path);
  if (op.kind == Op::kSetAttribute)
    text += op.attributes.readOnly ? " read-only" : " writable";
  else if (op.kind != Op::kDelete)
    text += " = " + Describe(op.setting, 200);
  return text;
}

int Apply(Op const& op, Client& client) {
  switch (op.kind) {
    case Op::kCreate:
      return client.creator->CreateSetting(op.path, op.setting);
    case Op::kSetValue:
      return client.valueSetter->SetValue(op.path, op.setting.value());
    case Op::kSetSetting:
      return client.setter->SetSetting(op.path, op.setting);
    case Op::kSetAttribute:
      return client.setter->SetAttribute(op.path, op.attributes);
    case Op::kDelete:
      return client.deleter->DeleteSetting(op.path);
  }
  return -1;
}

Op Stream::Make(std::uint64_t index, settings_manager::ISettingsGetter& current) const {
  std::mt19937_64 random(Mix(seed_, index));
  Values values(random);
  Setting const root = TreeOf(current);
  std::vector<std::pair<uvc::Path, Setting const*>> nodes;
  uvc::Path at;
  Walk(root, at, nodes);
  auto const total = nodes.size() + 1;

  auto const& top = TopKeys();
  auto const& rootMap = std::get<ix::kMap>(root);
  Op op;
  auto const roll = values.Below(100);
  // A big tree shrinks: deletes of whole top-level settings win.
  if (total > maxNodes_ && values.Chance(60)) {
    op.kind = Op::kDelete;
    auto it = rootMap.begin();
    std::advance(it, static_cast<std::ptrdiff_t>(values.Below(rootMap.size())));
    op.path = uvc::Path{it->first};
    return op;
  }
  op.kind = nodes.empty() || roll < 26 ? Op::kCreate
            : roll < 46                ? Op::kSetValue
            : roll < 68                ? Op::kSetSetting
            : roll < 84                ? Op::kSetAttribute
                                       : Op::kDelete;

  if (op.kind == Op::kCreate) {
    // A new child of the root, of a map or of a list (at or past its end: the gap gets
    // None placeholders), now and then with missing map levels in between.
    std::vector<std::pair<uvc::Path, Setting const*>> parents = {{uvc::Path(), &root}};
    for (auto const& entry : nodes)
      if (entry.second->index() == ix::kMap || entry.second->index() == ix::kList)
        parents.push_back(entry);
    auto const& [parentPath, parent] =
        values.Chance(20) ? parents.front() : parents[values.Below(parents.size())];
    op.path = parentPath;
    if (auto const* list = std::get_if<ix::kList>(parent)) {
      op.path.emplace_back(std::in_place_index<0>, list->size() + values.Below(3));
    } else {
      auto const& map = std::get<ix::kMap>(*parent);
      std::string key = parentPath.empty() ? top[values.Below(top.size())] : values.Key();
      if (map.count(key) != 0)
        key = parentPath.empty() ? top[values.Below(top.size())] : values.Key();
      op.path.emplace_back(std::in_place_index<1>, key);
    }
    for (auto extra = values.Chance(25) ? 1 + values.Below(2) : 0; extra > 0; --extra)
      op.path.emplace_back(std::in_place_index<1>, values.Key());
    op.setting = values.Tree(values.Chance(10) ? 1 + values.Below(150) : 1 + values.Below(40));
    return op;
  }

  if (op.kind == Op::kDelete) {
    std::vector<uvc::Path const*> named;
    for (auto const& entry : nodes)
      if (entry.first.back().index() == 1) named.push_back(&entry.first);
    if (named.empty()) {
      op.kind = Op::kSetAttribute;
    } else {
      op.path = *named[values.Below(named.size())];
      return op;
    }
  }

  auto const& [path, node] = nodes[values.Below(nodes.size())];
  op.path = path;
  switch (op.kind) {
    case Op::kSetValue:
      op.setting = values.Chance(75) ? values.Scalar() : values.Tree(1 + values.Below(20));
      op.setting.attributes = {};
      break;
    case Op::kSetSetting:
      op.setting = values.Tree(1 + values.Below(60));
      break;
    default:
      op.kind = Op::kSetAttribute;
      op.attributes.readOnly =
          values.Chance(85) ? !node->attributes.readOnly : node->attributes.readOnly;
  }
  return op;
}

}  // namespace reliability
