#include "config/NameResolver.h"

#include <netdb.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

namespace FlowTracking {

Resolution SystemResolver::resolve(const std::string& host) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = 0;
  addrinfo* result = nullptr;
  const int rc = ::getaddrinfo(host.c_str(), nullptr, &hints, &result);
  if (rc != 0 || !result) {
    const int err = errno;
    if (result) ::freeaddrinfo(result);
    if (rc == EAI_SYSTEM) return {std::nullopt, std::strerror(err), std::nullopt};
    return {std::nullopt, rc != 0 ? ::gai_strerror(rc) : "no address", std::nullopt};
  }
  Resolution out;
  for (const addrinfo* ai = result; ai && !(out.addr && out.other); ai = ai->ai_next) {
    std::optional<Nelo::IpGenAddr> a;
    if (ai->ai_family == AF_INET) {
      auto* sa = reinterpret_cast<const sockaddr_in*>(ai->ai_addr);
      a = Nelo::IpGenAddr(Nelo::IpAddr::fromNbo(sa->sin_addr.s_addr));
    } else if (ai->ai_family == AF_INET6) {
      auto* sa = reinterpret_cast<const sockaddr_in6*>(ai->ai_addr);
      Nelo::Ip6Addr::Bytes b;
      std::memcpy(b.data(), &sa->sin6_addr, 16);
      a = Nelo::IpGenAddr(Nelo::Ip6Addr(b));
    }
    if (!a) continue;
    if (!out.addr) {
      out.addr = a;
    } else if (a->family != out.addr->family) {
      out.other = a;
    }
  }
  if (!out.addr) out.error = "no IPv4 or IPv6 address";
  ::freeaddrinfo(result);
  return out;
}

// ---- the worker threads ---------------------------------------------------------------

// Shared by the resolver and its workers. A worker blocked in a lookup when the resolver
// goes keeps this alive and ends when the lookup returns; nothing waits for it.
struct NameResolver::Pool {
  std::mutex mu;
  std::condition_variable work;      // a host was queued, or the pool stopped
  std::condition_variable answered;  // an answer was added
  struct Answer {
    std::string host;
    uint64_t number;
    Resolution resolution;
  };
  std::deque<std::pair<std::string, uint64_t>> queue;
  std::vector<Answer> answers;
  std::shared_ptr<Resolver> lookup;
  size_t maxThreads = 1;
  size_t threads = 0;
  size_t idle = 0;
  bool stopped = false;
  int eventFd = -1;

  ~Pool() {
    if (eventFd >= 0) ::close(eventFd);
  }

  static void run(const std::shared_ptr<Pool>& p) {
    std::unique_lock lk(p->mu);
    for (;;) {
      ++p->idle;
      p->work.wait(lk, [&] { return p->stopped || !p->queue.empty(); });
      --p->idle;
      if (p->stopped) break;
      auto [host, number] = std::move(p->queue.front());
      p->queue.pop_front();
      lk.unlock();
      Resolution r = p->lookup->resolve(host);
      lk.lock();
      if (p->stopped) break;
      p->answers.push_back({std::move(host), number, std::move(r)});
      p->answered.notify_all();
      const uint64_t one = 1;
      [[maybe_unused]] ssize_t n = ::write(p->eventFd, &one, sizeof one);
    }
    --p->threads;
  }
};

// ---- NameResolver ----------------------------------------------------------------------

NameResolver::NameResolver(std::shared_ptr<Resolver> lookup, Orrin::TaskScheduler* scheduler,
                           Options options)
    : lookup_(std::move(lookup)), scheduler_(scheduler), options_(options) {
  if (!scheduler_) return;
  timer_ = new Orrin::TimerTask(*scheduler_, "NameResolver", 2, [this] { handleTimer_(); });
  const int fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  // Without an event descriptor the lookups are made inline, as without a scheduler.
  if (fd < 0) return;
  pool_ = std::make_shared<Pool>();
  pool_->lookup = lookup_;
  pool_->maxThreads = std::max<size_t>(1, options_.threads);
  pool_->eventFd = fd;
  scheduler_->fdIs(fd, EPOLLIN, [this](uint32_t) {
    uint64_t v;
    [[maybe_unused]] ssize_t n = ::read(pool_->eventFd, &v, sizeof v);
    applyAnswers();
  });
}

NameResolver::~NameResolver() {
  if (!pool_) return;
  scheduler_->fdDel(pool_->eventFd);
  std::lock_guard lk(pool_->mu);
  pool_->stopped = true;
  pool_->queue.clear();
  pool_->work.notify_all();
}

std::optional<Resolution> NameResolver::literal(const std::string& host) {
  if (auto a = Nelo::IpAddr::parse(host)) return Resolution{Nelo::IpGenAddr(*a), {}, std::nullopt};
  if (auto a = Nelo::Ip6Addr::parse(host)) return Resolution{Nelo::IpGenAddr(*a), {}, std::nullopt};
  return std::nullopt;
}

bool NameResolver::forgotten(Entry& e) {
  std::erase_if(e.watchers, [](const auto& w) { return w.expired(); });
  return e.watchers.empty() && !e.outstanding;
}

size_t NameResolver::lookupsInFlight() const {
  return static_cast<size_t>(std::count_if(entries_.begin(), entries_.end(),
                                           [](const auto& kv) { return kv.second.outstanding; }));
}

