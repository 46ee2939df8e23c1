// Many client threads changing, subscribing and unsubscribing while deliveries run.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "event_test_util.h"

namespace events_test {
namespace {

constexpr int kClients = 4;
constexpr int kOperations = 200;
constexpr int kChurners = 4;
constexpr int kChurns = 200;

// Checks what every observer of the test may rely on, whoever it is.
struct Watch {
  std::weak_ptr<settings_manager::ISettingsManager> manager;
  std::atomic<bool> destroyed{false};
  std::atomic<int> running{0};
  std::atomic<int> overlapping{0};
  std::atomic<int> lateStarts{0};  // began after the manager's last owner let go
  std::atomic<int> afterDestruction{0};
  std::atomic<int> insideAtReturn{0};  // Unsubscribe returned while its observer ran
  std::atomic<int> stillHeld{0};       // ... or while the library still held it

  void Enter() {
    if (running.fetch_add(1) != 0) ++overlapping;
    if (manager.expired()) ++lateStarts;
    if (destroyed) ++afterDestruction;
  }
  void Leave() { --running; }
};

class Checked : public Recorder {
 public:
  explicit Checked(std::shared_ptr<Watch> watch) : watch_(std::move(watch)) {}
  void Update(uvc::Path const& path, unsigned char kind) override {
    watch_->Enter();
    inside = true;
    called = true;
    Recorder::Update(path, kind);
    // Lets an Unsubscribe come in while the call is still under way.
    std::this_thread::yield();
    inside = false;
    watch_->Leave();
  }
  std::atomic<bool> inside{false};
  std::atomic<bool> called{false};

