// Who is told about which change, with which kind, in which order, on which thread.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include "event_test_util.h"

namespace events_test {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::Pair;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;
using LogLevel = tern::logger::LogLevel;

class DeliveryTest : public EventsTest {
 protected:
  // Two root observers; the first one called for "a" (the lower pointer) throws there.
  void ExpectThrowSkipsTheRestOfThatEvent(std::function<void()> const& raise) {
    auto thrown = std::make_shared<std::atomic<bool>>(false);
    auto hook = [thrown, raise](uvc::Path const& path, unsigned char) {
      if (path == uvc::Path{"a"} && !thrown->exchange(true)) raise();
    };
    auto const x = std::make_shared<Recorder>(hook);
    auto const y = std::make_shared<Recorder>(hook);
    auto const& low = CalledBefore(x, y) ? x : y;
    auto const& high = CalledBefore(x, y) ? y : x;
    Subscribe({}, x);
    Subscribe({}, y);

    Create({"a"});
    Create({"b"});
    Drain();
    EXPECT_THAT(low->Seen(), UnorderedElementsAre(Pair("a/", 0x01), Pair("b/", 0x01)));
    EXPECT_THAT(high->Seen(), ElementsAre(Pair("b/", 0x01)));

    auto const failures = log.ByFunction("NotifyEvent");
    auto const failed = std::count_if(failures.begin(), failures.end(), [](auto const& r) {
      return r.level == LogLevel::Error &&
             r.message.find(" NotifyEvent: could not notify clients: ") != std::string::npos;
    });
    EXPECT_EQ(failed, 1);
  }
};

TEST_F(DeliveryTest, NothingIsQueuedWhileNobodyListens) {
  Create({"a"});
  SetValue({"a"}, 1);
  Create({"b"});

  auto const late = std::make_shared<Recorder>();
  Subscribe({}, late);
  Drain();
  EXPECT_THAT(late->Seen(), IsEmpty());
  EXPECT_THAT(UpdateRecords(), Each(HasSubstr(" Update(zzz/) = ")));
}

TEST_F(DeliveryTest, RootObserverSeesEveryChangeWithItsKind) {
  auto const root = std::make_shared<Recorder>();
  Subscribe({}, root);
  Create({"a"});
  Create({"b", "c"});
  Create({"d"});
  Drain();
  EXPECT_THAT(root->Seen(),
              UnorderedElementsAre(Pair("a/", 0x01), Pair("b/c/", 0x01), Pair("d/", 0x01)));

  SetValue({"a"}, 1);
  ASSERT_EQ(m.setter->SetAttribute({"b", "c"}, Attributes{true}), kOk);
  ASSERT_EQ(m.setter->SetSetting({"d"}, Int(7)), kOk);
  ASSERT_EQ(m.deleter->DeleteSetting({"b"}), kOk);
  Drain();
  auto seen = root->Seen();
  ASSERT_EQ(seen.size(), 7u);
  seen.erase(seen.begin(), seen.begin() + 3);
  EXPECT_THAT(seen, UnorderedElementsAre(Pair("a/", 0x02), Pair("b/c/", 0x04), Pair("d/", 0x06),
                                         Pair("b/", 0x08)));

  auto const records = UpdateRecords();
  for (auto const* tail : {" Update(a/) = New: 1 client(s)", " Update(a/) = Val: 1 client(s)",
                           " Update(b/c/) = Atr: 1 client(s)", " Update(d/) = Val:Atr: 1 client(s)",
                           " Update(b/) = Del: 1 client(s)"})
    EXPECT_THAT(records, Contains(EndsWith(tail)));
}

TEST_F(DeliveryTest, ObserverSeesItsPathAndBelowButNotParentOrSiblings) {
  auto const observer = std::make_shared<Recorder>();
  Subscribe({"p", "c"}, observer);
  Create({"p", "c", "e"});
  Create({"p", "d"});
  Create({"p", "cc"});
  Create({"p", "c", "g", "h"});
  Create({"q"});
  ASSERT_EQ(m.setter->SetAttribute({"p"}, Attributes{true}), kOk);
  ASSERT_EQ(m.setter->SetAttribute({"p", "c"}, Attributes{true}), kOk);
  Drain();
  EXPECT_THAT(observer->Seen(), UnorderedElementsAre(Pair("p/c/e/", 0x01), Pair("p/c/g/h/", 0x01),
                                                     Pair("p/c/", 0x04)));
}

TEST_F(DeliveryTest, ObserverAtRootAndChildIsCalledOncePerEvent) {
  auto const observer = std::make_shared<Recorder>();
  Subscribe({}, observer);
  Subscribe({"a"}, observer);
  Create({"a", "x"});
  ASSERT_EQ(m.setter->SetAttribute({"a"}, Attributes{true}), kOk);
  Drain();
  EXPECT_THAT(observer->Seen(), UnorderedElementsAre(Pair("a/x/", 0x01), Pair("a/", 0x04)));
  EXPECT_THAT(UpdateRecords(), Contains(EndsWith(" Update(a/x/) = New: 1 client(s)")));
}

TEST_F(DeliveryTest, ChangesWaitingTogetherGiveOneDeliveryWithTheLastKind) {
  auto const observer = std::make_shared<Recorder>();
  Subscribe({"c"}, observer);
  Subscribe({"d"}, observer);
  Create({"d"});
  Drain();

  auto hold = HoldEventThread();
  Create({"c"});
  SetValue({"c"}, 1);
  SetValue({"d"}, 1);
  ASSERT_EQ(m.deleter->DeleteSetting({"d"}), kOk);
  hold.gate->Open();
  Drain();
  EXPECT_THAT(observer->Seen(),
              UnorderedElementsAre(Pair("d/", 0x01), Pair("c/", 0x02), Pair("d/", 0x08)));

  std::vector<test_support::CapturedRecord> forC;
  for (auto const& record : log.ByFunction("NotifyEvent"))
    if (record.message.find(" Update(c/)") != std::string::npos) forC.push_back(record);
  ASSERT_EQ(forC.size(), 1u);
  EXPECT_EQ(forC[0].level, LogLevel::Debug);
  EXPECT_EQ(forC[0].file, "settings_manager/src/settings_manager");
  EXPECT_THAT(forC[0].message,
              AllOf(StartsWith("[SM] -"), EndsWith(" Update(c/) = Val: 1 client(s)")));
}

TEST_F(DeliveryTest, ChangesWaitingTogetherGoOutInPathOrder) {
  auto const root = std::make_shared<Recorder>();
  Subscribe({}, root);
  auto hold = HoldEventThread();
  Create({"b"});
  Create({"a"});
  hold.gate->Open();
  Drain();
  EXPECT_THAT(root->Seen(), ElementsAre(Pair("a/", 0x01), Pair("b/", 0x01)));
}

TEST_F(DeliveryTest, ChangeOfAPathAlreadyTakenForDeliveryReplacesItsKind) {
  auto const root = std::make_shared<Recorder>();
  auto gate = std::make_shared<Gate>();
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
  EXPECT_THAT(root->Seen(), ElementsAre(Pair("a/", 0x01), Pair("b/", 0x02)));
}

TEST_F(DeliveryTest, ChangeMadeInsideUpdateFollowsTheCurrentEventOnTheSameThread) {
  // Whichever observer is called first for "b" creates "aa", which sorts before "b".
  auto made = std::make_shared<std::atomic<int>>(-1);
  auto* const creator = m.creator.get();
  auto hook = [made, creator](uvc::Path const& path, unsigned char) {
    int expected = -1;
    if (path == uvc::Path{"b"} && made->compare_exchange_strong(expected, 0))
      *made = creator->CreateSetting({"aa"}, Int(1));
  };
  auto const x = std::make_shared<Recorder>(hook);
  auto const y = std::make_shared<Recorder>(hook);
  Subscribe({}, x);
  Subscribe({}, y);
  Create({"b"});
  Drain();
  EXPECT_EQ(*made, kOk);

  // Both hear of "b" before either hears of "aa".
  for (auto const& observer : {x, y}) {
    EXPECT_THAT(observer->Seen(), ElementsAre(Pair("b/", 0x01), Pair("aa/", 0x01)));
    auto const calls = observer->Calls();
    for (auto const& call : calls) {
      EXPECT_EQ(call.thread, calls.front().thread);
      EXPECT_NE(call.thread, std::this_thread::get_id());
    }
  }
  EXPECT_EQ(x->Calls().front().thread, y->Calls().front().thread);
}

TEST_F(DeliveryTest, ObserverThrowingStandardExceptionSkipsTheRestOfThatEventOnly) {
  ExpectThrowSkipsTheRestOfThatEvent([] { throw std::runtime_error("observer failed"); });
}

TEST_F(DeliveryTest, ObserverThrowingAnythingElseSkipsTheRestOfThatEventOnly) {
  ExpectThrowSkipsTheRestOfThatEvent([] { throw 42; });
}

TEST_F(DeliveryTest, EventsQueuedBeforeTheLastUnsubscribeAreDropped) {
  auto hold = HoldEventThread();
  auto const observer = std::make_shared<Recorder>();
  auto const id = Subscribe({"a"}, observer);
  Create({"a"});
  // Not in the delivery under way: returns at once.
  ASSERT_EQ(m.subscriber->Unsubscribe(id), kOk);
  // The last subscription goes while "a" still waits for the event thread.
  RacingUnsubscribe racing(*m.subscriber, hold.id);
  EXPECT_TRUE(racing.Refused());
  hold.gate->Open();
  EXPECT_THAT(racing.Join(), ElementsAre(kNotFound, kOk));
  // That thread ends only after it has looked at "a" again, with nobody listening; a
  // subscriber arriving before that look would still be told.
  ASSERT_TRUE(hold.threadEnded->Wait());

  auto const late = std::make_shared<Recorder>();
  Subscribe({}, late);
  Drain();
  EXPECT_THAT(late->Seen(), IsEmpty());
  EXPECT_THAT(observer->Calls(), IsEmpty());
  EXPECT_THAT(UpdateRecords(), Each(Not(HasSubstr(" Update(a/)"))));
}

}  // namespace
}  // namespace events_test
