// Collections: keys, ordering, lookups of absent members, constructor clashes.

#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "platform/zub/Collection.h"
#include "platform/zub/Dir.h"
#include "platform/zub/LinkQueue.h"

// Named, so that error texts carry a readable owner type.
namespace ZubTest {

// A shared read-only value that is not an entity (like a published record).
struct Blob : Zub::PtrInterface {
  explicit Blob(std::string b) : bytes(std::move(b)) {}
  std::string bytes;
};

class Source : public Zub::Entity {
 public:
  explicit Source(const Zub::Name& name) : Entity(name) {}
  ZUB_SET(record, Zub::Ptr<const Blob>)
};

class Container : public Zub::Entity {
 public:
  explicit Container(const Zub::Name& name) : Entity(name) {}
  ZUB_COLL(data, Zub::Collection<Zub::Name, Zub::Ptr<Source>>)
  ZUB_COLL(latest, Zub::OrderedCollection<uint32_t, Zub::Ptr<const Blob>>)
};

}  // namespace ZubTest

namespace {

using ZubTest::Blob;
using ZubTest::Container;
using ZubTest::Source;

class Binding : public Zub::Entity {
 public:
  Binding(const Zub::Name& intf, const Zub::Name& trackerName)
      : Entity(intf), trackerName_(trackerName) {}
  const Zub::Name& trackerName() const { return trackerName_; }
  void checkReinstantiation(const Zub::Name& trackerName) const {
    Zub::checkCtorParam(*this, "trackerName", trackerName_, trackerName);
  }

