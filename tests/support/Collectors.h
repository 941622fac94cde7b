#pragma once
// Real collectors from Debian, run as child processes on loopback for end-to-end tests:
// nfdump's nfcapd (read back with nfdump) and pmacct's nfacctd (printing CSV).

#include <cstdint>
#include <memory>
#include <string>

#include "tests/support/Daemon.h"

namespace TestSupport {

// Why the collectors cannot run here ("" when they can).
std::string collectorsMissing();

class Nfcapd {
 public:
  // On a free port of `addr`, storing into a directory of its own.
  explicit Nfcapd(const char* addr = "127.0.0.1");
  uint16_t port() const { return port_; }
  // Stops it (its file is complete then); nfdump's lines (-q -N) of the flows matching
  // `filter` in `format` ("%sp %pkt ..."), or of the exporters and their samplers (-E).
  std::string flows(const std::string& format, const std::string& filter);
  std::string exporters();

 private:
  void stop_();
  TempDir dir_;
  uint16_t port_ = 0;
  std::unique_ptr<Daemon> daemon_;
};

class Nfacctd {
 public:
  // On a free port of 127.0.0.2 (an exporter names each of its collectors' hosts once),
  // renormalizing by the announced sampling rate.
  Nfacctd();
  uint16_t port() const { return port_; }
  // What it printed so far (every second, appended): a CSV header and one line per flow
  // and second, keyed by ingress interface, addresses, ports and protocol.
  std::string csv() const;
  // Its own log: what it refused of the exporter's messages among the rest.
  std::string log() const { return daemon_->log(); }

 private:
  TempDir dir_;
  uint16_t port_ = 0;
  std::unique_ptr<Daemon> daemon_;
};

}  // namespace TestSupport
