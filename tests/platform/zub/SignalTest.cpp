// Notification delivery: what handlers may do while a notification is delivered.

#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/zub/Collection.h"

namespace {

class Thing : public Zub::Entity {
 public:
  explicit Thing(const Zub::Name& name) : Entity(name) {}
  ZUB_ATTR(int, level)
  ZUB_COUNTER(uint32_t, hits)
};

class Owner : public Zub::Entity {
 public:
  explicit Owner(const Zub::Name& name) : Entity(name) {}
  ZUB_COLL(thing, Zub::OrderedCollection<Zub::Name, Zub::Ptr<Thing>>)
};

// A reactor that runs a test-provided action on every notification of `level` and
// records whether it was destroyed while its handler was running.
class Watcher : public Zub::Reactor {
 public:
  Watcher(Zub::Ptr<Thing> thing, std::string tag, std::vector<std::string>* log)
      : thing_(std::move(thing)), tag_(std::move(tag)), log_(log) {
    watch(thing_->levelSignal(), [this] { handleLevel(); });
  }
  ~Watcher() override {
    if (inHandler_) destroyedInHandler = true;
    destroyed = true;
  }
  void handleLevel() {
    inHandler_ = true;
    log_->push_back(tag_);
    if (action) action();
    calls++;  // touches this after the action: must still be alive
    inHandler_ = false;
  }
  std::function<void()> action;
  int calls = 0;
  static inline bool destroyedInHandler = false;
  static inline bool destroyed = false;

 private:
  Zub::Ptr<Thing> thing_;
  std::string tag_;
  std::vector<std::string>* log_;
  bool inHandler_ = false;
};

TEST(Signal, SetterNotifiesOnlyWhenTheValueChanges) {
  Zub::Ptr<Thing> t(new Thing("t"));
  int calls = 0;
  auto sub = t->levelSignal().connect(nullptr, [&] { ++calls; });
  t->levelIs(0);  // the default
  EXPECT_EQ(calls, 0);
  t->levelIs(3);
  t->levelIs(3);
  EXPECT_EQ(calls, 1);
  t->hitsInc();
  t->hitsInc(2);
  EXPECT_EQ(t->hits(), 3u);
  sub.reset();
  t->levelIs(4);
  EXPECT_EQ(calls, 1);
}

// A handler that drops its own reactor, and one that drops a later subscriber: the
// running handler finishes safely, the dropped subscriber hears nothing more.
TEST(Signal, HandlerDeletesTheNotifiedReactorOrALaterSubscriber) {
  Zub::Ptr<Thing> t(new Thing("t"));
  std::vector<std::string> log;
  std::map<std::string, Zub::Ptr<Watcher>> owner;
  for (const char* tag : {"a", "b", "c"}) owner[tag] = Zub::makeReactor<Watcher>(t, tag, &log);
  Watcher::destroyed = Watcher::destroyedInHandler = false;
  owner["a"]->action = [&] { owner.erase("a"); };  // the owner drops the reactor mid-handler
  owner["b"]->action = [&] { owner.erase("c"); };
  t->levelIs(1);
  EXPECT_TRUE(Watcher::destroyed);
  EXPECT_FALSE(Watcher::destroyedInHandler);
  EXPECT_EQ(log, (std::vector<std::string>{"a", "b"}));
  t->levelIs(2);  // "a" and "c" are gone for good
  EXPECT_EQ(log, (std::vector<std::string>{"a", "b", "b"}));
}

TEST(Signal, SubscriptionsAddedDuringDeliveryGetTheNextNotification) {
  Zub::Ptr<Thing> t(new Thing("t"));
  std::vector<std::string> log;
  std::vector<Zub::Subscription> added;
  auto first = t->levelSignal().connect(nullptr, [&] {
    log.push_back("first");
    added.push_back(t->levelSignal().connect(nullptr, [&] { log.push_back("added"); }));
  });
  t->levelIs(1);
  EXPECT_EQ(log, (std::vector<std::string>{"first"}));
  first.reset();
  t->levelIs(2);
  EXPECT_EQ(log, (std::vector<std::string>{"first", "added"}));
}

TEST(Signal, HandlerDestroysTheNotifyingEntity) {
  Zub::Ptr<Owner> owner(new Owner("root"));
  Zub::Ptr<Thing> t = owner->thingIs("x");
  Thing* raw = t.get();
  t = nullptr;  // the collection holds the only reference
  int later = 0;
  auto s1 = raw->levelSignal().connect(nullptr, [&] { owner->thingDel("x"); });
  auto s2 = raw->levelSignal().connect(nullptr, [&] { ++later; });
  raw->levelIs(5);  // deletes the entity from inside its own notification
  EXPECT_EQ(later, 0);
  EXPECT_FALSE(owner->thingHas("x"));
}

// While a member is announced, handlers delete other members and add new ones: every
// member is announced once, in order, and the collection ends as the handlers left it.
TEST(Signal, HandlersChangeTheCollectionWhileAMemberIsAnnounced) {
  Zub::Ptr<Owner> owner(new Owner("root"));
  for (const char* k : {"a", "b", "c"}) owner->thingIs(k);
  std::vector<std::string> seen;
  auto sub = owner->thingSignal().connect(nullptr, [&](const Zub::Name& k) {
    seen.push_back(k);
    if (k == "a") owner->thingDel("b");
  });
  owner->thingDelAll();
  EXPECT_EQ(seen, (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(owner->thingSize(), 0u);
  seen.clear();
  sub = owner->thingSignal().connect(nullptr, [&](const Zub::Name& k) {
    seen.push_back(k);
    if (k == "a") owner->thingIs("b");  // nested notification for "b"
  });
  EXPECT_TRUE(owner->thingIs("a"));
  EXPECT_EQ(seen, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(owner->thingColl().keys(), (std::vector<std::string>{"a", "b"}));
}

TEST(Signal, AThrowingHandlerLeavesTheSignalConsistentAndReachesTheCaller) {
  Zub::Ptr<Thing> t(new Thing("t"));
  std::vector<std::string> log;
  bool throwing = true;
  auto first = t->levelSignal().connect(nullptr, [&] {
    log.push_back("first " + std::to_string(t->level()));
    if (throwing) throw std::runtime_error("refused");
  });
  auto second = t->levelSignal().connect(
      nullptr, [&] { log.push_back("second " + std::to_string(t->level())); });
  EXPECT_THROW(t->levelIs(1), std::runtime_error);
  EXPECT_EQ(t->level(), 1);  // the change is stored
  throwing = false;
  t->levelIs(2);
  EXPECT_EQ(log, (std::vector<std::string>{"first 1", "first 2", "second 2"}));
  // Not stuck "delivering": removed slots are freed at once, not retired for ever.
  for (int i = 0; i < 1000; ++i) {
    auto s = t->levelSignal().connect(nullptr, [] {});
  }
  EXPECT_EQ(t->levelSignal().slotsForTest(), 2u);
}

}  // namespace
