// What the agent does, as `flowexportctl show flows|trackers|exporters|datapath` shows it:
// the daemon renders each view in the form asked for (a table, JSON with a schema
// version, or the Prometheus text format) and sends it whole over the control socket.

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>

#include "agent/CollectorStatsView.h"
#include "agent/FlowExportAgent.h"
#include "platform/zub/Clock.h"
#include "platform/zub/Text.h"

namespace Agent {

namespace {

// Bumped when a field changes meaning or goes; new fields do not bump it.
constexpr int kSchemaVersion = 1;

std::string addressText(const FlowTracking::FlowKey& k, bool src) {
  const auto& a = src ? k.src : k.dst;
  if (k.ipVersion == 4) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%u.%u.%u.%u", a[0], a[1], a[2], a[3]);
    return buf;
  }
  Nelo::Ip6Addr::Bytes b;
  std::copy(a.begin(), a.end(), b.begin());
  return Nelo::Ip6Addr(b).stringValue();
}

std::string protocolText(uint8_t p) {
  switch (p) {
    case 1:
      return "icmp";
    case 6:
      return "tcp";
    case 17:
      return "udp";
    case 58:
      return "icmp6";
    default:
      return std::to_string(p);
  }
}

// Seconds with a tenth, for people.
std::string seconds(double s) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.1fs", s);
  return buf;
}

// Columns padded to their widest cell.
std::string table(const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> width;
  for (const auto& r : rows) {
    width.resize(std::max(width.size(), r.size()));
    for (size_t i = 0; i < r.size(); ++i) width[i] = std::max(width[i], r[i].size());
  }
  std::string out;
  for (const auto& r : rows) {
    std::string line;
    for (size_t i = 0; i < r.size(); ++i) {
      line += Zub::printable(r[i]);
      if (i + 1 < r.size()) line += std::string(width[i] - r[i].size() + 2, ' ');
    }
    out += line + "\n";
  }
  return out;
}

}  // namespace

std::string FlowExportAgent::intfName_(uint32_t index) const {
  if (index == 0) return "";
  return status_.intfIndexMap->intfId(index).name();
}

std::string FlowExportAgent::kernelName_(const Nelo::IntfId& intf) const {
  for (const auto& [kernel, id] : kernelNames_) {
    if (id == intf.name()) return kernel;
  }
  return intf.name();
}

std::string FlowExportAgent::show_(const std::vector<std::string>& words) {
  // show WHAT FORMAT [TOP [SORT]]
  if (words.size() < 3) return "error: show needs what and a format";
  const std::string& what = words[1];
  const std::string& format = words[2];
  if (format != "table" && format != "json" && format != "prometheus") {
    return "error: unknown format '" + Zub::printable(format) + "'";
  }
  if (what == "flows") {
    size_t top = 100;
    if (words.size() > 3) {
      char* end = nullptr;
      const unsigned long n = std::strtoul(words[3].c_str(), &end, 10);
      if (words[3].empty() || *end != '\0' || n == 0 || n > 1000000) {
        return "error: --top takes 1 to 1000000";
      }
      top = n;
    }
    const std::string sort = words.size() > 4 ? words[4] : "bytes";
    if (sort != "bytes" && sort != "packets") return "error: --sort takes bytes or packets";
    return "ok\n" + showFlows_(format, top, sort == "packets");
  }
  if (what == "trackers") return "ok\n" + showTrackers_(format);
  if (what == "exporters") return "ok\n" + showExporters_(format);
  if (what == "datapath") return "ok\n" + showDataPath_(format);
  return "error: nothing to show called '" + Zub::printable(what) + "'";
}

