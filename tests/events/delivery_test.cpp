// Who is told about which change, with which kind, in which order; the registry's ids,
// refusals and records.

#include <stdexcept>
#include <tuple>

#include "event_test_util.h"

namespace events_test {
namespace {

using ::testing::Contains;
using ::testing::EndsWith;
using ::testing::HasSubstr;
TEST_F(EventsTest, EachOperationIsDeliveredOnceWithItsKindAndRecordToItsPathAndAbove) {
  auto const observer = std::make_shared<Recorder>(), below = std::make_shared<Recorder>();
  Subscribe({}, observer);
  Subscribe({"a"}, observer);  // still one call and one client per event
  Subscribe({"a", "c"}, below);
  std::tuple<std::function<int()>, int, char const*> const rows[] = {
      {[&] { return creator->CreateSetting({"a"}, Int(0)); }, 0x01, "New"},
      {[&] { return valueSetter->SetValue({"a"}, uvc::TValue<Setting>(1)); }, 0x02, "Val"},
      {[&] { return setter->SetAttribute({"a"}, Attributes{true}); }, 0x04, "Atr"},
      {[&] { return setter->SetSetting({"a"}, Int(7)); }, 0x06, "Val:Atr"},
      {[&] { return deleter->DeleteSetting({"a"}); }, 0x08, "Del"},
  };
  Seen expected;
  for (auto const& [change, kind, text] : rows) {
    ASSERT_RC(change(), 0) << text;
    Drain();
    expected.emplace_back("a/", kind);
    EXPECT_EQ(observer->Events(), expected) << text;
    EXPECT_THAT(Records(LogLevel::Debug),
                Contains(EndsWith(std::string(" Update(a/) = ") + text + ": 1 client(s)")));
  }
  for (uvc::Path const& path : {uvc::Path{"a", "c", "e"}, {"a", "cc"}, {"b"}}) Create(path);
  ASSERT_RC(setter->SetAttribute({"a"}, Attributes{true}), 0);
  Drain();
  EXPECT_THAT(below->Events(), ElementsAre(Pair("a/c/e/", 0x01)));
}

// Changes waiting together go out once each in path order with their last kind, and so
// does a change of a path already taken for delivery but not yet delivered.
TEST_F(EventsTest, ChangesWaitingTogetherGoOutInPathOrderOnceWithTheLastKind) {
  auto const root = std::make_shared<Recorder>();
  Subscribe({}, root);
  Create({"d"});
  Drain();
  Blocking hold, inB;
  Subscribe({"hold"}, hold.observer);
  Subscribe({"b"}, inB.observer);
  Create({"hold"});
  ASSERT_TRUE(hold->entered.Wait());  // the changes made now wait together
  Create({"c"});
  ASSERT_RC(valueSetter->SetValue({"c"}, uvc::TValue<Setting>(1)), 0);
  ASSERT_RC(valueSetter->SetValue({"d"}, uvc::TValue<Setting>(1)), 0);
  ASSERT_RC(deleter->DeleteSetting({"d"}), 0);
  Create({"b"});
  hold->leave.Open();
  ASSERT_TRUE(inB->entered.Wait());  // "c" and "d" now wait in the event thread's own batch
  ASSERT_RC(setter->SetAttribute({"c"}, Attributes{true}), 0);
  inB->leave.Open();
  Drain();
  EXPECT_THAT(root->Events(),
              ElementsAre(Pair("d/", 0x01), Pair("b/", 0x01), Pair("c/", 0x04), Pair("d/", 0x08)));
  EXPECT_THAT(Records(LogLevel::Debug), Contains(HasSubstr(" Update(c/)")).Times(1));
}

// The first observer called for "b" (on the event thread) creates "aa", which sorts before
// "b", drops the bystander and subscribes a newcomer, which misses the delivery under way.
// The first called for "t1" and for "t2" throws: only the rest of that event is skipped.
TEST_F(EventsTest, UpdateMayChangeSubscribeOrThrow) {
  auto const bystander = std::make_shared<Recorder>(), newcomer = std::make_shared<Recorder>();
  auto const bystanderId = Subscribe({"c"}, bystander);
  SubscriptionId newcomerId{};
  std::vector<int> codes;
  std::atomic<int> thrown{0};
  auto hook = [&](std::string const& path) {
    if (path == "t1/" && thrown++ == 0) throw std::runtime_error("failed");
    if (path == "t2/" && thrown++ == 1) throw 42;
    if (path != "b/" || !codes.empty()) return;
    codes = {creator->CreateSetting({"aa"}, Int(1)), subscriber->Unsubscribe(bystanderId),
             subscriber->Subscribe({}, newcomer, newcomerId)};
  };
  auto x = std::make_shared<Recorder>(hook), y = std::make_shared<Recorder>(hook);
  if (std::less<ISettingsUpdateObserver*>()(y.get(), x.get())) std::swap(x, y);  // x goes first
  Subscribe({}, x);
  Subscribe({}, y);
  Create({"b"});
  Drain();
  EXPECT_EQ(codes, (std::vector<int>{0, 0, 0}));
  EXPECT_THAT(newcomer->Events(), ElementsAre(Pair("aa/", 0x01)));
  EXPECT_RC(subscriber->Unsubscribe(newcomerId), 0);
  for (uvc::Path const& path : {uvc::Path{"c"}, {"t1"}, {"t2"}}) Create(path);
  Drain();
  Seen const all{{"b/", 1}, {"aa/", 1}, {"c/", 1}, {"t1/", 1}, {"t2/", 1}};
  EXPECT_EQ(x->Events(), all);
  EXPECT_EQ(y->Events(), (Seen{all[0], all[1], all[2]}));
  EXPECT_THAT(bystander->Events(), IsEmpty());
  std::string const failed = "NotifyEvent: could not notify clients: ";
  EXPECT_THAT(Records(LogLevel::Error),
              ElementsAre(EndsWith(failed + "Unspecified error = 0x8000004b"),
                          EndsWith(failed + "Unknown exception = 0x80000072")));
}

// Also: an observer whose destructor calls back into the manager is let go outside the
// registry's lock, whether it was taken in or refused.
TEST_F(EventsTest, SubscriptionIdsCodesAndRecords) {
  std::vector<int> codes;
  SubscriptionId id{77}, inner{};
  auto callsBack = [&] {
    return std::make_shared<Recorder>(Recorder::Hook{}, [&, s = subscriber.get()] {
      codes.push_back(s->Subscribe({"b"}, std::make_shared<Recorder>(), inner));
      codes.push_back(s->Unsubscribe(inner));
    });
  };
  auto const a = std::make_shared<Recorder>();
  EXPECT_EQ(Subscribe({}, a), SubscriptionId{1});
  EXPECT_RC(subscriber->Subscribe({}, a, id), 0x8000004Du);  // same observer, same path
  EXPECT_RC(subscriber->Subscribe({"a"}, nullptr, id), 0x80000100u);
  for (uvc::Path const& bad : {uvc::Path{std::uint64_t{0}}, {""}})
    EXPECT_RC(subscriber->Subscribe(bad, callsBack(), id), 0x80000046u) << Text(bad);
  EXPECT_EQ(id, SubscriptionId{77});
  EXPECT_EQ(Subscribe({"a"}, callsBack()), SubscriptionId{4});
  EXPECT_RC(subscriber->Unsubscribe(SubscriptionId{4}), 0);
  EXPECT_EQ(Subscribe({"a"}, a), SubscriptionId{6});  // never reused
  EXPECT_RC(subscriber->Unsubscribe(SubscriptionId{0}), 0x80000046u);
  EXPECT_RC(subscriber->Unsubscribe(SubscriptionId{4}), 0x8000004Cu);
  EXPECT_EQ(codes, std::vector<int>(6, 0));
  std::vector<std::string> traced;
  for (auto const& r : log.Records())
    if (r.function != "SettingsManager")
      traced.push_back(std::to_string(int(r.level)) + r.message.substr(11));
  std::string const invalid = "): Invalid argument = 0x80000046";
  EXPECT_EQ(traced, (std::vector<std::string>{
                        "1 Subscribe(): 1", "4 Subscribe(0/" + invalid, "1 Subscribe(b/): 2",
                        "1 Unsubscribe(): 2", "4 Subscribe(<path to str fail: state = 4>" + invalid,
                        "1 Subscribe(b/): 3", "1 Unsubscribe(): 3", "1 Subscribe(a/): 4",
                        "1 Subscribe(b/): 5", "1 Unsubscribe(): 5", "1 Unsubscribe(): 4",
                        "1 Subscribe(a/): 6"}));
}

}  // namespace
}  // namespace events_test
