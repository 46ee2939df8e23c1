#include "load.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <sstream>

#include "uvc/tree.h"

namespace coherence {
namespace {

namespace ix = uvc::index;
constexpr int kNotFound = static_cast<int>(0x8000004Cu);
constexpr int kFound = static_cast<int>(0x8000004Du);
constexpr int kNotMatched = static_cast<int>(0x8000004Au);
constexpr int kProhibited = static_cast<int>(0x80000066u);

std::int64_t Now() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

void DumpInto(Setting const& node, std::string const& path, std::vector<std::string>& lines) {
  std::string line = path + "=";
  if (auto const* map = std::get_if<ix::kMap>(&node)) {
    line += "{}";
    for (auto const& [key, child] : *map) DumpInto(child, path + "/" + key, lines);
  } else if (auto const* text = std::get_if<ix::kString>(&node)) {
    line += *text;
  } else {
    line += "#" + std::to_string(node.index());
  }
  lines.push_back(line + (node.attributes.readOnly ? "!" : ""));
}

bool Allowed(Ack const& ack) {
  switch (ack.kind) {
    case 'c':
      return ack.rc == 0 || ack.rc == kFound;
    case 'v':
      return ack.rc == 0 || ack.rc == kProhibited || ack.rc == kNotFound;
    case 'a':
      return ack.rc == 0 || ack.rc == 1 || ack.rc == kNotFound;
    case 'd':
      return ack.rc == 0 || ack.rc == 1 || ack.rc == kNotMatched;
    default:
      return false;
  }
}

// What a successful change wrote to a key's value ('v') or mark ('a') register;
// nothing when it wrote neither. "-" is "not there".
std::optional<std::string> Wrote(Ack const& ack, char reg) {
  if (ack.rc != 0) return std::nullopt;
  if (ack.kind == 'd') return std::string("-");
  if (ack.kind == 'c') return reg == 'v' ? ack.value : "0";
  if (ack.kind == reg) return ack.value;
  return std::nullopt;
}

}  // namespace

std::string Format(Ack const& ack) {
  std::ostringstream out;
  out << "ack " << ack.kind << ' ' << ack.key << ' ' << ack.value << ' ' << ack.rc << ' '
      << ack.start << ' ' << ack.end;
  return out.str();
}

std::optional<Ack> Parse(std::string const& line) {
  std::istringstream in(line);
  std::string word;
  Ack ack;
  if (!(in >> word >> ack.kind >> ack.key >> ack.value >> ack.rc >> ack.start >> ack.end) ||
      word != "ack")
    return std::nullopt;
  return ack;
}

Ack Load::Next(Client& client) {
  static char const* const shared[] = {"s/c0", "s/c1", "s/c2", "s/c3", "s/d0/x", "s/d1/x"};
  Ack ack;
  auto const pick = random_() % 9;
  ack.key = pick < 6 ? shared[pick] : "s/" + tag_ + "k" + std::to_string(pick - 6);
  auto const roll = random_() % 10;
  ack.kind = roll < 3 ? 'c' : roll < 6 ? 'v' : roll < 8 ? 'a' : 'd';
  ack.value =
      ack.kind == 'a' ? std::to_string(random_() % 2) : tag_ + ":" + std::to_string(++count_);
  auto const path = reliability::P(ack.key);
  ack.start = Now();
  switch (ack.kind) {
    case 'c':
      ack.rc = client.creator->CreateSetting(path, Setting(ack.value));
      break;
    case 'v':
      ack.rc = client.valueSetter->SetValue(path, Setting::Value(ack.value));
      break;
    case 'a':
      ack.rc = client.setter->SetAttribute(path, settings_manager::Attributes{ack.value == "1"});
      break;
    default:
      ack.rc = client.deleter->DeleteSetting(path);
      break;
  }
  ack.end = Now();
  return ack;
}

void Recorder::Update(uvc::Path const& path, unsigned char kind) {
  std::lock_guard<std::mutex> lock(lock_);
  events_.emplace_back(reliability::Text(path), kind);
  arrived_.notify_all();
}

std::vector<Recorder::Event> Recorder::Next(std::size_t count) {
  std::unique_lock<std::mutex> lock(lock_);
  arrived_.wait_for(lock, std::chrono::minutes(1), [&] { return events_.size() >= count; });
  return std::exchange(events_, {});
}

void Sync(Client& client) { client.deleter->DeleteSetting(reliability::P("sync/none")); }

std::string Dump(Setting const& root) {
  std::vector<std::string> lines;
  if (auto const* map = std::get_if<ix::kMap>(&root))
    if (auto const s = map->find("s"); s != map->end()) DumpInto(s->second, "s", lines);
  std::sort(lines.begin(), lines.end());
  std::string text;
  for (auto const& line : lines) text += line + "\n";
  return text;
}

std::string Dump(Client& client) { return Dump(reliability::TreeOf(*client.getter, {"s"})); }

std::string Check(Setting const& root, std::vector<Ack> const& acks) {
  std::ostringstream problems;
  std::map<std::string, std::vector<Ack const*>> byKey;
  for (auto const& ack : acks) {
    if (!Allowed(ack)) problems << "answer not allowed: " << Format(ack) << "\n";
    byKey[ack.key].push_back(&ack);
  }
  for (auto const& [key, changes] : byKey) {
    Setting const* at = &root;
    for (auto const& id : reliability::P(key))
      if (at != nullptr) at = uvc::FindItem(*at, id);
    bool const there = at != nullptr;
    std::string const value = !there                         ? "-"
                              : std::get_if<ix::kString>(at) ? std::get<ix::kString>(*at)
                                                             : "?";
    std::string const mark = !there ? "-" : at->attributes.readOnly ? "1" : "0";
    for (auto const& [reg, now] : {std::pair{'v', value}, std::pair{'a', mark}}) {
      std::vector<Ack const*> writes;
      for (auto const* ack : changes)
        if (Wrote(*ack, reg)) writes.push_back(ack);
      bool explained = writes.empty() && now == "-";
      for (auto const* write : writes) {
        // Last in some order that keeps real time: no other write began after it ended.
        bool const last = std::none_of(writes.begin(), writes.end(),
                                       [&](Ack const* other) { return other->start > write->end; });
        explained = explained || (last && *Wrote(*write, reg) == now);
      }
      if (!explained)
        problems << key << (reg == 'v' ? " value " : " mark ") << now << " is not what the last of "
                 << writes.size() << " changes left\n";
    }
  }
  return problems.str();
}

}  // namespace coherence