 private:
  std::shared_ptr<Watch> const watch_;
};

// Changed over and over while the churners run.
uvc::Path const kPulse{"pulse"};

// The paths client `c` owns; no other thread changes them.
uvc::Path Owned(int c, int i) { return {"t" + std::to_string(c), "k" + std::to_string(i)}; }

// Changes its own paths in a fixed pseudo-random order; returns the last delivered
// kind each changed path must end with.
std::map<std::string, int> RunClient(Owners const& m, int c) {
  struct State {
    bool exists = false;
    bool readOnly = false;
  };
  std::map<std::string, int> last;
  State state[3];
  std::uint32_t seed = 12345u + static_cast<std::uint32_t>(c);
  for (int n = 0; n < kOperations; ++n) {
    seed = seed * 1103515245u + 12345u;
    int const i = static_cast<int>((seed >> 8) % 3);
    int const op = static_cast<int>((seed >> 16) % 4);
    auto const path = Owned(c, i);
    auto& s = state[i];
    if (!s.exists) {
      EXPECT_EQ(m.creator->CreateSetting(path, Int(n)), kOk);
      s = {true, false};
      last[Text(path)] = 0x01;
    } else if (op == 0) {
      EXPECT_EQ(m.valueSetter->SetValue(path, uvc::TValue<Setting>(n)),
                s.readOnly ? kProhibited : kOk);
      if (!s.readOnly) last[Text(path)] = 0x02;
    } else if (op == 1) {
      s.readOnly = !s.readOnly;
      EXPECT_EQ(m.setter->SetAttribute(path, Attributes{s.readOnly}), kOk);
      last[Text(path)] = 0x04;
    } else if (op == 2) {
      EXPECT_EQ(m.setter->SetSetting(path, Setting(n, Attributes{s.readOnly})), kOk);
      last[Text(path)] = 0x06;
    } else {
      EXPECT_EQ(m.deleter->DeleteSetting(path), kOk);
      s = {};
      last[Text(path)] = 0x08;
    }
  }
  return last;
}

// Subscribes short-lived observers, unsubscribes each and destroys it as soon as its
// Unsubscribe has returned. Every other one listens where the pulse is felt and goes
// while it is being called, when Unsubscribe has to wait.
void RunChurner(Owners const& m, std::shared_ptr<Watch> const& watch, int c) {
  std::vector<uvc::Path> const places{{"t0"}, {"t1", "k1"}, {"t2"}, {"t3", "k2"}, {"none"}};
  auto const giveUp = std::chrono::steady_clock::now() + kPatience;
  for (int n = 0; n < kChurns; ++n) {
    bool const whileCalled = n % 2 == 0;
    auto observer = std::make_shared<Checked>(watch);
    SubscriptionId id{};
    EXPECT_EQ(m.subscriber->Subscribe(whileCalled ? (n % 4 == 0 ? uvc::Path{} : kPulse)
                                                  : places[static_cast<std::size_t>(n + c) % 5],
                                      observer, id),
              kOk);
    while (whileCalled && !observer->called && std::chrono::steady_clock::now() < giveUp)
      std::this_thread::yield();
    EXPECT_EQ(m.subscriber->Unsubscribe(id), kOk);
    if (observer->inside) ++watch->insideAtReturn;
    if (observer.use_count() != 1) ++watch->stillHeld;
  }  // the last reference goes here
}

using StressTest = EventsTest;

TEST_F(StressTest, ConcurrentChangesAndSubscriptionsKeepTheDeliveryPromises) {
  auto const watch = std::make_shared<Watch>();
  watch->manager = m.manager;
  auto const root = std::make_shared<Checked>(watch);
  auto const dual = std::make_shared<Checked>(watch);  // at the root and at "t0"
  Subscribe({}, root);
  Subscribe({}, dual);
  Subscribe({"t0"}, dual);

  std::vector<std::map<std::string, int>> expected(kClients);
  {
    // One pulse at a time: the next once the last is being delivered (so that the two
    // are never merged into one event).
    auto const pacer = std::make_shared<Recorder>();
    Subscribe(kPulse, pacer);
    Create(kPulse);
    ASSERT_TRUE(pacer->WaitForCalls(1));
    std::atomic<int> churning{kChurners};
    std::vector<std::thread> threads;
    for (int c = 0; c < kClients; ++c)
      threads.emplace_back([&, c] { expected[static_cast<std::size_t>(c)] = RunClient(m, c); });
    for (int c = 0; c < kChurners; ++c)
      threads.emplace_back([&, c] {
        RunChurner(m, watch, c);
        --churning;
      });
    for (std::int32_t value = 1; churning != 0; ++value) {
      EXPECT_EQ(m.valueSetter->SetValue(kPulse, uvc::TValue<Setting>(value)), kOk);
      EXPECT_TRUE(pacer->WaitForCalls(static_cast<std::size_t>(value) + 1));
    }
    for (auto& thread : threads) thread.join();
  }
  Drain();

  // The root observer ends every changed path with the kind of its last change.
  std::map<std::string, int> lastSeen;
  for (auto const& [path, kind] : root->Seen()) lastSeen[path] = kind;
  for (auto const& paths : expected)
    for (auto const& [path, kind] : paths) EXPECT_EQ(lastSeen[path], kind) << path;

  // Once per event: each event logged with its clients reached both root observers once
  // (the sentinel's may still be under way).
  std::map<std::string, int> events;
  for (auto const& message : UpdateRecords()) {
    auto const open = message.find(" Update(") + 8;
    ++events[message.substr(open, message.find(") = ", open) - open)];
  }
  std::map<std::string, int> rootCalls;
  std::map<std::string, int> dualCalls;
  for (auto const& call : root->Calls()) ++rootCalls[Text(call.path)];
  for (auto const& call : dual->Calls()) ++dualCalls[Text(call.path)];
  for (auto* counts : {&events, &rootCalls, &dualCalls}) counts->erase(Text(kSentinel));
  EXPECT_GE(events.size(), static_cast<std::size_t>(kClients * 3));
  EXPECT_EQ(rootCalls, events);
  EXPECT_EQ(dualCalls, events);

  EXPECT_EQ(watch->insideAtReturn, 0);
  EXPECT_EQ(watch->stillHeld, 0);
  EXPECT_EQ(watch->overlapping, 0);

  // Destruction in the middle of a burst: an Update in progress finishes before the last
  // release returns; none starts once the last owner has let go (but for one that was
  // starting right then).
  for (int n = 0; n < 50; ++n)
    ASSERT_EQ(m.creator->CreateSetting({"burst" + std::to_string(n)}, Int(n)), kOk);
  TakeOwners();
  watch->destroyed = true;
  EXPECT_EQ(watch->running, 0);
  EXPECT_LE(watch->lateStarts, 1);
  EXPECT_EQ(watch->afterDestruction, 0);
}

}  // namespace
}  // namespace events_test