std::string FlowExportAgent::showFlows_(const std::string& format, size_t top, bool byPackets) {
  struct Row {
    std::string tracker;
    FlowTracking::FlowRecord r;
  };
  // The largest `top`, kept in a heap whose root is the smallest of them.
  auto weight = [byPackets](const Row& x) { return byPackets ? x.r.packets : x.r.octets; };
  auto greater = [&](const Row& a, const Row& b) { return weight(a) > weight(b); };
  std::vector<Row> rows;
  size_t total = 0;
  if (dataPathSm_) {
    dataPathSm_->forEachFlow([&](const Zub::Name& tracker, const FlowTracking::FlowRecord& r) {
      ++total;
      Row row{tracker, r};
      if (rows.size() < top) {
        rows.push_back(std::move(row));
        std::push_heap(rows.begin(), rows.end(), greater);
      } else if (weight(row) > weight(rows.front())) {
        std::pop_heap(rows.begin(), rows.end(), greater);
        rows.back() = std::move(row);
        std::push_heap(rows.begin(), rows.end(), greater);
      }
      return true;
    });
  }
  std::sort_heap(rows.begin(), rows.end(), greater);
  const int64_t nowNs = scheduler().now();
  const auto ageOf = [&](int64_t sinceNs) { return static_cast<double>(nowNs - sinceNs) / 1e9; };
  std::string out;
  if (format == "json") {
    out = Zub::str("{\"schemaVersion\": ", kSchemaVersion, ", \"flows\": ", total,
                   ", \"shown\": ", rows.size(), ", \"sortedBy\": \"",
                   byPackets ? "packets" : "bytes", "\", \"rows\": [");
    for (size_t i = 0; i < rows.size(); ++i) {
      const auto& k = rows[i].r.key;
      char ages[64];
      std::snprintf(ages, sizeof ages, "\"ageSeconds\": %.3f, \"idleSeconds\": %.3f",
                    ageOf(rows[i].r.startNs), ageOf(rows[i].r.lastSeenNs));
      out += Zub::str(i ? ", " : "", "{\"tracker\": ", jsonString(rows[i].tracker),
                      ", \"ipVersion\": ", int(k.ipVersion), ", \"src\": \"", addressText(k, true),
                      "\", \"dst\": \"", addressText(k, false),
                      "\", \"protocol\": ", int(k.protocol), ", \"srcPort\": ", k.srcPort,
                      ", \"dstPort\": ", k.dstPort, ", \"ingress\": {\"index\": ", k.ingressIf,
                      ", \"name\": ", jsonString(intfName_(k.ingressIf)),
                      "}, \"egress\": {\"index\": ", rows[i].r.egressIf,
                      ", \"name\": ", jsonString(intfName_(rows[i].r.egressIf)),
                      "}, \"vrfId\": ", k.vrfId, ", \"packets\": ", rows[i].r.packets,
                      ", \"bytes\": ", rows[i].r.octets, ", \"tos\": ", int(rows[i].r.tos),
                      ", \"tcpFlags\": ", int(rows[i].r.tcpFlags), ", ", ages, "}");
    }
    return out + "]}\n";
  }
  if (format == "prometheus") {
    out =
        "# HELP flowexport_flows Flows in the tracker's flow cache now.\n"
        "# TYPE flowexport_flows gauge\n";
    if (dataPathSm_) {
      for (const auto& [name, ft] : hwConfig_->hwFtConfigColl()) {
        out += Zub::str("flowexport_flows{tracker=\"", promLabel(name), "\"} ",
                        dataPathSm_->flows(name), "\n");
      }
    }
    return out;
  }
  std::vector<std::vector<std::string>> t = {{"Tracker", "Proto", "Source", "Sport", "Destination",
                                              "Dport", "In", "Out", "Packets", "Bytes", "Age",
                                              "Idle"}};
  for (const auto& row : rows) {
    const auto& k = row.r.key;
    t.push_back({row.tracker, protocolText(k.protocol), addressText(k, true),
                 std::to_string(k.srcPort), addressText(k, false), std::to_string(k.dstPort),
                 intfName_(k.ingressIf), row.r.egressIf ? intfName_(row.r.egressIf) : "-",
                 std::to_string(row.r.packets), std::to_string(row.r.octets),
                 seconds(ageOf(row.r.startNs)), seconds(ageOf(row.r.lastSeenNs))});
  }
  return table(t) + Zub::str(rows.size(), " of ", total, " flows, the largest by ",
                             byPackets ? "packets" : "bytes", "\n");
}

