#pragma once
// Collector host names, followed for the exporters.
//
// A Resolver answers one name, blocking (the C library's getaddrinfo, or a test's
// script). The NameResolver follows the names the exporters use:
//
// - An address literal is its own answer; nothing is looked up.
// - A new watch looks the name up at once and waits at most `wait` (250 ms) for the
//   answer. A lookup that has not answered by then goes on in the background on a worker
//   thread; its answer is applied on the loop when it comes. While any lookup is late,
//   new watches do not wait at all, so a dead name server holds the loop for one wait,
//   not one per name.
// - A name that does not resolve is looked up again after 2 s, doubling up to 60 s; a
//   resolved name again every `refresh` (60 s); every name at `refresh()` (SIGHUP).
// - Watchers hear an answer that differs from the previous one (a new address, or a
//   failure after an address, or a different failure).
//
// Without a scheduler every lookup is made inline and answers at once (tools, tests).

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/nelo/Addr.h"
#include "platform/orrin/TaskScheduler.h"

namespace FlowTracking {

// One lookup's answer: an address, or why there is none.
struct Resolution {
  std::optional<Nelo::IpGenAddr> addr;
  std::string error;
  // The first address of the other family, when the name has addresses of both.
  std::optional<Nelo::IpGenAddr> other;
  bool operator==(const Resolution& o) const {
    return addr == o.addr && error == o.error && other == o.other;
  }
  bool operator!=(const Resolution& o) const { return !(*this == o); }
};

// Name resolution for collectors: the first address the resolver returns and the first
// of the other family, or why there is none.
// May be called from several threads at once.
class Resolver {
 public:
  virtual ~Resolver() = default;
  virtual Resolution resolve(const std::string& host) = 0;
};

// The C library's resolver (getaddrinfo: any family, stream sockets, first result).
class SystemResolver : public Resolver {
 public:
  Resolution resolve(const std::string& host) override;
};

class NameResolver {
 public:
  struct Options {
    std::chrono::milliseconds wait{250};
    Orrin::Duration retryMin = std::chrono::seconds(2);
    Orrin::Duration retryMax = std::chrono::seconds(60);
    Orrin::Duration refresh = std::chrono::seconds(60);
    size_t threads = 8;
  };
  using Changed = std::function<void(const Resolution&)>;
  // What a watcher holds; the notifications stop when it is dropped.
  struct Watch {
    std::string host;
    Changed changed;
  };
  using WatchPtr = std::shared_ptr<Watch>;

  NameResolver(std::shared_ptr<Resolver> lookup, Orrin::TaskScheduler* scheduler, Options options);
  explicit NameResolver(std::shared_ptr<Resolver> lookup, Orrin::TaskScheduler* scheduler = nullptr)
      : NameResolver(std::move(lookup), scheduler, Options()) {}
  ~NameResolver();
  NameResolver(const NameResolver&) = delete;
  NameResolver& operator=(const NameResolver&) = delete;

  // Follows `host`. `now` is the answer when it came within the wait (or the host is an
  // address literal); otherwise the last answer known for the host, or nothing.
  WatchPtr watch(const std::string& host, Changed changed, std::optional<Resolution>& now);
  // Looks every followed name up again, without waiting.
  void refresh();

  // The names followed and the lookups under way (for tests and traces).
  size_t names() const { return entries_.size(); }
  size_t lookupsInFlight() const;
  // Answers that came from the worker threads, applied now (the loop does this when the
  // event descriptor fires). Returns how many.
  size_t applyAnswers();

 private:
  struct Entry {
    std::optional<Resolution> last;
    std::vector<std::weak_ptr<Watch>> watchers;
    unsigned outstanding = 0;  // lookups started and not answered yet
    uint64_t issued = 0;       // lookups started, ever; each answer carries its number
    uint64_t applied = 0;      // the number of the newest answer taken
    std::chrono::steady_clock::time_point started;  // of the newest lookup
    unsigned failures = 0;
    Zub::Nanoseconds nextLookup = 0;
  };
  struct Pool;

  static std::optional<Resolution> literal(const std::string& host);
  // Drops the watchers that went; true when nobody watches and no lookup is under way.
  static bool forgotten(Entry& e);
  // Starts a lookup, unless one for the host is still queued (that one answers as fresh).
  void start_(const std::string& host, Entry& e);
  // Waits until `until` for an answer for `host` numbered `number` or later; true when it
  // came (and was taken).
  bool waitFor_(const std::string& host, uint64_t number,
                std::chrono::steady_clock::time_point until, const WatchPtr& skip,
                std::optional<Resolution>& answer);
  bool anyLate_() const;
  // Takes answer `number` for `host`; an answer older than one already taken is dropped.
  void complete_(const std::string& host, uint64_t number, const Resolution& r,
                 const WatchPtr& skip);
  void handleTimer_();

  std::shared_ptr<Resolver> lookup_;
  Orrin::TaskScheduler* scheduler_;
  Options options_;
  std::map<std::string, Entry> entries_;
  std::shared_ptr<Pool> pool_;
  Zub::Ptr<Orrin::TimerTask> timer_;
};

}  // namespace FlowTracking
