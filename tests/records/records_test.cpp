// The stored records both ways: every value alternative, the attribute record, path text,
// whole subtrees; malformed records refused with their codes and the targets untouched.

#include <algorithm>

#include "raw_conversion.h"
#include "raw_setting.h"
#include "support/settings.h"

namespace test_support {
namespace {

using settings_manager::impl::RawItem;
using Result = uvc::Result;

Setting Kept() { return Str("keep", true); }

TEST(Records, EveryAlternativeBothWaysMalformedOnesRefusedWithTheTargetsLeftAlone) {
  // In index order; the bytes written by hand from the record layout.
  std::pair<Setting, char const*> const alternatives[] = {
      {Setting(), "0000000000000000 0000000000000000"},
      {ListOf({Setting(true), Setting()}), "0100000000000000 0200000000000000"},
      {MapOf({{"a", Setting(true)}}), "0200000000000000 0000000000000000"},
      {Setting(true), "0300000000000000 0100000000000000"},
      {Setting(std::int8_t{-1}), "0400000000000000 ff00000000000000"},
      {Setting(std::int16_t{-2}), "0500000000000000 feff000000000000"},
      {Setting(std::int32_t{-123456}), "0600000000000000 c01dfeff00000000"},
      {Setting(std::int64_t{0x0102030405060708}), "0700000000000000 0807060504030201"},
      {Setting(0.1), "0800000000000000 9a9999999999b93f"},
      {Setting(tern::rtl::Timestamp(0x0011223344556677)), "0900000000000000 7766554433221100"},
      {Setting(std::string("a\0b", 3)), "0a00000000000000 0400000000000000 61006200"},
      {Setting(ByteVector{0xde, 0xad}), "0b00000000000000 0200000000000000 dead"},
      {Setting(std::uint8_t{200}), "0c00000000000000 c800000000000000"},
      {Setting(std::uint16_t{0xbeef}), "0d00000000000000 efbe000000000000"},
      {Setting(std::uint32_t{0xdeadbeef}), "0e00000000000000 efbeadde00000000"},
      {Setting(std::uint64_t{0xfedcba9876543210}), "0f00000000000000 1032547698badcfe"},
      {Setting(std::string()), "0a00000000000000 0100000000000000 00"}};
  ASSERT_EQ(std::size(alternatives), uvc::index::kCount + 1);
  for (std::size_t i = 0; i < std::size(alternatives); ++i) {
    auto const& [setting, bytes] = alternatives[i];
    EXPECT_EQ(ToHex(RawItem::SerializeValue(setting)), bytes);
    Setting read = Kept();  // containers come back without children, attributes stay
    RawItem({}, Hex(bytes), "").DeserializeValue(read);
    EXPECT_EQ(read, i == 1 ? ListOf({}, true) : i == 2 ? MapOf({}, true) : ReadOnly(setting));
  }
  Setting read = Kept();  // only bit 0 of a bool, the low word of an int16
  RawItem({}, Hex("0300000000000000 0200000000000000"), "").DeserializeValue(read);
  RawItem(Hex("0000010000000000 feffffffffffffff"), {}, "").DeserializeAttrib(read.attributes);
  EXPECT_EQ(read, Setting(false));
  RawItem({}, Hex("0500000000000000 feff3412aabbccdd"), "").DeserializeValue(read);
  EXPECT_EQ(read, Setting(std::int16_t{-2}));
  RawItem const item(P("net/3/name"), Int(7, true));
  EXPECT_EQ(ToHex(item.attrib) + item.path + ToHex(item.value),
            ToHex(AttribRecord(true)) + "net/3/name/" + ToHex(Int32Record(7)));

  std::string const size = "[RawSetting] Insufficient raw data size: fact/plan = ";
  std::tuple<char const*, char const*, char const*, std::uint32_t, std::string> const cases[] = {
      {"", "0a00000000000000 0500000000000000 6162", "", 0x8000005C, size + "18/21"},
      {"", "0b00000000000000 f0ffffffffffffff", "", 0x8000005C,
       size + "16/18446744073709551615"},  // a length near 2^64 must not wrap
      {"", "1000000000000000 0000000000000000", "", 0x8000005E,
       "[RawSetting] Invalid value index: 16"},
      {"0000010000000000 00000000000000", "", "", 0x8000005C, size + "15/16"},
      {"0000020000000000 0000000000000000", "", "", 0x8000005B,
       "[RawSetting] Invalid attrib version: 0x20000"},
      {"", "", "a//b", 0x80000046, "[RawSetting] Str to path fail: src = 'a//b', state = 5"}};
  for (auto const& [attrib, value, path, code, message] : cases) {
    RawItem const record(Hex(attrib), Hex(value), path);
    Setting setting = Kept();
    uvc::Path target = P("keep");
    bool const hasAttrib = *attrib, hasValue = *value;  // a lambda may not capture bindings
    EXPECT_EQ(ErrorOf([&] {
                if (hasAttrib) record.DeserializeAttrib(setting.attributes);
                hasValue ? record.DeserializeValue(setting) : record.DeserializePath(target);
              }),
              Result(Code(code), message));
    EXPECT_TRUE(setting == Kept() && target == P("keep")) << message;
  }
  EXPECT_EQ(ErrorOf([] { RawItem(P("a"), Valueless()); }),
            Result(Code(0x8000006Au), "[RawSetting] Invalid value state"));
  EXPECT_EQ(ErrorOf([] { RawItem::SerializePath(uvc::Path{K("a b")}); }),
            Result(Code(0x80000046u), "[RawSetting] Path to str fail: state = 7"));
}

TEST(Records, SubtreesRoundTripInRowOrderAndRefuseBrokenRowSets) {
  std::vector<Setting> twelve;
  for (std::uint16_t i = 0; i < 12; ++i) twelve.emplace_back(i);
  Setting const tree =
      MapOf({{"all", MapOf({{"n", Setting()}, {"i", Int(-32, true)}, {"s", Str("t")}})},
             {"l", Setting(Setting::Value(twelve))},
             {"r", ListOf({ReadOnly(MapOf({{"f", Setting(false)}})), ListOf({})})}});
  std::vector<RawItem> items{RawItem(P("x"), Int(0))};
  ASSERT_EQ(settings_manager::Serialize(P("cfg/2"), tree, items), uvc::ResultOk());
  EXPECT_EQ(items[0].path + items[1].path + items[6].path, "cfg/2/cfg/2/all/cfg/2/l/0/");
  std::sort(items.begin(), items.end(), [](auto& a, auto& b) { return a.path < b.path; });
  Setting head;
  uvc::Path headPath;
  ASSERT_EQ(settings_manager::Deserialize(items, headPath, head), uvc::ResultOk());
  EXPECT_EQ(headPath, P("cfg/2"));
  EXPECT_EQ(head, tree);

  auto const at = [](char const* path, Setting const& s) { return RawItem(P(path), s); };
  std::pair<std::vector<RawItem>, Result> const broken[] = {
      {{}, {Code(0x80000101u), "[RawSetting] empty raw setting"}},
      {{at("a", MapOf({})), at("b/x", Int(1))},
       {Code(0x80000064u), "[RawSetting] non-rooted path: root = 'a/', this = 'b/x/'"}},
      {{at("a", MapOf({})), at("a/b/c", Int(1))},
       {Code(0x80000065u), "[RawSetting] path level jump: prev = 'a/', this = 'a/b/c/'"}},
      {{at("a", Int(1)), at("a/b", Int(1))},
       {Code(0x8000004Au), "uvc: Path or id does not correspond to contained item"}}};
  for (auto const& [rows, result] : broken) {
    head = Kept();
    headPath = P("keep");
    EXPECT_EQ(settings_manager::Deserialize(rows, headPath, head), result);
    EXPECT_TRUE(head == Kept() && headPath == P("keep")) << result.second;
  }
  items = {at("x", Int(0))};
  EXPECT_EQ(settings_manager::Serialize(
                P("a"), MapOf({{"b", Int(1)}, {"c", ListOf({Valueless()})}}), items),
            Result(Code(0x8000006Au), "[RawSetting] Invalid value state"));
  EXPECT_EQ(items.size(), 1u);
}

}  // namespace
}  // namespace test_support
