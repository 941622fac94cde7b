// Reactor lifetime: teardown when the last reference goes, and the child map.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/zub/ChildMap.h"
#include "platform/zub/Collection.h"

namespace {

class Row : public Zub::Entity {
 public:
  explicit Row(const Zub::Name& n) : Entity(n) {}
  ZUB_ATTR(int, level)
};

class Table : public Zub::Entity {
 public:
  explicit Table(const Zub::Name& n) : Entity(n) {}
  ZUB_COLL(row, Zub::OrderedCollection<Zub::Name, Zub::Ptr<Row>>)
};

// Writes one row and deletes it again when it goes, hearing about every row change
// meanwhile (among them the deletion of its own row, from its own teardown).
class RowWriterSm : public Zub::Reactor {
 public:
  RowWriterSm(Zub::Ptr<Table> t, Zub::Name key, std::vector<std::string>* log)
      : table_(std::move(t)), key_(std::move(key)), log_(log) {
    watch(table_->rowSignal(), [this](const Zub::Name& k) { seen_.push_back(k); });
  }
  void handleInitialized() override { table_->rowIs(key_); }
  void handleDestroyed() override {
    log_->push_back("teardown " + key_ + " seen " + std::to_string(seen_.size()));
    table_->rowDel(key_);  // notifies: every other watcher must still be safe
  }
  ~RowWriterSm() override { log_->push_back("deleted " + key_); }

 private:
  Zub::Ptr<Table> table_;
  Zub::Name key_;
  std::vector<std::string>* log_;
  std::vector<Zub::Name> seen_ = std::vector<Zub::Name>(4);  // a member a late handler would use
};

TEST(Reactor, TeardownDeletesWhatTheReactorWroteBeforeAnyMemberIsGone) {
  Zub::Ptr<Table> t(new Table("t"));
  std::vector<std::string> log;
  auto sm = Zub::makeReactor<RowWriterSm>(t, "mine", &log);
  auto other = Zub::makeReactor<RowWriterSm>(t, "other", &log);
  EXPECT_EQ(t->rowSize(), 2u);
  sm = nullptr;
  // The reactor's own handler was detached before its teardown changed the table; the
  // other reactor heard the deletion.
  EXPECT_EQ(log, (std::vector<std::string>{"teardown mine seen 6", "deleted mine"}));
  EXPECT_FALSE(t->rowHas("mine"));
  other = nullptr;
  EXPECT_EQ(t->rowSize(), 0u);
}

// A reactor whose teardown hands out a reference for a moment (a handler that keeps it
// alive while it runs): the teardown runs once, the object is deleted once.
class KeptDuringTeardownSm : public Zub::Reactor {
 public:
  explicit KeptDuringTeardownSm(int* teardowns) : teardowns_(teardowns) {}
  void handleDestroyed() override {
    ++*teardowns_;
    Zub::Ptr<KeptDuringTeardownSm> keep(this);
    kept = keep;
  }
  static inline Zub::Ptr<KeptDuringTeardownSm> kept;

 private:
  int* teardowns_;
};

TEST(Reactor, AReferenceTakenDuringTeardownDelaysTheDeleteNotTheTeardown) {
  int teardowns = 0;
  auto sm = Zub::makeReactor<KeptDuringTeardownSm>(&teardowns);
  sm = nullptr;
  EXPECT_EQ(teardowns, 1);
  ASSERT_TRUE(KeptDuringTeardownSm::kept);
  EXPECT_TRUE(KeptDuringTeardownSm::kept->destroying());
  KeptDuringTeardownSm::kept = nullptr;  // deleted here, without a second teardown
  EXPECT_EQ(teardowns, 1);
}

// ---- the child map alone, on plain keys -----------------------------------------------

class ChildSm : public Zub::Reactor {
 public:
  ChildSm(int key, int input, std::vector<std::string>* log) : key_(key), input_(input), log_(log) {
    log_->push_back("make " + std::to_string(key_));
  }
  void handleDestroyed() override { log_->push_back("teardown " + std::to_string(key_)); }
  int input() const { return input_; }

 private:
  int key_;
  int input_;
  std::vector<std::string>* log_;
};

class ParentSm : public Zub::Reactor {
 public:
  explicit ParentSm(std::vector<std::string>* log) : log_(log) {}
  ChildSm* reconcile(int key, bool wanted, int input = 0) {
    return child_.reconcile(
        key, wanted, [&] { return Zub::makeReactor<ChildSm>(key, input, log_); },
        [&](const ChildSm& c) { return c.input() == input; });
  }
  void handleDestroyed() override { log_->push_back("parent teardown"); }
  Zub::ChildMap<int, ChildSm>& child() { return child_; }

