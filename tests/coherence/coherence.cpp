#include "coherence.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <sstream>

namespace coherence {
namespace {

using test_support::Code;

std::int64_t Now() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

void DumpInto(Setting const& node, std::string const& path, std::vector<std::string>& lines) {
  std::string line = path + "=";
  if (auto const* map = std::get_if<uvc::index::kMap>(&node)) {
    line += "{}";
    for (auto const& [key, child] : *map) DumpInto(child, path + "/" + key, lines);
  } else if (auto const* text = std::get_if<uvc::index::kString>(&node)) {
    line += *text;
  } else {
    line += "#" + std::to_string(node.index());
  }
  lines.push_back(line + (node.attributes.readOnly ? "!" : ""));
}

bool Allowed(Ack const& ack) {
  std::map<char, std::vector<int>> const allowed = {
      {'c', {0, Code(0x8000004Du)}},
      {'v', {0, Code(0x80000066u), Code(0x8000004Cu)}},
      {'a', {0, 1, Code(0x8000004Cu)}},
      {'d', {0, 1, Code(0x8000004Au)}}};
  auto const& codes = allowed.at(ack.kind);
  return std::find(codes.begin(), codes.end(), ack.rc) != codes.end();
}

// What a successful change wrote to a key's value ('v') or mark ('a'); "-" is "not there".
std::optional<std::string> Wrote(Ack const& ack, char reg) {
  if (ack.rc != 0) return std::nullopt;
  if (ack.kind == 'd') return std::string("-");
  if (ack.kind == 'c') return reg == 'v' ? ack.value : "0";
  if (ack.kind == reg) return ack.value;
  return std::nullopt;
}

}  // namespace

int Change(Client& client, char kind, std::string const& key, std::string const& value) {
  auto const path = test_support::P(key);
  switch (kind) {
    case 'c':
      return client.creator->CreateSetting(path, Setting(value));
    case 'v':
      return client.valueSetter->SetValue(path, Setting::Value(value));
    case 'a':
      return client.setter->SetAttribute(path, settings_manager::Attributes{value == "1"});
    case 's':
      return client.setter->SetSetting(path, Setting(value, {true}));
    default:
      return client.deleter->DeleteSetting(path);
  }
}

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

Ack RandomChange(Client& client, std::mt19937_64& random, std::string const& tag) {
  static char const* const shared[] = {"s/c0", "s/c1", "s/c2", "s/c3", "s/d0/x", "s/d1/x"};
  Ack ack;
  auto const pick = random() % 9;
  ack.key = pick < 6 ? shared[pick] : "s/" + tag + "k" + std::to_string(pick - 6);
  auto const roll = random() % 10;
  ack.kind = roll < 3 ? 'c' : roll < 6 ? 'v' : roll < 8 ? 'a' : 'd';
  ack.value = ack.kind == 'a' ? std::to_string(random() % 2) : tag + ":" + std::to_string(random());
  ack.start = Now();
  ack.rc = Change(client, ack.kind, ack.key, ack.value);
  ack.end = Now();
  return ack;
}

void Sync(Client& client) { client.deleter->DeleteSetting(test_support::P("sync/none")); }

std::string Dump(Client& client) {
  Setting s;
  std::vector<std::string> lines;
  if (client.getter->GetSetting(test_support::P("s"), s) == 0) DumpInto(s, "s", lines);
  std::sort(lines.begin(), lines.end());
  std::string text;
  for (auto const& line : lines) text += line + "\n";
  return text;
}

std::string Check(std::string const& dump, std::vector<Ack> const& acks) {
  std::map<std::string, std::pair<std::string, std::string>> now;  // key: value, mark
  std::istringstream lines(dump);
  for (std::string line; std::getline(lines, line);) {
    bool const readOnly = line.back() == '!';
    auto const eq = line.find('=');
    now[line.substr(0, eq)] = {line.substr(eq + 1, line.size() - eq - 1 - readOnly),
                               readOnly ? "1" : "0"};
  }
  std::ostringstream problems;
  std::map<std::string, std::vector<Ack const*>> byKey;
  for (auto const& ack : acks) {
    if (!Allowed(ack)) problems << "answer not allowed: " << Format(ack) << "\n";
    byKey[ack.key].push_back(&ack);
  }
  for (auto const& [key, changes] : byKey) {
    auto const found = now.find(key);
    auto const [value, mark] =
        found == now.end() ? std::pair<std::string, std::string>{"-", "-"} : found->second;
    for (auto const& [reg, is] : {std::pair{'v', value}, std::pair{'a', mark}}) {
      std::vector<Ack const*> writes;
      for (auto const* ack : changes)
        if (Wrote(*ack, reg)) writes.push_back(ack);
      bool explained = writes.empty() && is == "-";
      for (auto const* write : writes)  // last in some order that keeps real time
        explained = explained || (*Wrote(*write, reg) == is &&
                                  std::none_of(writes.begin(), writes.end(), [&](Ack const* o) {
                                    return o->start > write->end;
                                  }));
      if (!explained)
        problems << key << ' ' << reg << " = " << is << " is not what the last of " << writes.size()
                 << " changes left\n";
    }
  }
  return problems.str();
}

}  // namespace coherence
