// Collections: keys, ordering, lookups of absent members, constructor clashes.

#include <gtest/gtest.h>

#include <vector>

#include "platform/zub/Collection.h"
#include "platform/zub/Dir.h"

namespace {

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

TEST(Collection, OrderedCollectionIteratesInKeyOrder) {
  Zub::Ptr<Root> r(new Root("r"));
  for (uint32_t k : {50u, 7u, 300u, 8u}) r->weightIs(k, k * 0.5);
  std::vector<uint32_t> keys;
  for (const auto& [k, v] : r->weightColl()) keys.push_back(k);
  EXPECT_EQ(keys, (std::vector<uint32_t>{7, 8, 50, 300}));
}

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

TEST(Collection, DirHoldsNamedEntries) {
  Zub::Ptr<Zub::Dir> agents(new Zub::Dir("activeAgentDir"));
  EXPECT_EQ(agents->entries(), 0u);
  Zub::Ptr<Zub::Dir> d = agents->mkdir("flowexport");
  EXPECT_EQ(agents->mkdir("flowexport"), d);
  EXPECT_EQ(agents->entries(), 1u);
  EXPECT_EQ(agents->entityPtr<Zub::Dir>("flowexport"), d);
  EXPECT_EQ(agents->entityPtr<Zub::Dir>("other"), nullptr);
  agents->entryDel("flowexport");
  EXPECT_EQ(agents->entries(), 0u);
}

}  // namespace
