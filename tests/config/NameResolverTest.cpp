// Collector names looked up in the background: a name server that does not answer holds
// the loop for one wait at most; answers reach the watchers on the loop; names that do
// not resolve are tried again with backoff and resolved ones refreshed. The worker
// threads run a scripted resolver; the retry timers run on a manual clock.

#include "config/NameResolver.h"

#include <gtest/gtest.h>

#include "tests/support/ConfigWorld.h"

namespace {

using namespace std::chrono_literals;
using FlowTracking::NameResolver;
using FlowTracking::Resolution;

class NameResolverTest : public ::testing::Test {
 protected:
  Zub::ManualClock clock;
  Orrin::TaskScheduler sched{clock};
  std::shared_ptr<TestSupport::FakeResolver> fake = std::make_shared<TestSupport::FakeResolver>();
  std::map<std::string, std::vector<std::string>> heard;

  NameResolver::Options options(std::chrono::milliseconds wait) {
    NameResolver::Options o;
    o.wait = wait;
    return o;
  }
  NameResolver::WatchPtr watch(NameResolver& nr, const std::string& host,
                               std::optional<Resolution>& now) {
    return nr.watch(
        host, [this, host](const Resolution& r) { heard[host].push_back(text(r)); }, now);
  }
  static std::string text(const Resolution& r) {
    return r.addr ? r.addr->stringValue() : "(" + r.error + ")";
  }
  // Runs the loop until every lookup has answered (bounded).
  void settle(NameResolver& nr) {
    for (int i = 0; i < 500 && nr.lookupsInFlight() > 0; ++i) sched.pollFds(10ms);
    ASSERT_EQ(nr.lookupsInFlight(), 0u) << "lookups still under way";
  }
  // The lookups made so far, once `d` has passed and they have answered.
  int callsAfter(NameResolver& nr, Orrin::Duration d) {
    sched.advance(d);
    settle(nr);
    return fake->calls();
  }
};

TEST_F(NameResolverTest, ASlowNameServerHoldsTheLoopForOneWaitNotOnePerName) {
  NameResolver nr(fake, &sched, options(200ms));
  std::optional<Resolution> now;

  // Literals and names that answer in time are answered at once, and heard of no more.
  watch(nr, "192.0.2.9", now);
  ASSERT_TRUE(now);
  EXPECT_EQ(text(*now), "192.0.2.9");
  fake->answerIs("quick.example", "192.0.2.1");
  auto quick = watch(nr, "quick.example", now);
  ASSERT_TRUE(now);
  EXPECT_EQ(text(*now), "192.0.2.1");
  EXPECT_EQ(fake->calls(), 1);

  for (const char* h : {"a.example", "b.example", "c.example"}) fake->hold(h);
  const auto t0 = std::chrono::steady_clock::now();
  auto a = watch(nr, "a.example", now);
  EXPECT_FALSE(now);
  const auto t1 = std::chrono::steady_clock::now();
  EXPECT_GE(t1 - t0, 200ms);
  // While a lookup is late, new names do not wait: two more names cost far less than
  // the one wait each would.
  auto b = watch(nr, "b.example", now);
  EXPECT_FALSE(now);
  auto c = watch(nr, "c.example", now);
  EXPECT_FALSE(now);
  EXPECT_LT(std::chrono::steady_clock::now() - t1, 200ms);
  EXPECT_EQ(nr.lookupsInFlight(), 3u);

  // The answers come on the loop, each to its own watcher.
  fake->answerIs("a.example", "192.0.2.10");
  fake->failIs("b.example", "Temporary failure in name resolution");
  fake->answerIs("c.example", "2001:db8::c");
  c.reset();  // this one's collector went meanwhile
  for (const char* h : {"a.example", "b.example", "c.example"}) fake->release(h);
  settle(nr);
  EXPECT_EQ(heard, (std::map<std::string, std::vector<std::string>>{
                       {"a.example", {"192.0.2.10"}},
                       {"b.example", {"(Temporary failure in name resolution)"}}}));
  EXPECT_EQ(nr.names(), 3u);  // quick, a, b: c went with its last watcher
}

TEST_F(NameResolverTest, FailuresAreTriedAgainWithBackoffAndAddressesRefreshed) {
  NameResolver nr(fake, &sched, options(2000ms));
  std::optional<Resolution> now;
  fake->failIs("b.example");
  auto b = watch(nr, "b.example", now);
  ASSERT_TRUE(now);
  EXPECT_EQ(text(*now), "(Name or service not known)");
  EXPECT_EQ(fake->calls(), 1);

  // 2 s, then 4 s, then 8 s; the same failure again is not news.
  EXPECT_EQ(callsAfter(nr, 1999ms), 1);
  EXPECT_EQ(callsAfter(nr, 1ms), 2);
  EXPECT_EQ(callsAfter(nr, 3999ms), 2);
  EXPECT_EQ(callsAfter(nr, 1ms), 3);
  EXPECT_TRUE(heard.empty());
  fake->answerIs("b.example", "192.0.2.2");
  EXPECT_EQ(callsAfter(nr, 8s), 4);
  EXPECT_EQ(heard["b.example"], (std::vector<std::string>{"192.0.2.2"}));

  // Resolved: looked up again a minute later; the same address is not news.
  EXPECT_EQ(callsAfter(nr, 59s), 4);
  EXPECT_EQ(callsAfter(nr, 1s), 5);
  EXPECT_EQ(heard["b.example"].size(), 1u);

  // A reload looks every name up at once; a moved address is followed.
  fake->answerIs("b.example", "192.0.2.3");
  nr.refresh();
  settle(nr);
  EXPECT_EQ(heard["b.example"], (std::vector<std::string>{"192.0.2.2", "192.0.2.3"}));

  // A name nobody watches any more is forgotten, not looked up.
  b.reset();
  const int calls = fake->calls();
  EXPECT_EQ(callsAfter(nr, 120s), calls);
  EXPECT_EQ(nr.names(), 0u);
}

}  // namespace
