#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <stdexcept>

#include "raw_setting.h"
#include "record_test_util.h"

namespace {

using namespace records_test;
using settings_manager::impl::Raw;
using settings_manager::impl::RawAttrib;
using settings_manager::impl::RawItem;
using tern::rtl::Timestamp;

RawItem ValueRecord(std::string_view hex) {
  return RawItem(RawAttrib(Attributes{}).attrib, Hex(hex), "");
}
RawAttrib AttribRecord(std::string_view hex) {
  RawAttrib record;
  record.attrib = Hex(hex);
  return record;
}
Setting Kept() { return Setting(Setting::Value(std::string("keep")), Attributes{true}); }

struct Alternative {
  char const* name;
  Setting setting;
  char const* bytes;
};

// In index order; the bytes are written by hand from the record layout.
std::vector<Alternative> const kAlternatives = {
    {"none", Setting(), "0000000000000000 0000000000000000"},
    {"list", List({Setting(true), Setting(), Setting()}), "0100000000000000 0300000000000000"},
    {"map", MapOf({{"a", Setting(true)}}), "0200000000000000 0000000000000000"},
    {"bool", Setting(true), "0300000000000000 0100000000000000"},
    {"int8", Setting(std::int8_t{-1}), "0400000000000000 ff00000000000000"},
    {"int16", Setting(std::int16_t{-2}), "0500000000000000 feff000000000000"},
    {"int32", Setting(std::int32_t{-123456}), "0600000000000000 c01dfeff00000000"},
    {"int64", Setting(std::int64_t{0x0102030405060708}), "0700000000000000 0807060504030201"},
    {"double", Setting(1.5), "0800000000000000 000000000000f83f"},
    {"timestamp", Setting(Timestamp(0x0011223344556677)), "0900000000000000 7766554433221100"},
    {"string", Setting(std::string("ab")), "0a00000000000000 0300000000000000 616200"},
    {"bytes", Setting(Bytes{0xde, 0xad}), "0b00000000000000 0200000000000000 dead"},
    {"uint8", Setting(std::uint8_t{200}), "0c00000000000000 c800000000000000"},
    {"uint16", Setting(std::uint16_t{0xbeef}), "0d00000000000000 efbe000000000000"},
    {"uint32", Setting(std::uint32_t{0xdeadbeef}), "0e00000000000000 efbeadde00000000"},
    {"uint64", Setting(std::uint64_t{0xfedcba9876543210}), "0f00000000000000 1032547698badcfe"},
};

TEST(RawValueRecord, EveryAlternativeWritesItsBytesAndReadsBack) {
  ASSERT_EQ(kAlternatives.size(), uvc::index::kCount);
  for (std::size_t i = 0; i < kAlternatives.size(); ++i) {
    auto const& alt = kAlternatives[i];
    SCOPED_TRACE(alt.name);
    ASSERT_EQ(alt.setting.index(), i);
    EXPECT_EQ(ToHex(RawItem::SerializeValue(alt.setting)), alt.bytes);

    // Containers come back without children; the value record replaces the value only.
    Setting expected = i == uvc::index::kList  ? List({})
                       : i == uvc::index::kMap ? MapOf({})
                                               : alt.setting;
    Setting fromBytes = Kept();
    ValueRecord(alt.bytes).DeserializeValue(fromBytes);
    EXPECT_EQ(fromBytes.value(), expected.value());
    EXPECT_TRUE(fromBytes.attributes.readOnly);

    Setting roundTrip;
    RawItem(P("a/"), alt.setting).DeserializeValue(roundTrip);
    EXPECT_EQ(roundTrip.value(), expected.value());
  }
}

TEST(RawValueRecord, EdgeValues) {
  EXPECT_EQ(ToHex(RawItem::SerializeValue(Setting(std::string()))),
            "0a00000000000000 0100000000000000 00");
  EXPECT_EQ(ToHex(RawItem::SerializeValue(Setting(Bytes{}))), "0b00000000000000 0000000000000000");

  Setting out;
  ValueRecord("0a00000000000000 0100000000000000 00").DeserializeValue(out);
  EXPECT_EQ(out, Setting(std::string()));
  ValueRecord("0b00000000000000 0000000000000000").DeserializeValue(out);
  EXPECT_EQ(out, Setting(Bytes{}));

  std::string const withZero("a\0b", 3);
  EXPECT_EQ(ToHex(RawItem::SerializeValue(Setting(withZero))),
            "0a00000000000000 0400000000000000 61006200");
  RawItem(P("a/"), Setting(withZero)).DeserializeValue(out);
  EXPECT_EQ(out, Setting(withZero));

  // Only bit 0 of a bool, only the low bytes of a narrow value count.
  ValueRecord("0300000000000000 0300000000000000").DeserializeValue(out);
  EXPECT_EQ(out, Setting(true));
  ValueRecord("0300000000000000 0200000000000000").DeserializeValue(out);
  EXPECT_EQ(out, Setting(false));
  ValueRecord("0500000000000000 feff3412aabbccdd").DeserializeValue(out);
  EXPECT_EQ(out, Setting(std::int16_t{-2}));

  ValueRecord("0100000000000000 0300000000000000").DeserializeValue(out);
  ASSERT_EQ(out.index(), uvc::index::kList);
  EXPECT_TRUE(std::get<uvc::index::kList>(out).empty());
  EXPECT_GE(std::get<uvc::index::kList>(out).capacity(), 3u);

  EXPECT_EQ(ToHex(RawItem::SerializeValue(Setting(-0.0))), "0800000000000000 0000000000000080");
  for (std::uint64_t bits : {std::uint64_t{0x8000000000000000}, std::uint64_t{0x7ff8000000000123},
                             std::uint64_t{0xfff0000000000001}}) {
    double number = 0;
    std::memcpy(&number, &bits, sizeof bits);
    RawItem(P("a/"), Setting(number)).DeserializeValue(out);
    std::uint64_t back = 0;
    std::memcpy(&back, &std::get<double>(out), sizeof back);
    EXPECT_EQ(back, bits);
  }

  EXPECT_EQ(ToHex(RawItem::SerializeValue(Setting(Timestamp(-1)))),
            "0900000000000000 ffffffffffffffff");
}

TEST(RawValueRecord, FailuresLeaveTheTargetAlone) {
  struct Row {
    char const* record;
    std::uint32_t code;
    char const* message;
  } const rows[] = {
      {"0300000000000000 01000000000000", 0x8000005C,
       "[RawSetting] Insufficient raw data size: fact/plan = 15/16"},
      {"0a00000000000000 0500000000000000 6162", 0x8000005C,
       "[RawSetting] Insufficient raw data size: fact/plan = 18/21"},
      {"0b00000000000000 0300000000000000 dead", 0x8000005C,
       "[RawSetting] Insufficient raw data size: fact/plan = 18/19"},
      // A length near 2^64 must not wrap into a need the record meets.
      {"0b00000000000000 f0ffffffffffffff", 0x8000005C,
       "[RawSetting] Insufficient raw data size: fact/plan = 16/18446744073709551615"},
      {"1000000000000000 0000000000000000", 0x8000005E, "[RawSetting] Invalid value index: 16"},
  };
  for (auto const& row : rows) {
    SCOPED_TRACE(row.record);
    Setting out = Kept();
    EXPECT_EQ(ErrorOf([&] { ValueRecord(row.record).DeserializeValue(out); }),
              Failure(row.code, row.message));
    EXPECT_EQ(out, Kept());
  }
}

TEST(RawValueRecord, StringWordZeroDropsTheOldValue) {
  Setting out = Kept();
  EXPECT_THROW(ValueRecord("0a00000000000000 0000000000000000").DeserializeValue(out),
               std::length_error);
  EXPECT_TRUE(out.valueless_by_exception());
  EXPECT_TRUE(out.attributes.readOnly);
}

TEST(RawValueRecord, WriteFailures) {
  uvc::Result const invalidState = Failure(0x8000006A, "[RawSetting] Invalid value state");
  EXPECT_EQ(ErrorOf([] { RawItem::SerializeValue(Valueless()); }), invalidState);
  EXPECT_EQ(ErrorOf([] { RawItem(P("a/"), Valueless()); }), invalidState);

  EXPECT_EQ(ErrorOf([] {
              Raw::Data({"123456789", 9});
            }),
            Failure(0x80000044, "[RawSetting] Too big data view size: 9"));
  std::int16_t const narrow = -2;
  EXPECT_EQ(Raw::Data({&narrow, sizeof narrow}), 0xfffeu);
  std::uint64_t const wide = 0x0102030405060708;
  EXPECT_EQ(Raw::Data({&wide, sizeof wide}), wide);
}

TEST(RawAttribRecord, WritesAndReadsTheFlag) {
  EXPECT_EQ(ToHex(RawAttrib(Attributes{false}).attrib), "0000010000000000 0000000000000000");
  EXPECT_EQ(ToHex(RawAttrib(Attributes{true}).attrib), "0000010000000000 0100000000000000");

  Attributes out;
  AttribRecord("0000010000000000 0300000000000000").DeserializeAttrib(out);
  EXPECT_TRUE(out.readOnly);
  AttribRecord("0000010000000000 feffffffffffffff").DeserializeAttrib(out);
  EXPECT_FALSE(out.readOnly);
}

TEST(RawAttribRecord, FailuresLeaveTheTargetAlone) {
  struct Row {
    char const* record;
    std::uint32_t code;
    char const* message;
  } const rows[] = {
      {"0000010000000000 00000000000000", 0x8000005C,
       "[RawSetting] Insufficient raw data size: fact/plan = 15/16"},
      {"0000020000000000 0000000000000000", 0x8000005B,
       "[RawSetting] Invalid attrib version: 0x20000"},
  };
  for (auto const& row : rows) {
    Attributes out{true};
    EXPECT_EQ(ErrorOf([&] { AttribRecord(row.record).DeserializeAttrib(out); }),
              Failure(row.code, row.message));
    EXPECT_TRUE(out.readOnly);
  }
}

TEST(RawItemRecord, HoldsAttribValueAndPathText) {
  RawItem const item(P("net/3/name/"), ReadOnly(Setting(std::uint8_t{7})));
  EXPECT_EQ(ToHex(item.attrib), "0000010000000000 0100000000000000");
  EXPECT_EQ(ToHex(item.value), "0c00000000000000 0700000000000000");
  EXPECT_EQ(item.path, "net/3/name/");
  EXPECT_EQ(RawItem(uvc::Root(), MapOf({})).path, "");

  uvc::Path parsed;
  item.DeserializePath(parsed);
  EXPECT_EQ(parsed, P("net/3/name/"));
}

TEST(RawItemRecord, PathFailures) {
  EXPECT_EQ(ErrorOf([] { RawItem(uvc::Path{std::uint64_t{65536}}, Setting()); }),
            Failure(0x80000046, "[RawSetting] Path to str fail: state = 2"));
  EXPECT_EQ(ErrorOf([] { RawItem::SerializePath(uvc::Path{std::string("a b")}); }),
            Failure(0x80000046, "[RawSetting] Path to str fail: state = 7"));

  for (auto const& [text, message] :
       {std::pair{"a//b", "[RawSetting] Str to path fail: src = 'a//b', state = 5"},
        std::pair{"70000/", "[RawSetting] Str to path fail: src = '70000/', state = 2"}}) {
    uvc::Path out = P("keep/");
    EXPECT_EQ(ErrorOf([&, text = text] { RawItem({}, {}, text).DeserializePath(out); }),
              Failure(0x80000046, message));
    EXPECT_EQ(out, P("keep/"));
  }
}

}  // namespace