// Every tracker's interfaces, with what became of each: one pass over the bindings and
// the data path's ports, whatever the number of trackers.
std::map<Zub::Name, std::vector<FlowExportAgent::TrackedIntf>> FlowExportAgent::trackedIntfs_() {
  std::map<Nelo::IntfId, bool> sampling;  // interfaces the data path has a port for
  if (dataPathSm_) {
    for (const auto& p : dataPathSm_->ports()) sampling[p.intf] = p.sampling;
  }
  std::map<Zub::Name, std::vector<TrackedIntf>> out;
  for (const auto& entry : config_->flowTrackerIntfConfigColl()) {
    const Nelo::IntfId& intf = entry.first;
    TrackedIntf t;
    t.name = intf.name();
    t.kernelName = kernelName_(intf);
    t.state = "bound";
    auto state = bindingStates_.find(intf.name());
    if (state != bindingStates_.end() && state->second == BindingState::missing) {
      t.state = "missing";
    } else if (state != bindingStates_.end() && state->second == BindingState::untrackable) {
      t.state = "cannot be sampled";
    } else if (!hwConfig_->hwIntfFtConfig(intf)) {
      t.state = "down";
    } else if (dataPathSm_) {
      auto port = sampling.find(intf);
      t.state = port == sampling.end() ? "waiting" : port->second ? "sampling" : "failed";
    }
    out[entry.second->trackerName()].push_back(std::move(t));
  }
  return out;
}

std::string FlowExportAgent::showTrackers_(const std::string& format) {
  const uint32_t rate = hwConfig_->sampleRate();
  std::string out;
  if (format == "prometheus") {
    out =
        "# HELP flowexport_sample_rate One packet in this many is sampled.\n"
        "# TYPE flowexport_sample_rate gauge\n" +
        Zub::str("flowexport_sample_rate ", rate, "\n") +
        "# HELP flowexport_flow_cache_flows Flows in the tracker's cache now.\n"
        "# TYPE flowexport_flow_cache_flows gauge\n";
    for (const auto& [name, ft] : hwConfig_->hwFtConfigColl()) {
      out += Zub::str("flowexport_flow_cache_flows{tracker=\"", promLabel(name), "\"} ",
                      dataPathSm_ ? dataPathSm_->flows(name) : 0, "\n");
    }
    out +=
        "# HELP flowexport_flow_cache_capacity Flows the tracker's cache may hold.\n"
        "# TYPE flowexport_flow_cache_capacity gauge\n";
    for (const auto& [name, ft] : hwConfig_->hwFtConfigColl()) {
      out += Zub::str("flowexport_flow_cache_capacity{tracker=\"", promLabel(name), "\"} ",
                      ft->flowCacheSize().value(), "\n");
    }
    return out;
  }
  std::vector<std::vector<std::string>> t = {
      {"Tracker", "Id", "Rate", "Active", "Idle", "Cache", "Interfaces"}};
  if (format == "json") out = Zub::str("{\"schemaVersion\": ", kSchemaVersion, ", \"trackers\": [");
  bool first = true;
  auto tracked = trackedIntfs_();
  for (const auto& [name, ft] : hwConfig_->hwFtConfigColl()) {
    const size_t flows = dataPathSm_ ? dataPathSm_->flows(name) : 0;
    const std::vector<TrackedIntf>& intfs = tracked[name];
    if (format == "json") {
      out += Zub::str(first ? "" : ", ", "{\"name\": ", jsonString(name),
                      ", \"observationDomainId\": ", ft->ftId().value(), ", \"sampleRate\": ", rate,
                      ", \"activeIntervalSeconds\": ", ft->activeInterval().seconds(),
                      ", \"inactiveTimeoutSeconds\": ", ft->inactiveTimeout().seconds(),
                      ", \"flows\": ", flows, ", \"flowCache\": ", ft->flowCacheSize().value(),
                      ", \"interfaces\": [");
      for (size_t i = 0; i < intfs.size(); ++i) {
        out += Zub::str(i ? ", " : "", "{\"name\": ", jsonString(intfs[i].name),
                        ", \"kernelName\": ", jsonString(intfs[i].kernelName),
                        ", \"state\": ", jsonString(intfs[i].state), "}");
      }
      out += "]}";
      first = false;
      continue;
    }
    std::string list;
    for (const auto& i : intfs) {
      list += (list.empty() ? "" : ", ") + i.name +
              (i.kernelName != i.name ? " (" + i.kernelName + ")" : "") + " " + i.state;
    }
    t.push_back({name, std::to_string(ft->ftId().value()), "1/" + std::to_string(rate),
                 Zub::str(ft->activeInterval().seconds(), "s"),
                 Zub::str(ft->inactiveTimeout().seconds(), "s"),
                 Zub::str(flows, "/", ft->flowCacheSize().value()), list.empty() ? "-" : list});
  }
  return format == "json" ? out + "]}\n" : table(t);
}

