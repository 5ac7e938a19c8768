#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/Reactor.h"

using namespace Ulo;

TEST(Notifier, CallsSubscribersInOrderUntilTheyUnsubscribeOrTheNotifierGoes) {
   Notifier<int, std::string> changed;
   std::vector<std::string> calls;
   Subscription a = changed.subscribe(
       [&](int i, const std::string& s) { calls.push_back("a" + std::to_string(i) + s); });
   Subscription b = changed.subscribe(
       [&](int i, const std::string&) { calls.push_back("b" + std::to_string(i)); });
   changed.notify(1, "x");
   b.reset();
   changed.notify(2, "y");
   EXPECT_EQ(calls, (std::vector<std::string>{"a1x", "b1", "a2y"}));
   EXPECT_EQ(changed.subscribers(), 1u);
   { Subscription moved = std::move(a); }
   changed.notify(3, "z");
   EXPECT_EQ(calls.size(), 3u);
   EXPECT_EQ(changed.subscribers(), 0u);
}

TEST(Notifier, SubscribersMayChangeTheListWhileNotified) {
   Notifier<int> changed;
   std::vector<int> seen;
   Subscription late, self;
   self = changed.subscribe([&](int i) {
      seen.push_back(i);
      self.reset();  // unsubscribe itself mid-notification
      late = changed.subscribe([&](int j) { seen.push_back(100 + j); });
   });
   Subscription other = changed.subscribe([&](int i) { seen.push_back(10 + i); });
   changed.notify(1);  // the late subscriber waits for the next notification
   changed.notify(2);
   EXPECT_EQ(seen, (std::vector<int>{1, 11, 12, 102}));

   // A subscriber may destroy the notifier itself: the rest of that notification still runs,
   // and the subscriptions end with it (and may outlive it harmlessly).
   auto owner = std::make_unique<Notifier<int>>();
   Subscription killer = owner->subscribe([&](int) { owner.reset(); });
   Subscription after = owner->subscribe([&](int i) { seen.push_back(1000 + i); });
   EXPECT_TRUE(after.active());
   owner->notify(3);
   EXPECT_EQ(owner, nullptr);
   EXPECT_EQ(seen.back(), 1003);
   EXPECT_FALSE(killer.active());
   EXPECT_FALSE(after.active());
}

TEST(Notifier, AThrowingSubscriberLeavesTheListUsable) {
   Notifier<int> n;
   Subscription thrower = n.subscribe([](int v) {
      if (v == 1) throw std::runtime_error("boom");
   });
   int calls = 0;
   Subscription counter = n.subscribe([&](int) { ++calls; });
   EXPECT_THROW(n.notify(1), std::runtime_error);
   thrower.reset();
   EXPECT_EQ(n.subscribers(), 1u);
   n.notify(2);
   EXPECT_EQ(calls, 1);
}

namespace {
struct Counter : Reactor {
   explicit Counter(Notifier<int>& n) {
      watch(n, [this](int v) { sum += v; });
   }
   int sum = 0;
};
}  // namespace

TEST(Reactor, NotificationSwitchAndLifetime) {
   Notifier<int> n;
   {
      Counter c(n);
      n.notify(2);
      c.hasNotificationActiveIs(false);
      n.notify(5);
      c.hasNotificationActiveIs(true);
      n.notify(7);
      EXPECT_EQ(c.sum, 9);
   }
   EXPECT_EQ(n.subscribers(), 0u);  // the reactor's subscriptions ended with it
}
