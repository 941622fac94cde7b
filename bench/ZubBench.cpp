// Cost of the entity framework against plain C++ doing the same work:
//   - one attribute change delivered to 1 and to 10 subscribers, against a plain field
//     store followed by direct std::function calls;
//   - collection insert and lookup, against std::unordered_map.
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench/Harness.h"
#include "platform/zub/Collection.h"

namespace {

class Counter : public Zub::Entity {
 public:
  Counter() : Entity("counter") {}
  ZUB_ATTR(uint64_t, value)
};

class Table : public Zub::Entity {
 public:
  Table() : Entity("table") {}
  ZUB_COLL(row, Zub::Collection<uint32_t, uint64_t>)
};

void attributeChange(int subscribers) {
  Zub::Ptr<Counter> c(new Counter());
  uint64_t sink = 0;
  std::vector<Zub::Subscription> subs;
  for (int i = 0; i < subscribers; ++i) {
    subs.push_back(c->valueSignal().connect(nullptr, [&sink, &c] { sink += c->value(); }));
  }
  const long n = 2'000'000;
  double zub = Bench::nsPerOp(n, [&](long i) { c->valueIs(static_cast<uint64_t>(i) + 1); });

  struct Plain {
    uint64_t value = 0;
    std::vector<std::function<void()>> subscribers;
  } plain;
  for (int i = 0; i < subscribers; ++i) {
    plain.subscribers.push_back([&sink, &plain] { sink += plain.value; });
  }
  double base = Bench::nsPerOp(n, [&](long i) {
    uint64_t v = static_cast<uint64_t>(i) + 1;
    if (plain.value == v) return;
    plain.value = v;
    for (auto& f : plain.subscribers) f();
  });
  Bench::keep(sink);
  Bench::report("attribute change, " + std::to_string(subscribers) + " subscriber(s)", zub,
                "field + std::function calls", base);
}

void collection() {
  const long n = 1'000'000;
  Zub::Ptr<Table> t(new Table());
  t->rowColl();  // no subscribers: the plain cost of the machinery
  std::unordered_map<uint32_t, uint64_t> m;
  double zubInsert = Bench::nsPerOp(
      n, [&](long i) { t->rowIs(static_cast<uint32_t>(i), static_cast<uint64_t>(i)); }, 1);
  double baseInsert = Bench::nsPerOp(
      n, [&](long i) { m.insert_or_assign(static_cast<uint32_t>(i), static_cast<uint64_t>(i)); },
      1);
  Bench::report("collection insert (1M keys)", zubInsert, "std::unordered_map insert", baseInsert);
  uint64_t sum = 0;
  double zubFind = Bench::nsPerOp(n, [&](long i) { sum += t->row(static_cast<uint32_t>(i)); });
  double baseFind = Bench::nsPerOp(n, [&](long i) {
    auto it = m.find(static_cast<uint32_t>(i));
    sum += it == m.end() ? 0 : it->second;
  });
  Bench::keep(sum);
  Bench::report("collection lookup (1M keys)", zubFind, "std::unordered_map find", baseFind);
}

}  // namespace

int main() {
  attributeChange(1);
  attributeChange(10);
  collection();
  return 0;
}