NameResolver::WatchPtr NameResolver::watch(const std::string& host, Changed changed,
                                           std::optional<Resolution>& now) {
  auto w = std::make_shared<Watch>(Watch{host, std::move(changed)});
  now.reset();
  if (auto lit = literal(host)) {
    now = std::move(lit);
    return w;
  }
  Entry& e = entries_[host];
  e.watchers.push_back(w);
  if (!pool_) {
    Resolution r = lookup_->resolve(host);
    complete_(host, ++e.issued, r, w);
    now = std::move(r);
    return w;
  }
  const bool late = anyLate_();
  start_(host, e);
  if (late) {
    now = e.last;
    return w;
  }
  std::optional<Resolution> answer;
  if (waitFor_(host, e.issued, e.started + options_.wait, w, answer)) {
    now = std::move(answer);
  } else {
    now = entries_[host].last;
  }
  return w;
}

void NameResolver::refresh() {
  std::vector<std::string> hosts;
  for (auto it = entries_.begin(); it != entries_.end();) {
    if (forgotten(it->second)) {
      it = entries_.erase(it);
      continue;
    }
    hosts.push_back(it->first);
    ++it;
  }
  // A lookup still under way may have asked before the name changed: a new one is made
  // all the same, and whichever answers last for the newest question wins.
  for (const std::string& host : hosts) {
    auto it = entries_.find(host);
    if (it == entries_.end()) continue;
    if (pool_) {
      start_(host, it->second);
    } else {
      complete_(host, ++it->second.issued, lookup_->resolve(host), nullptr);
    }
  }
}

size_t NameResolver::applyAnswers() {
  if (!pool_) return 0;
  std::vector<Pool::Answer> answers;
  {
    std::lock_guard lk(pool_->mu);
    answers.swap(pool_->answers);
  }
  for (const auto& a : answers) complete_(a.host, a.number, a.resolution, nullptr);
  return answers.size();
}

void NameResolver::start_(const std::string& host, Entry& e) {
  std::lock_guard lk(pool_->mu);
  auto& q = pool_->queue;
  if (std::any_of(q.begin(), q.end(), [&](const auto& item) { return item.first == host; })) {
    return;
  }
  ++e.outstanding;
  e.started = std::chrono::steady_clock::now();
  q.emplace_back(host, ++e.issued);
  if (pool_->idle == 0 && pool_->threads < pool_->maxThreads) {
    ++pool_->threads;
    std::thread([p = pool_] { Pool::run(p); }).detach();
  }
  pool_->work.notify_one();
}

bool NameResolver::waitFor_(const std::string& host, uint64_t number,
                            std::chrono::steady_clock::time_point until, const WatchPtr& skip,
                            std::optional<Resolution>& answer) {
  std::unique_lock lk(pool_->mu);
  auto mine = [&] {
    return std::find_if(pool_->answers.begin(), pool_->answers.end(),
                        [&](const auto& a) { return a.host == host && a.number >= number; });
  };
  if (!pool_->answered.wait_until(lk, until, [&] { return mine() != pool_->answers.end(); })) {
    return false;
  }
  auto it = mine();
  Pool::Answer a = std::move(*it);
  pool_->answers.erase(it);
  lk.unlock();
  complete_(host, a.number, a.resolution, skip);
  answer = std::move(a.resolution);
  return true;
}

bool NameResolver::anyLate_() const {
  const auto now = std::chrono::steady_clock::now();
  return std::any_of(entries_.begin(), entries_.end(), [&](const auto& kv) {
    return kv.second.outstanding && now - kv.second.started >= options_.wait;
  });
}

void NameResolver::complete_(const std::string& host, uint64_t number, const Resolution& r,
                             const WatchPtr& skip) {
  auto it = entries_.find(host);
  if (it == entries_.end()) return;
  Entry& e = it->second;
  if (e.outstanding) --e.outstanding;
  if (number <= e.applied) return;
  e.applied = number;
  std::vector<WatchPtr> watchers;
  for (const auto& weak : e.watchers) {
    if (auto w = weak.lock()) watchers.push_back(std::move(w));
  }
  if (watchers.empty()) {
    entries_.erase(it);
    return;
  }
  e.watchers.assign(watchers.begin(), watchers.end());
  const bool changed = !e.last || *e.last != r;
  e.last = r;
  if (pool_) {
    Orrin::Duration next = options_.refresh;
    if (r.addr) {
      e.failures = 0;
    } else {
      next = options_.retryMin * (1LL << std::min(e.failures, 16u));
      next = std::min(next, options_.retryMax);
      ++e.failures;
    }
    e.nextLookup = scheduler_->now() + next.count();
    timer_->scheduleTaskLowestDelay(next);
  }
  if (!changed) return;
  // A watcher may drop its own or another watch while it hears the answer: each one
  // still held is told.
  for (const WatchPtr& w : watchers) {
    if (w != skip && w.use_count() > 1) w->changed(r);
  }
}

void NameResolver::handleTimer_() {
  const Zub::Nanoseconds now = scheduler_->now();
  std::optional<Zub::Nanoseconds> next;
  for (auto it = entries_.begin(); it != entries_.end();) {
    Entry& e = it->second;
    if (forgotten(e)) {
      it = entries_.erase(it);
      continue;
    }
    if (!e.outstanding) {
      if (e.nextLookup <= now && pool_) {
        start_(it->first, e);
      } else if (!next || e.nextLookup < *next) {
        next = e.nextLookup;
      }
    }
    ++it;
  }
  if (next) timer_->scheduleTaskLowestDelay(Orrin::Duration(*next - now));
}

}  // namespace FlowTracking