 private:
  Zub::Name trackerName_;
};

class Root : public Zub::Entity {
 public:
  explicit Root(const Zub::Name& name) : Entity(name) {}
  ZUB_COLL(binding, Zub::Collection<Zub::Name, Zub::Ptr<Binding>>)
  ZUB_COLL(weight, Zub::OrderedCollection<uint32_t, double>)
};

TEST(Collection, ValuesNotifyAddChangeAndDeleteOnce) {
  Zub::Ptr<Root> r(new Root("r"));
  std::vector<uint32_t> seen;
  auto sub = r->weightSignal().connect(nullptr, [&](const uint32_t& k) { seen.push_back(k); });
  r->weightIs(1, 2.0);
  r->weightIs(1, 2.0);  // unchanged
  r->weightIs(1, 3.0);
  r->weightDel(9);  // absent
  r->weightDel(1);
  EXPECT_EQ(seen, (std::vector<uint32_t>{1, 1, 1}));
  EXPECT_EQ(r->weight(1), 0.0);  // absent value reads as the empty value
}

TEST(Collection, EntityMembersAndConstructorClash) {
  Zub::Ptr<Root> r(new Root("/ft/config"));
  int notes = 0;
  auto sub = r->bindingSignal().connect(nullptr, [&](const Zub::Name&) { ++notes; });
  EXPECT_EQ(r->binding("Ethernet1"), nullptr);
  Zub::Ptr<Binding> b = r->bindingIs("Ethernet1", "trackerA");
  EXPECT_EQ(b->fullName(), "/ft/config/binding/Ethernet1");
  EXPECT_EQ(r->bindingIs("Ethernet1", "trackerA"), b);  // same values: the same member
  EXPECT_EQ(notes, 1);
  try {
    r->bindingIs("Ethernet1", "trackerB");
    FAIL() << "expected a clash";
  } catch (const Zub::NameInUseException& e) {
    EXPECT_STREQ(e.what(),
                 "Reinstantiating the entity with fullName /ft/config/binding/Ethernet1 where "
                 "constructor parameter attribute 'trackerName' has a different value of "
                 "trackerB than the current value of trackerA not allowed");
  }
  EXPECT_EQ(r->binding("Ethernet1")->trackerName(), "trackerA");
  EXPECT_EQ(notes, 1);
  // Rebinding is delete and create.
  r->bindingDel("Ethernet1");
  EXPECT_EQ(b->parent(), nullptr);
  EXPECT_EQ(r->bindingIs("Ethernet1", "trackerB")->trackerName(), "trackerB");
  EXPECT_EQ(notes, 3);
}

TEST(Collection, PointersToConstValuesAreValuesComparedByIdentity) {
  Zub::Ptr<Container> c(new Container("c"));
  std::vector<uint32_t> seen;
  auto sub = c->latestSignal().connect(nullptr, [&](const uint32_t& k) { seen.push_back(k); });
  Zub::Ptr<const Blob> a(new Blob("x")), b(new Blob("x"));
  c->latestIs(1, a);
  c->latestIs(1, a);  // the same record: no change
  c->latestIs(1, b);  // equal bytes, another record: a change
  EXPECT_EQ(c->latest(1), b);
  EXPECT_EQ(c->latest(2), nullptr);
  EXPECT_EQ(seen, (std::vector<uint32_t>{1, 1}));
}

TEST(Collection, NullMembersAreRefusedWithTheOwnersName) {
  Zub::Ptr<Container> c(new Container("c"));
  try {
    c->dataColl().insert("global", nullptr);
    FAIL() << "null entity stored";
  } catch (const Zub::NullPointerException& e) {
    EXPECT_STREQ(e.what(),
                 "null _data parameter to mutator for ZubTest::Container::data not allowed");
  }
  EXPECT_THROW(c->latestIs(1, Zub::Ptr<const Blob>()), Zub::NullPointerException);
  Zub::Ptr<Source> s(new Source("s"));
  try {
    s->recordIs(nullptr);
    FAIL() << "null record stored";
  } catch (const Zub::NullPointerException& e) {
    EXPECT_STREQ(e.what(),
                 "null _record parameter to mutator for ZubTest::Source::record not allowed");
  }
  EXPECT_EQ(c->dataSize() + c->latestSize() + s->recordSize(), 0u);
}

TEST(Collection, ASharedMemberKeepsAValidParentWhileAnyHolderHoldsIt) {
  Zub::Ptr<Container> all(new Container("all"));
  Zub::Ptr<Source> global(new Source("global"));
  all->dataColl().insert("global", global);
  {
    Zub::Ptr<Container> perTracker(new Container("t1"));
    perTracker->dataColl().insert("global", global);
    EXPECT_EQ(global->fullName(), "all/data/global");  // the first holder names it
    all = nullptr;  // the first holder goes while the second still holds it
    EXPECT_EQ(global->fullName(), "t1/data/global");
  }
  EXPECT_EQ(global->fullName(), "global");
  EXPECT_EQ(global->parent(), nullptr);
}

TEST(Collection, AReplacedMemberLetsGoOfItsFormerParent) {
  Zub::Ptr<Source> old(new Source("s"));
  {
    Zub::Ptr<Container> c(new Container("c"));
    c->dataColl().insert("s", old);
    c->dataColl().insert("s", Zub::Ptr<Source>(new Source("s")));
    EXPECT_NE(c->data("s"), old);
  }
  // The container is gone; the replaced member must not reach it.
  EXPECT_EQ(old->fullName(), "s");
}

TEST(Set, ElementsByIdentityNotifyingInsertAndRemoveOnce) {
  Zub::Ptr<Source> s(new Source("s"));
  std::vector<std::string> seen;
  auto sub = s->recordSignal().connect(
      nullptr, [&](const Zub::Ptr<const Blob>& r) { seen.push_back(r->bytes); });
  Zub::Ptr<const Blob> a(new Blob("a")), a2(new Blob("a"));
  EXPECT_TRUE(s->recordIs(a));
  EXPECT_FALSE(s->recordIs(a));
  EXPECT_TRUE(s->recordIs(a2));  // equal content, another record
  EXPECT_EQ(s->recordSize(), 2u);
  EXPECT_TRUE(s->recordDel(a));
  EXPECT_FALSE(s->recordDel(a));
  s->recordDelAll();
  EXPECT_EQ(s->recordSize(), 0u);
  EXPECT_EQ(seen, (std::vector<std::string>{"a", "a", "a", "a"}));
}

// Forty distinct hashes for 300 values: long probe runs that meet.
struct Colliding {
  int v;
  size_t hash() const { return static_cast<size_t>(v % 40); }
  friend bool operator==(const Colliding&, const Colliding&) = default;
};

TEST(Set, StaysExactThroughManyInsertionsAndRemovalsOfCollidingElements) {
  Zub::Set<Colliding> set;
  std::set<int> model;
  uint32_t rng = 12345;
  for (int step = 0; step < 20000; ++step) {
    rng = rng * 1103515245 + 12345;
    const int v = static_cast<int>((rng >> 8) % 300);
    if ((rng >> 20) % 3 == 0) {
      EXPECT_EQ(set.erase({v}), model.erase(v) == 1) << "step " << step;
    } else {
      EXPECT_EQ(set.insert({v}), model.insert(v).second) << "step " << step;
    }
    if (step % 997 == 0 || step == 19999) {
      ASSERT_EQ(set.size(), model.size());
      for (int k = 0; k < 300; ++k) ASSERT_EQ(set.has({k}), model.count(k) == 1) << k;
    }
  }
  std::set<int> walked;
  for (const Colliding& c : set) walked.insert(c.v);
  EXPECT_EQ(walked, model);
}

// The hash whose home slot is `slot` in a table of 2^bits slots: the index multiplies by
// an odd constant and keeps the top bits, so multiplying by its inverse picks the slot.
size_t hashHomedAt(uint64_t slot, unsigned bits) {
  const uint64_t k = 0x9E3779B97F4A7C15ull;
  uint64_t inv = k;  // Newton's iteration doubles the correct low bits each step
  for (int i = 0; i < 5; ++i) inv *= 2 - k * inv;
  return static_cast<size_t>((slot << (64 - bits)) * inv);
}

TEST(PositionIndex, RemovalPullsLaterMembersBackAcrossTheTablesEnd) {
  // Eight slots: a (home 6) at 6, b (home 7) at 7, c (home 7) wraps to 0, d (home 6) to 1.
  std::vector<size_t> hashes = {hashHomedAt(6, 3), hashHomedAt(7, 3), hashHomedAt(7, 3),
                                hashHomedAt(6, 3)};
  auto hashOf = [&](uint32_t pos) { return hashes[pos]; };
  Zub::PositionIndex index;
  for (uint32_t pos = 0; pos < 4; ++pos) index.insert(hashes[pos], pos, hashOf);
  auto find = [&](uint32_t pos) {
    return index.find(hashes[pos], [&](uint32_t p) { return p == pos; });
  };
  index.erase(hashes[0], 0, hashOf);  // a: b and c stay, d moves back to 6
  EXPECT_EQ(index.size(), 3u);
  EXPECT_EQ(find(0), Zub::PositionIndex::kNone);
  for (uint32_t pos : {1u, 2u, 3u}) EXPECT_EQ(find(pos), pos);
  index.erase(hashes[1], 1, hashOf);  // b: c comes back from 0 to 7
  for (uint32_t pos : {2u, 3u}) EXPECT_EQ(find(pos), pos);
  index.move(hashes[3], 3, 0);  // d's element moved to position 0
  hashes[0] = hashes[3];
  EXPECT_EQ(find(0), 0u);
  EXPECT_EQ(index.size(), 2u);
}

TEST(LinkQueue, IndexesIncreaseWrapAndAddressElements) {
  Zub::LinkQueue<std::string, uint8_t> q;
  for (int i = 0; i < 250; ++i) {
    q.enq("x");
    q.deq();
  }
  EXPECT_EQ(q.enq("a"), 250);
  for (int i = 0; i < 10; ++i) q.enq("b" + std::to_string(i));
  EXPECT_EQ(q.tailIndex(), 5);  // wrapped
  ASSERT_NE(q.at(4), nullptr);
  EXPECT_EQ(*q.at(4), "b9");
  EXPECT_EQ(q.at(5), nullptr);
  EXPECT_EQ(q.deq(), "a");
  EXPECT_EQ(q.headIndex(), 251);
}

TEST(LinkQueueDeathTest, ExhaustedIndexSpaceIsFatal) {
  Zub::LinkQueue<int, uint8_t> q;
  for (int i = 0; i < 256; ++i) q.enq(i);
  EXPECT_DEATH(q.enq(256), "linkqueue index space full");
}

}  // namespace
