// Who is told about which change, with which kind, in which order, on which thread; the
// registry's ids and refusals; whole-tree edits.

#include <limits>
#include <stdexcept>

#include "event_test_util.h"
#include "settings_manager/tree_access.h"

namespace events_test {
namespace {

using ::testing::Contains;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::UnorderedElementsAre;
using DeliveryTest = EventsTest;

TEST_F(DeliveryTest, EachOperationIsDeliveredOnceWithItsKind) {
  // At the root and at "a": still one call and one client per event.
  auto const observer = std::make_shared<Recorder>();
  Subscribe({}, observer);
  Subscribe({"a"}, observer);
  struct Row {
    std::function<int()> change;
    int kind;
    char const* record;
  } const rows[] = {
      {[&] { return creator->CreateSetting({"a"}, Int(0)); }, 0x01, "New"},
      {[&] { return valueSetter->SetValue({"a"}, uvc::TValue<Setting>(1)); }, 0x02, "Val"},
      {[&] { return setter->SetAttribute({"a"}, Attributes{true}); }, 0x04, "Atr"},
      {[&] { return setter->SetSetting({"a"}, Int(7)); }, 0x06, "Val:Atr"},
      {[&] { return deleter->DeleteSetting({"a"}); }, 0x08, "Del"},
  };
  Seen expected;
  for (auto const& row : rows) {
    SCOPED_TRACE(row.record);
    ASSERT_RC(row.change(), 0);
    Drain();
    expected.emplace_back("a/", row.kind);
    EXPECT_EQ(observer->Events(), expected);
    EXPECT_THAT(UpdateRecords(),
                Contains(EndsWith(std::string(" Update(a/) = ") + row.record + ": 1 client(s)")));
  }
  auto const record = log.ByFunction("NotifyEvent").front();
  EXPECT_EQ(record.file, kManagerSource);
  EXPECT_EQ(record.message.substr(0, 6), "[SM] -");
}

TEST_F(DeliveryTest, ObserverHearsItsPathAndBelowOnlyAndNothingFromBeforeItCame) {
  Create({"early"});
  auto const observer = std::make_shared<Recorder>();
  Subscribe({"p", "c"}, observer);
  for (uvc::Path const& path :
       {uvc::Path{"p", "c", "e"}, {"p", "d"}, {"p", "cc"}, {"p", "c", "g", "h"}, {"q"}})
    Create(path);
  ASSERT_RC(setter->SetAttribute({"p"}, Attributes{true}), 0);
  ASSERT_RC(setter->SetAttribute({"p", "c"}, Attributes{true}), 0);
  Drain();
  EXPECT_THAT(observer->Events(), UnorderedElementsAre(Pair("p/c/e/", 0x01), Pair("p/c/g/h/", 0x01),
                                                       Pair("p/c/", 0x04)));
  EXPECT_THAT(UpdateRecords(), Each(Not(HasSubstr("Update(early/)"))));
}

TEST_F(DeliveryTest, ChangesWaitingTogetherGoOutInPathOrderOnceWithTheLastKind) {
  auto const root = std::make_shared<Recorder>();
  Subscribe({}, root);
  Create({"d"});
  Drain();
  auto hold = HoldEventThread();
  Create({"c"});
  SetValue({"c"}, 1);
  SetValue({"d"}, 1);
  ASSERT_RC(deleter->DeleteSetting({"d"}), 0);
  Create({"b"});
  hold.gate->Open();
  Drain();
  EXPECT_THAT(root->Events(),
              ElementsAre(Pair("d/", 0x01), Pair("b/", 0x01), Pair("c/", 0x02), Pair("d/", 0x08)));
  auto const records = UpdateRecords();
  EXPECT_EQ(std::count_if(records.begin(), records.end(),
                          [](auto const& m) { return m.find(" Update(c/)") != std::string::npos; }),
            1);
}

TEST_F(DeliveryTest, ChangeOfAPathAlreadyTakenForDeliveryReplacesItsKind) {
  auto const root = std::make_shared<Recorder>();
  auto const gate = std::make_shared<Gate>();
  auto const blocker = std::make_shared<Recorder>([gate](uvc::Path const& path, unsigned char) {
    if (path == uvc::Path{"a"}) {
      EXPECT_TRUE(gate->Wait());
    }
  });
  Subscribe({}, root);
  Subscribe({"a"}, blocker);
  auto hold = HoldEventThread();
  Create({"a"});
  Create({"b"});
  hold.gate->Open();
  // "a" and "b" were taken together: "b" now waits in the event thread's own batch.
  ASSERT_TRUE(blocker->WaitFor({"a"}));
  SetValue({"b"}, 1);
  gate->Open();
  Drain();
  EXPECT_THAT(root->Events(), ElementsAre(Pair("a/", 0x01), Pair("b/", 0x02)));
}

TEST_F(DeliveryTest, UpdateMayChangeAndSubscribeAndItsChangeFollowsTheCurrentEvent) {
  // The first observer called for "b" creates "aa" (sorting before "b"), drops the
  // bystander and subscribes a newcomer, which does not join the delivery under way.
  auto const bystander = std::make_shared<Recorder>();
  auto const bystanderId = Subscribe({"c"}, bystander);
  auto const newcomer = std::make_shared<Recorder>();
  auto const codes = std::make_shared<std::vector<int>>();
  auto const done = std::make_shared<std::atomic<bool>>(false);
  auto hook = [&, codes, done](uvc::Path const& path, unsigned char) {
    if (path != uvc::Path{"b"} || done->exchange(true)) return;
    SubscriptionId id{};
    *codes = {creator->CreateSetting({"aa"}, Int(1)), subscriber->Unsubscribe(bystanderId),
              subscriber->Subscribe({}, newcomer, id)};
  };
  auto const x = std::make_shared<Recorder>(hook);
  auto const y = std::make_shared<Recorder>(hook);
  Subscribe({}, x);
  Subscribe({}, y);
  Create({"b"});
  Drain();
  EXPECT_EQ(*codes, (std::vector<int>{0, 0, 0}));
  for (auto const& observer : {x, y}) {
    EXPECT_THAT(observer->Events(), ElementsAre(Pair("b/", 0x01), Pair("aa/", 0x01)));
    for (auto const& call : observer->Calls()) {
      EXPECT_EQ(call.thread, x->Calls().front().thread);
      EXPECT_NE(call.thread, std::this_thread::get_id());
    }
  }
  Create({"c"});
  Drain();
  EXPECT_THAT(bystander->Calls(), IsEmpty());
  EXPECT_THAT(newcomer->Events(), ElementsAre(Pair("aa/", 0x01), Pair("c/", 0x01)));
}

TEST_F(DeliveryTest, ObserverThrowingSkipsTheRestOfThatEventOnly) {
  std::function<void()> const raises[] = {[] { throw std::runtime_error("failed"); },
                                          [] { throw 42; }};
  for (int n = 0; n < 2; ++n) {
    uvc::Path const a{"a" + std::to_string(n)}, b{"b" + std::to_string(n)};
    auto const thrown = std::make_shared<std::atomic<bool>>(false);
    auto hook = [&, thrown](uvc::Path const& path, unsigned char) {
      if (path == a && !thrown->exchange(true)) raises[n]();
    };
    auto x = std::make_shared<Recorder>(hook), y = std::make_shared<Recorder>(hook);
    if (!CalledBefore(x, y)) std::swap(x, y);
    auto const ids = {Subscribe(a, x), Subscribe(a, y), Subscribe(b, x), Subscribe(b, y)};
    Create(a);
    Create(b);
    Drain();
    EXPECT_THAT(x->Events(), ElementsAre(Pair(Text(a), 0x01), Pair(Text(b), 0x01)));
    EXPECT_THAT(y->Events(), ElementsAre(Pair(Text(b), 0x01)));
    for (auto id : ids) EXPECT_RC(subscriber->Unsubscribe(id), 0);
  }
  auto const records = log.ByFunction("NotifyEvent");
  EXPECT_EQ(std::count_if(records.begin(), records.end(),
                          [](auto const& r) {
                            return r.level == LogLevel::Error &&
                                   r.message.find(" NotifyEvent: could not notify clients: ") !=
                                       std::string::npos;
                          }),
            2);
}

TEST_F(DeliveryTest, EventsQueuedBeforeTheLastUnsubscribeAreDropped) {
  auto hold = HoldEventThread();
  auto const observer = std::make_shared<Recorder>();
  auto const id = Subscribe({"a"}, observer);
  Create({"a"});
  // Not in the delivery under way: returns at once.
  ASSERT_RC(subscriber->Unsubscribe(id), 0);
  // The last subscription goes while "a" still waits for the event thread.
  RacingUnsubscribe racing(*subscriber, hold.id);
  EXPECT_TRUE(racing.Refused());
  hold.gate->Open();
  EXPECT_THAT(racing.Join(), ElementsAre(Code(0x8000004Cu), 0));
  // That thread ends only after looking at "a" again with nobody listening.
  ASSERT_TRUE(hold.threadEnded->Wait());
  auto const late = std::make_shared<Recorder>();
  Subscribe({}, late);
  Drain();
  EXPECT_THAT(late->Events(), IsEmpty());
  EXPECT_THAT(observer->Calls(), IsEmpty());
  EXPECT_THAT(UpdateRecords(), Each(Not(HasSubstr(" Update(a/)"))));
}

TEST_F(DeliveryTest, SubscriptionIdsCodesAndRecords) {
  auto const a = std::make_shared<Recorder>();
  SubscriptionId id{};
  ASSERT_RC(subscriber->Subscribe({}, a, id), 0);
  EXPECT_EQ(id, SubscriptionId{1});
  id = SubscriptionId{77};
  EXPECT_RC(subscriber->Subscribe({}, a, id), 0x8000004Du);  // same observer, same path
  EXPECT_RC(subscriber->Subscribe({"a"}, nullptr, id), 0x80000100u);
  for (uvc::Path const& bad : {uvc::Path{std::uint64_t{0}}, {""}, {"a b"}, {"a", "b/c"}})
    EXPECT_RC(subscriber->Subscribe(bad, a, id), 0x80000046u) << Text(bad);
  EXPECT_EQ(id, SubscriptionId{77});
  EXPECT_EQ(Subscribe({"a"}, a), SubscriptionId{2});
  EXPECT_RC(subscriber->Unsubscribe(SubscriptionId{2}), 0);
  EXPECT_EQ(Subscribe({"a"}, a), SubscriptionId{3});  // never reused
  EXPECT_RC(subscriber->Unsubscribe(SubscriptionId{0}), 0x80000046u);
  EXPECT_RC(subscriber->Unsubscribe(SubscriptionId{99}), 0x8000004Cu);
  EXPECT_RC(subscriber->Unsubscribe(SubscriptionId{2}), 0x8000004Cu);

  // The root subscription of `a` goes, the one at "a" stays.
  EXPECT_RC(subscriber->Unsubscribe(SubscriptionId{1}), 0);
  Create({"a", "x"});
  Create({"b"});
  Drain();
  EXPECT_THAT(a->Events(), ElementsAre(Pair("a/x/", 0x01)));

  std::vector<std::string> traced;
  for (auto const* function : {"Subscribe", "Unsubscribe"})
    for (auto const& r : log.ByFunction(function)) {
      EXPECT_EQ(r.file, kManagerSource);
      traced.push_back(std::to_string(int(r.level)) + r.message.substr(11));
    }
  std::string const invalid = "): Invalid argument = 0x80000046";
  EXPECT_EQ(traced, (std::vector<std::string>{"1 Subscribe(): 1", "4 Subscribe(0/" + invalid,
                                              "4 Subscribe(<path to str fail: state = 4>" + invalid,
                                              "4 Subscribe(<path to str fail: state = 7>" + invalid,
                                              "4 Subscribe(<path to str fail: state = 7>" + invalid,
                                              "1 Subscribe(a/): 2", "1 Subscribe(a/): 3",
                                              "1 Subscribe(zzz/): 4", "1 Unsubscribe(): 2",
                                              "1 Unsubscribe(): 1", "1 Unsubscribe(): 4"}));
}

// An observer calling back into the manager from its destructor: the library lets go of
// it outside its registry lock, whether it took it in or refused it.
TEST_F(DeliveryTest, LastReferenceIsReleasedOutsideTheRegistryLock) {
  std::vector<int> codes;
  auto callsBack = [&] {
    return std::make_shared<Recorder>(Recorder::Hook{}, [&, s = subscriber.get()] {
      SubscriptionId id{};
      codes.push_back(s->Subscribe({"b"}, std::make_shared<Recorder>(), id));
      codes.push_back(s->Unsubscribe(id));
    });
  };
  EXPECT_RC(subscriber->Unsubscribe(Subscribe({"a"}, callsBack())), 0);
  SubscriptionId unused{};
  EXPECT_RC(subscriber->Subscribe({""}, callsBack(), unused), 0x80000046u);
  EXPECT_EQ(codes, (std::vector<int>{0, 0, 0, 0}));
}

TEST_F(DeliveryTest, WholeTreeEditIsHeardNodeByNode) {
  struct Case {
    Setting before, after;
    Seen events;
  } const cases[] = {
      {MapOf({{"a", Int(1)}, {"n", Int(2)}}), MapOf({{"a", Int(1)}, {"n", Int(2)}}), {}},
      {MapOf({{"n", Int(1)}}), MapOf({{"n", Int(2)}}), {{"n/", 0x02}}},
      {MapOf({{"n", Int(1)}}), MapOf({{"n", Int(1, true)}}), {{"n/", 0x04}}},
      {MapOf({{"n", Int(2)}}), MapOf({{"n", Str("1", true)}}), {{"n/", 0x06}}},
      {MapOf({{"n", Setting(std::numeric_limits<double>::quiet_NaN())}}),
       MapOf({{"n", Setting(std::numeric_limits<double>::quiet_NaN())}}),
       {}},
      {MapOf({{"a", Int(1)}, {"b", Int(1)}, {"c", MapOf({{"d", Int(1)}})}}),
       MapOf({{"b", Int(2)}, {"c", MapOf({{"d", Int(1, true)}}, true)}, {"e", MapOf({})}}),
       {{"a/", 0x08}, {"b/", 0x02}, {"c/", 0x04}, {"c/d/", 0x04}, {"e/", 0x01}}},
      {MapOf({{"l", ListOf({Int(1)})}}), MapOf({{"l", ListOf({Int(1), Int(2)})}}), {{"l/", 0x02}}},
      {MapOf({{"l", ListOf({Int(1), Int(1)})}}),
       MapOf({{"l", ListOf({Int(1), Int(2)})}}),
       {{"l/1/", 0x02}}},
      {MapOf({{"l", ListOf({})}}), MapOf({{"l", MapOf({})}}), {{"l/", 0x02}}},
  };
  auto const observer = std::make_shared<Recorder>();
  Subscribe({}, observer);
  for (auto const& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.events));
    ASSERT_RC(settings_manager::ReplaceTree(*manager, c.before), 0);
    Drain();
    auto const heard = observer->Events().size();
    EXPECT_RC(settings_manager::ReplaceTree(*manager, c.after), c.events.empty() ? 1 : 0);
    Drain();
    auto const events = observer->Events();
    auto seen = Seen(events.begin() + long(heard), events.end());
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, c.events);
  }
}

}  // namespace
}  // namespace events_test