std::string FlowExportAgent::showExporters_(const std::string& format) {
  struct Collector {
    std::string name, address, state;
  };
  struct Row {
    std::string tracker, exporter, vrf, source4, source6;
    bool ready = false, routed = false;
    uint32_t messageBytes = 0;
    size_t collectors4 = 0, collectors6 = 0;
    // A family is active with collectors of it and a source address of it (or the route's).
    std::string family(bool v6) const {
      if ((v6 ? collectors6 : collectors4) == 0) return "no collectors";
      if (!routed && (v6 ? source6 : source4).empty()) return "no source address";
      return ready ? "active" : "inactive";
    }
    std::vector<Collector> collectors;
  };
  std::vector<Row> rows;
  for (const auto& [trackerName, ftCfg] : config_->flowTrackerConfigColl()) {
    auto hwFt = hwConfig_->hwFtConfig(trackerName);
    for (const auto& [expName, expCfg] : ftCfg->expConfigColl()) {
      Row row;
      row.tracker = trackerName;
      row.exporter = expName;
      row.vrf = expCfg->vrfName().name();
      auto hw = hwFt ? hwFt->expConfig(expName) : nullptr;
      if (hw) {
        row.ready = hw->exporterReady();
        row.routed = hw->routedSource();
        row.source4 = hw->srcIpAddr().isZero() ? "" : hw->srcIpAddr().stringValue();
        row.source6 = hw->srcIp6Addr().isZero() ? "" : hw->srcIp6Addr().stringValue();
        row.messageBytes = hw->ipfixMaxMsgSize();
        row.collectors4 = hw->collectorIpAndPortSize();
        row.collectors6 = hw->collectorIp6AndPortSize();
      }
      for (const auto& [key, hp] : expCfg->collectorHostAndPortColl()) {
        Collector c;
        c.name = key;
        c.state = "does not resolve (yet)";
        if (hw && hw->collectorIpAndPortHas(key)) {
          c.address = hw->collectorIpAndPort(key).stringValue();
        } else if (hw && hw->collectorIp6AndPortHas(key)) {
          c.address = hw->collectorIp6AndPort(key).stringValue();
        }
        if (!c.address.empty()) {
          const bool v6 = c.address.front() == '[';
          const bool source = row.routed || !(v6 ? row.source6 : row.source4).empty();
          c.state = !row.ready ? "exporter inactive" : source ? "active" : "no source address";
        } else if (!hw) {
          c.state = "tracker inactive";
        }
        row.collectors.push_back(std::move(c));
      }
      rows.push_back(std::move(row));
    }
  }
  std::string out;
  if (format == "prometheus") {
    out =
        "# HELP flowexport_exporter_ready Whether the exporter can send (1) or not (0).\n"
        "# TYPE flowexport_exporter_ready gauge\n";
    for (const auto& r : rows) {
      out += Zub::str("flowexport_exporter_ready{tracker=\"", promLabel(r.tracker),
                      "\",exporter=\"", promLabel(r.exporter), "\"} ", r.ready ? 1 : 0, "\n");
    }
    return out;
  }
  if (format == "json") {
    out = Zub::str("{\"schemaVersion\": ", kSchemaVersion, ", \"exporters\": [");
    for (size_t i = 0; i < rows.size(); ++i) {
      const Row& r = rows[i];
      out += Zub::str(i ? ", " : "", "{\"tracker\": ", jsonString(r.tracker),
                      ", \"exporter\": ", jsonString(r.exporter), ", \"vrf\": ", jsonString(r.vrf),
                      ", \"state\": \"", r.ready ? "active" : "inactive",
                      "\", \"families\": {\"ipv4\": \"", r.family(false), "\", \"ipv6\": \"",
                      r.family(true),
                      "\"}, \"source\": ", r.routed ? "\"chosen by the route\"" : "null",
                      ", \"sourceIpv4\": ", r.source4.empty() ? "null" : jsonString(r.source4),
                      ", \"sourceIpv6\": ", r.source6.empty() ? "null" : jsonString(r.source6),
                      ", \"messageBytes\": ", r.messageBytes, ", \"collectors\": [");
      for (size_t c = 0; c < r.collectors.size(); ++c) {
        const Collector& col = r.collectors[c];
        out += Zub::str(c ? ", " : "", "{\"name\": ", jsonString(col.name),
                        ", \"address\": ", col.address.empty() ? "null" : jsonString(col.address),
                        ", \"state\": ", jsonString(col.state), "}");
      }
      out += "]}";
    }
    return out + "]}\n";
  }
  std::vector<std::vector<std::string>> t = {{"Tracker", "Exporter", "VRF", "State", "Source",
                                              "Message", "Collector", "Address",
                                              "Collector state"}};
  for (const auto& r : rows) {
    std::string source = r.routed ? "by route" : r.source4;
    if (!r.routed && !r.source6.empty()) source += (source.empty() ? "" : ", ") + r.source6;
    std::vector<std::string> head = {r.tracker,
                                     r.exporter,
                                     r.vrf,
                                     r.ready ? "active" : "inactive",
                                     source.empty() ? "-" : source,
                                     std::to_string(r.messageBytes) + " B"};
    if (r.collectors.empty()) {
      head.insert(head.end(), {"-", "-", "-"});
      t.push_back(head);
    }
    for (const auto& c : r.collectors) {
      auto line = head;
      line.insert(line.end(), {c.name, c.address.empty() ? "-" : c.address, c.state});
      t.push_back(line);
      head = std::vector<std::string>(6, "");
    }
  }
  return table(t);
}