 private:
  std::vector<std::string>* log_;
  Zub::ChildMap<int, ChildSm> child_{this};
};

TEST(ChildMap, ReconcileCreatesKeepsReplacesAndErases) {
  std::vector<std::string> log;
  auto p = Zub::makeReactor<ParentSm>(&log);
  ChildSm* one = p->reconcile(1, true);
  EXPECT_EQ(p->reconcile(1, true), one);  // kept: made once
  p->reconcile(2, true);
  EXPECT_EQ(p->reconcile(3, false), nullptr);  // never wanted: nothing happens
  EXPECT_EQ(p->child().keys(), (std::vector<int>{1, 2}));
  p->reconcile(1, true, 7);  // the input changed: the old child goes before the new one
  EXPECT_EQ(p->child().get(1)->input(), 7);
  p->reconcile(2, false);
  EXPECT_FALSE(p->child().has(2));
  EXPECT_EQ(log,
            (std::vector<std::string>{"make 1", "make 2", "teardown 1", "make 1", "teardown 2"}));
  log.clear();
  p->reconcile(5, true);
  // The parent's teardown runs first, then its children go, highest key first.
  p = nullptr;
  EXPECT_EQ(log,
            (std::vector<std::string>{"make 5", "parent teardown", "teardown 5", "teardown 1"}));
}

TEST(ChildMapDeathTest, MakingAChildMustNotMakeTheSameKeyAgain) {
  std::vector<std::string> log;
  auto p = Zub::makeReactor<ParentSm>(&log);
  auto reentrant = [&] {
    return p->child().reconcile(1, true, [&] {
      p->reconcile(1, true);  // a nested creation of the same key
      return Zub::makeReactor<ChildSm>(1, 0, &log);
    });
  };
  EXPECT_DEATH(reentrant(), "child created twice for one key");
}

// A child that asks its parent to erase it from inside its own notification.
class SelfErasingSm : public Zub::Reactor {
 public:
  SelfErasingSm(Zub::Ptr<Row> row, std::function<void()> eraseMe, std::vector<std::string>* log)
      : row_(std::move(row)), eraseMe_(std::move(eraseMe)), log_(log) {
    watch(row_->levelSignal(), [this] { handleLevel(); });
  }
  void handleLevel() {
    log_->push_back("handler in");
    eraseMe_();
    log_->push_back("handler out " + row_->name());  // members still there
  }
  void handleDestroyed() override { log_->push_back("teardown"); }

 private:
  Zub::Ptr<Row> row_;
  std::function<void()> eraseMe_;
  std::vector<std::string>* log_;
};

class HolderSm : public Zub::Reactor {
 public:
  Zub::ChildMap<std::string, SelfErasingSm> child{this};
};

TEST(ChildMap, AChildErasedDuringItsOwnDeliveryIsTornDownWhenItsHandlerReturns) {
  std::vector<std::string> log;
  Zub::Ptr<Row> row(new Row("r"));
  auto holder = Zub::makeReactor<HolderSm>();
  HolderSm* h = holder.get();
  h->child.reconcile("c", true, [&] {
    return Zub::makeReactor<SelfErasingSm>(
        row, [h, &log] { log.push_back(h->child.erase("c") ? "erased" : "absent"); }, &log);
  });
  int later = 0;
  auto sub = row->levelSignal().connect(nullptr, [&] { ++later; });
  row->levelIs(1);
  EXPECT_EQ(log, (std::vector<std::string>{"handler in", "erased", "handler out r", "teardown"}));
  EXPECT_FALSE(h->child.has("c"));
  EXPECT_EQ(later, 1);  // delivery went on to the next subscriber
  row->levelIs(2);      // the torn-down child is no longer subscribed
  EXPECT_EQ(log.size(), 4u);
}

TEST(KeyedSubscriptions, MemberObserversComeAndGoWithTheirKeys) {
  struct Sm : Zub::Reactor {
    Zub::KeyedSubscriptions<Zub::Name> perRow;
    std::vector<std::string> heard;
    void watchRow(const Zub::Ptr<Row>& r) {
      const Zub::Name n = r->name();
      watch(perRow, n, r->levelSignal(), [this, n] { heard.push_back(n); });
    }
  };
  Zub::Ptr<Row> a(new Row("a")), b(new Row("b"));
  auto sm = Zub::makeReactor<Sm>();
  sm->watchRow(a);
  sm->watchRow(b);
  a->levelIs(1);
  sm->perRow.erase("a");
  a->levelIs(2);
  b->levelIs(1);
  EXPECT_EQ(sm->heard, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(b->levelSignal().subscribers(), 1u);
  sm = nullptr;
  EXPECT_EQ(b->levelSignal().subscribers(), 0u);  // detached at teardown
}

}  // namespace
