#include "platform/zub/LogHandle.h"

#include <cstdio>

#include "platform/zub/Clock.h"

namespace Zub {

namespace {
LogSink& sink() {
  static LogSink* s = new LogSink();
  return *s;
}
std::vector<const LogHandle*>& handles() {
  static auto* v = new std::vector<const LogHandle*>();
  return *v;
}
}  // namespace

std::string LogRecord::line() const { return str(facility, "-", severity, "-", name, ": ", text); }

LogSink logSinkIs(LogSink s) {
  LogSink old = std::move(sink());
  sink() = std::move(s);
  return old;
}

LogHandle::LogHandle(std::string name, int severity, std::string format, std::string explanation,
                     std::string recommendedAction, double rateLimitInterval, double rateLimitBurst,
                     std::string facility)
    : name_(std::move(name)),
      severity_(severity),
      format_(std::move(format)),
      explanation_(std::move(explanation)),
      recommendedAction_(std::move(recommendedAction)),
      rateLimitInterval_(rateLimitInterval),
      rateLimitBurst_(rateLimitBurst),
      facility_(std::move(facility)) {
  handles().push_back(this);
}

const std::vector<const LogHandle*>& LogHandle::all() { return handles(); }

std::string LogHandle::text(const std::vector<std::string>& args) const {
  std::string out;
  size_t next = 0;
  for (size_t i = 0; i < format_.size(); ++i) {
    char c = format_[i];
    if (c == '%' && i + 1 < format_.size()) {
      char d = format_[i + 1];
      if (d == 's') {
        out.append(next < args.size() ? args[next] : std::string("(missing)"));
        ++next;
        ++i;
        continue;
      }
      if (d == '%') {
        out.push_back('%');
        ++i;
        continue;
      }
    }
    out.push_back(c);
  }
  return out;
}

void LogHandle::emit(const std::string& facility, const std::vector<std::string>& args) const {
  LogRecord r{facility, severity_, name_, text(args), System::now()};
  if (rateLimitInterval_ > 0) {
    Window& w = windows_[r.text];
    if (r.time - w.start >= rateLimitInterval_) {
      w.start = r.time;
      w.count = 0;
    }
    if (w.count >= rateLimitBurst_) {
      ++w.suppressed;
      return;
    }
    ++w.count;
    if (w.suppressed > 0) {
      r.text += str(" (", w.suppressed, " similar messages suppressed)");
      w.suppressed = 0;
    }
  }
  if (sink()) {
    sink()(r);
  } else {
    std::fprintf(stderr, "%s\n", r.line().c_str());
  }
}

LogCapture::LogCapture() {
  // What earlier captures logged does not count against this one's rate limits: tests
  // see the same lines whatever ran before them in the process.
  for (const LogHandle* h : LogHandle::all()) h->windows_.clear();
  saved_ = logSinkIs([this](const LogRecord& r) { records_.push_back(r); });
}

LogCapture::~LogCapture() { logSinkIs(std::move(saved_)); }

std::vector<std::string> LogCapture::lines() const {
  std::vector<std::string> out;
  for (const auto& r : records_) out.push_back(r.name + ": " + r.text);
  return out;
}

}  // namespace Zub
