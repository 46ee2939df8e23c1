// The registry of observers: ids, refusals, records, and where the library lets go of
// an observer.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "event_test_util.h"

namespace events_test {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::StartsWith;
using LogLevel = tern::logger::LogLevel;

using SubscriptionTest = EventsTest;

TEST_F(SubscriptionTest, IdsCountFromOneAndARefusedDuplicateUsesNone) {
  auto const a = std::make_shared<Recorder>();
  auto const b = std::make_shared<Recorder>();
  SubscriptionId id{};
  ASSERT_EQ(m.subscriber->Subscribe({}, a, id), kOk);
  EXPECT_EQ(id, SubscriptionId{1});

  id = SubscriptionId{77};
  EXPECT_EQ(m.subscriber->Subscribe({}, a, id), kFound);
  EXPECT_EQ(id, SubscriptionId{77});

  ASSERT_EQ(m.subscriber->Subscribe({}, b, id), kOk);
  EXPECT_EQ(id, SubscriptionId{2});
  ASSERT_EQ(m.subscriber->Subscribe({"a"}, a, id), kOk);
  EXPECT_EQ(id, SubscriptionId{3});
  // Numbers are not reused after an Unsubscribe.
  ASSERT_EQ(m.subscriber->Unsubscribe(SubscriptionId{3}), kOk);
  ASSERT_EQ(m.subscriber->Subscribe({"a"}, a, id), kOk);
  EXPECT_EQ(id, SubscriptionId{4});
}

TEST_F(SubscriptionTest, OneObserverAtRootAndChildHasTwoIndependentSubscriptions) {
  auto const observer = std::make_shared<Recorder>();
  auto const atRoot = Subscribe({}, observer);
  auto const atA = Subscribe({"a"}, observer);
  EXPECT_NE(atRoot, atA);

  ASSERT_EQ(m.subscriber->Unsubscribe(atRoot), kOk);
  Create({"a", "x"});
  Create({"b"});
  Drain();
  // Still listening at "a", no longer at the root.
  EXPECT_THAT(observer->Seen(), ElementsAre(Pair("a/x/", 0x01)));

  ASSERT_EQ(m.subscriber->Unsubscribe(atA), kOk);
  SetValue({"a", "x"}, 5);
  Drain();
  EXPECT_EQ(observer->Seen().size(), 1u);
}

TEST_F(SubscriptionTest, RootAndPathsNotYetCreatedAreAccepted) {
  auto const observer = std::make_shared<Recorder>();
  Subscribe({}, observer);
  Subscribe({"later", "here"}, observer);
  Create({"later", "here"}, 1);
  Drain();
  // Called once although subscribed twice on the way to the path.
  EXPECT_THAT(observer->Seen(), ElementsAre(Pair("later/here/", 0x01)));
}

TEST_F(SubscriptionTest, InvalidPathIsRefusedAndLogged) {
  auto const observer = std::make_shared<Recorder>();
  std::vector<uvc::Path> const invalid{{std::uint64_t{0}}, {""}, {"a b"}, {"a", "b/c"}};
  for (auto const& path : invalid) {
    SubscriptionId id{42};
    EXPECT_EQ(m.subscriber->Subscribe(path, observer, id), kInvalidArgument);
    EXPECT_EQ(id, SubscriptionId{42});
  }
  auto const records = log.ByFunction("Subscribe");
  ASSERT_EQ(records.size(), invalid.size());
  for (auto const& record : records) {
    EXPECT_EQ(record.level, LogLevel::Error);
    EXPECT_EQ(record.file, "settings_manager/src/settings_manager");
    EXPECT_THAT(record.message, StartsWith("[SM] -"));
    EXPECT_THAT(record.message, ::testing::HasSubstr(" Subscribe("));
  }
  // Nothing was registered and no id was used up.
  EXPECT_EQ(Subscribe({"a"}, observer), SubscriptionId{1});
}

TEST_F(SubscriptionTest, EmptyObserverIsRefusedWithoutRecord) {
  SubscriptionId id{9};
  EXPECT_EQ(m.subscriber->Subscribe({"a"}, nullptr, id), kClassNotFound);
  EXPECT_EQ(id, SubscriptionId{9});
  EXPECT_THAT(log.ByFunction("Subscribe"), IsEmpty());
  EXPECT_EQ(Subscribe({"a"}, std::make_shared<Recorder>()), SubscriptionId{1});
}

TEST_F(SubscriptionTest, UnsubscribeRefusesZeroUnknownAndRepeatedIds) {
  auto const id = Subscribe({"a"}, std::make_shared<Recorder>());
  EXPECT_EQ(m.subscriber->Unsubscribe(SubscriptionId{0}), kInvalidArgument);
  EXPECT_EQ(m.subscriber->Unsubscribe(SubscriptionId{99}), kNotFound);
  EXPECT_EQ(m.subscriber->Unsubscribe(id), kOk);
  EXPECT_EQ(m.subscriber->Unsubscribe(id), kNotFound);
  // Only the one success is logged.
  EXPECT_EQ(log.ByFunction("Unsubscribe").size(), 1u);
}

TEST_F(SubscriptionTest, SuccessesAreTracedAtLevelOne) {
  auto const id = Subscribe({"a"}, std::make_shared<Recorder>());
  ASSERT_EQ(m.subscriber->Unsubscribe(id), kOk);

  auto const subscribed = log.ByFunction("Subscribe");
  ASSERT_EQ(subscribed.size(), 1u);
  EXPECT_EQ(subscribed[0].level, LogLevel::Debug);
  EXPECT_EQ(subscribed[0].file, "settings_manager/src/settings_manager");
  EXPECT_THAT(subscribed[0].message, StartsWith("[SM] -"));
  EXPECT_THAT(subscribed[0].message, EndsWith(" Subscribe(a/): 1"));

  auto const unsubscribed = log.ByFunction("Unsubscribe");
  ASSERT_EQ(unsubscribed.size(), 1u);
  EXPECT_EQ(unsubscribed[0].level, LogLevel::Debug);
  EXPECT_THAT(unsubscribed[0].message, EndsWith(" Unsubscribe(): 1"));
  // Both carry the same manager prefix.
  EXPECT_EQ(subscribed[0].message.substr(0, 10), unsubscribed[0].message.substr(0, 10));
}

// Calls back into the manager from its destructor, as a client's observer may.
class CallsBackWhenDestroyed : public ISettingsUpdateObserver {
 public:
  struct Outcome {
    int subscribed = -1;
    int unsubscribed = -1;
  };
  CallsBackWhenDestroyed(settings_manager::ISettingsUpdateSubscriber& subscriber, Outcome& outcome)
      : subscriber_(subscriber), outcome_(outcome) {}
  ~CallsBackWhenDestroyed() override {
    SubscriptionId id{};
    outcome_.subscribed = subscriber_.Subscribe({"b"}, std::make_shared<Recorder>(), id);
    outcome_.unsubscribed = subscriber_.Unsubscribe(id);
  }
  void Update(uvc::Path const&, unsigned char) override {}

 private:
  settings_manager::ISettingsUpdateSubscriber& subscriber_;
  Outcome& outcome_;
};

TEST_F(SubscriptionTest, LastReferenceIsReleasedOutsideTheRegistryLock) {
  CallsBackWhenDestroyed::Outcome outcome;
  // The manager holds the only reference, so Unsubscribe destroys the observer.
  auto const id =
      Subscribe({"a"}, std::make_shared<CallsBackWhenDestroyed>(*m.subscriber, outcome));
  EXPECT_EQ(m.subscriber->Unsubscribe(id), kOk);
  EXPECT_EQ(outcome.subscribed, kOk);
  EXPECT_EQ(outcome.unsubscribed, kOk);

  // The same when the observer is refused: the caller's copy is the last one.
  CallsBackWhenDestroyed::Outcome refused;
  SubscriptionId unused{};
  EXPECT_EQ(m.subscriber->Subscribe(
                {""}, std::make_shared<CallsBackWhenDestroyed>(*m.subscriber, refused), unused),
            kInvalidArgument);
  EXPECT_EQ(refused.subscribed, kOk);
  EXPECT_EQ(refused.unsubscribed, kOk);
}

}  // namespace
}  // namespace events_test
