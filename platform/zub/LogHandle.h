#pragma once
// Operator log messages. A LogHandle is defined once at load time with its name,
// severity (syslog scale: 0 emergency .. 7 debug), printf-like format (only "%s"
// conversions), explanation, recommended action and rate limit. Logging fills the
// format with the text forms of the arguments and sends one record to the log sink:
// stderr by default, syslog in the daemon, a LogCapture in tests.
//
// Rate limit (interval, burst): at most `burst` records with the same text per
// `interval` seconds; an interval of 0 disables limiting. Records held back are
// counted and reported with the next record that passes.

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/zub/Types.h"

namespace Zub {

inline constexpr const char* NoActionRequired = "No action is required.";

struct LogRecord {
  std::string facility;
  int severity;
  std::string name;
  std::string text;
  Seconds time;
  // "FACILITY-SEVERITY-NAME: text", the line that operators read.
  std::string line() const;
};

using LogSink = std::function<void(const LogRecord&)>;
// Installs a sink; returns the previous one. An empty sink restores stderr.
LogSink logSinkIs(LogSink sink);

class LogHandle {
 public:
  LogHandle(std::string name, int severity, std::string format, std::string explanation,
            std::string recommendedAction, double rateLimitInterval, double rateLimitBurst,
            std::string facility);
  LogHandle(const LogHandle&) = delete;
  LogHandle& operator=(const LogHandle&) = delete;

  const std::string& name() const { return name_; }
  int severity() const { return severity_; }
  const std::string& format() const { return format_; }
  const std::string& explanation() const { return explanation_; }
  const std::string& recommendedAction() const { return recommendedAction_; }
  double rateLimitInterval() const { return rateLimitInterval_; }
  double rateLimitBurst() const { return rateLimitBurst_; }
  const std::string& facility() const { return facility_; }

  template <class... A>
  void log(const A&... args) const {
    emit(facility_, {toString(args)...});
  }
  template <class... A>
  void logFacility(std::string_view facility, const A&... args) const {
    emit(std::string(facility), {toString(args)...});
  }
  // The format filled with `args`; a missing argument prints as "(missing)", extra
  // arguments are ignored, "%%" is a percent sign.
  std::string text(const std::vector<std::string>& args) const;

  // Every handle defined so far.
  static const std::vector<const LogHandle*>& all();

 private:
  void emit(const std::string& facility, const std::vector<std::string>& args) const;
  friend class LogCapture;

  std::string name_;
  int severity_;
  std::string format_;
  std::string explanation_;
  std::string recommendedAction_;
  double rateLimitInterval_;
  double rateLimitBurst_;
  std::string facility_;
  struct Window {
    Seconds start = 0;
    double count = 0;
    uint64_t suppressed = 0;
  };
  mutable std::map<std::string, Window> windows_;
};

// Collects log records for its lifetime (tests).
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  const std::vector<LogRecord>& records() const { return records_; }
  // "NAME: text" per record, the form tests compare.
  std::vector<std::string> lines() const;
  void clear() { records_.clear(); }

 private:
  std::vector<LogRecord> records_;
  LogSink saved_;
};

}  // namespace Zub