std::string FlowExportAgent::showDataPath_(const std::string& format) {
  std::vector<FlowTracking::DataPathSm::PortView> ports;
  if (dataPathSm_) ports = dataPathSm_->ports();
  const FlowTracking::DataPathSm::Dropped dropped =
      dataPathSm_ ? dataPathSm_->dropped() : FlowTracking::DataPathSm::Dropped{};
  size_t flows = 0;
  for (const auto& [name, ft] : hwConfig_->hwFtConfigColl()) {
    flows += dataPathSm_ ? dataPathSm_->flows(name) : 0;
  }
  const uint64_t samples = dataPathSm_ ? dataPathSm_->samples() : 0;
  const uint64_t parseErrors = dataPathSm_ ? dataPathSm_->parseErrors() : 0;
  const uint64_t ringDrops = dataPathSm_ ? dataPathSm_->ringDrops() : 0;
  const uint64_t unencoded = dataPathSm_ ? dataPathSm_->unencoded() : 0;
  // Flows by the interface they came in on.
  std::map<uint32_t, size_t> flowsIn;
  if (dataPathSm_) {
    dataPathSm_->forEachFlow([&](const Zub::Name&, const FlowTracking::FlowRecord& r) {
      ++flowsIn[r.key.ingressIf];
      return true;
    });
  }
  std::string out;
  if (format == "prometheus") {
    struct Family {
      const char* name;
      const char* help;
      uint64_t FlowTracking::DataPathSm::PortView::*field;
    };
    for (const Family& f :
         {Family{"flowexport_datapath_samples_total", "Samples taken on the interface.",
                 &FlowTracking::DataPathSm::PortView::samples},
          Family{"flowexport_datapath_parse_errors_total",
                 "Samples of the interface that did not parse.",
                 &FlowTracking::DataPathSm::PortView::parseErrors},
          Family{"flowexport_datapath_ring_drops_total",
                 "Samples the kernel had no room for in the interface's ring.",
                 &FlowTracking::DataPathSm::PortView::ringDrops}}) {
      out += Zub::str("# HELP ", f.name, " ", f.help, "\n# TYPE ", f.name, " counter\n");
      for (const auto& p : ports) {
        out += Zub::str(f.name, "{interface=\"", promLabel(p.intf.name()), "\",tracker=\"",
                        promLabel(p.tracker), "\"} ", p.*f.field, "\n");
      }
    }
    out +=
        "# HELP flowexport_datapath_dropped_records_total Ended flows that reached no "
        "collector.\n# TYPE flowexport_datapath_dropped_records_total counter\n";
    out += Zub::str("flowexport_datapath_dropped_records_total{reason=\"no_exporter\"} ",
                    dropped.noExporter, "\n",
                    "flowexport_datapath_dropped_records_total{reason=\"no_ready_collector\"} ",
                    dropped.noReadyCollector, "\n",
                    "flowexport_datapath_dropped_records_total{reason=\"oversized\"} ",
                    dropped.oversized, "\n");
    return out;
  }
  if (format == "json") {
    out = Zub::str("{\"schemaVersion\": ", kSchemaVersion, ", \"interfaces\": [");
    for (size_t i = 0; i < ports.size(); ++i) {
      const auto& p = ports[i];
      out += Zub::str(
          i ? ", " : "", "{\"name\": ", jsonString(p.intf.name()),
          ", \"kernelName\": ", jsonString(kernelName_(p.intf)), ", \"index\": ", p.ifindex,
          ", \"tracker\": ", jsonString(p.tracker), ", \"flows\": ", flowsIn[p.ifindex],
          ", \"sampling\": ", p.sampling ? "true" : "false", ", \"samples\": ", p.samples,
          ", \"parseErrors\": ", p.parseErrors, ", \"ringDrops\": ", p.ringDrops, "}");
    }
    return out + Zub::str("], \"on\": ", dataPathSm_ ? "true" : "false",
                          ", \"totals\": {\"samples\": ", samples, ", \"flows\": ", flows,
                          ", \"parseErrors\": ", parseErrors, ", \"ringDrops\": ", ringDrops,
                          ", \"unencoded\": ", unencoded,
                          "}, \"dropped\": {\"noExporter\": ", dropped.noExporter,
                          ", \"noReadyCollector\": ", dropped.noReadyCollector,
                          ", \"oversized\": ", dropped.oversized, "}}\n");
  }
  std::vector<std::vector<std::string>> t = {
      {"Interface", "Index", "Tracker", "State", "Flows", "Samples", "Parse errors", "Ring drops"}};
  for (const auto& p : ports) {
    t.push_back({p.intf.name(), std::to_string(p.ifindex), p.tracker,
                 p.sampling ? "sampling" : "failed", std::to_string(flowsIn[p.ifindex]),
                 std::to_string(p.samples), std::to_string(p.parseErrors),
                 std::to_string(p.ringDrops)});
  }
  if (!dataPathSm_) return "the software data path is off (it runs with platform source: kernel)\n";
  return table(t) +
         Zub::str("totals: ", samples, " samples, ", flows, " flows, ", parseErrors,
                  " parse errors, ", ringDrops, " ring drops, ", unencoded, " not encoded\n") +
         Zub::str("records that reached no collector: ", dropped.noExporter, " no exporter, ",
                  dropped.noReadyCollector, " no ready collector, ", dropped.oversized,
                  " oversized\n");
}

}  // namespace Agent
