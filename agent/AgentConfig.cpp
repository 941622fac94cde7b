#include "agent/AgentConfig.h"

#include <yaml-cpp/depthguard.h>
#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/yaml.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <vector>

#include <sys/stat.h>

#include "datapath/FlowCache.h"
#include "platform/nelo/IntfId.h"
#include "platform/zub/Text.h"

namespace Agent {

ConfigError::ConfigError(const std::string& file, int line, const std::string& field,
                         const std::string& message)
    : std::runtime_error(file + (line > 0 ? ":" + std::to_string(line) : std::string()) + ": " +
                         (field.empty() ? "" : field + ": ") + message),
      file_(file),
      line_(line),
      field_(field),
      message_(message) {}

std::string nameProblem(const std::string& s) {
  if (s.empty()) return "a name must not be empty";
  for (size_t i = 0; i < s.size();) {
    uint32_t cp = 0;
    const size_t len = Zub::utf8SequenceAt(s, i, &cp);
    if (len == 0) return "a name must be UTF-8 text";
    if (Zub::isControl(cp)) return "a name must not contain control characters";
    i += len;
  }
  if (s.size() > FlowTracking::Constants::confNameMaxLen()) {
    return "a name is at most " + std::to_string(FlowTracking::Constants::confNameMaxLen()) +
           " bytes";
  }
  return "";
}

size_t bytesPerCachedFlow() { return FlowTracking::FlowCache::kBytesPerFlow; }

IntfKind intfKindOfName(const std::string& name) {
  if (Nelo::PortChannelIntfId::isPortChannelIntfId(Nelo::IntfId(name))) return IntfKind::lag;
  if (Nelo::EthIntfId::isEthIntfId(Nelo::IntfId(name))) return IntfKind::ethernet;
  return IntfKind::other;
}

namespace {

// Walks the document with the path of each node, for error messages.
class Parser {
 public:
  explicit Parser(std::string file) : file_(std::move(file)) {}

  [[noreturn]] void fail(const YAML::Node& n, const std::string& path,
                         const std::string& message) const {
    throw ConfigError(file_, n.Mark().line >= 0 ? n.Mark().line + 1 : 0, path, message);
  }

  void expectMap(const YAML::Node& n, const std::string& path,
                 std::initializer_list<const char*> known) const {
    if (!n.IsMap()) fail(n, path, "expected a mapping");
    uniqueKeys(n, path);
    std::set<std::string> ok(known.begin(), known.end());
    for (const auto& kv : n) {
      const std::string key = keyOf(kv.first, path);
      if (!ok.count(key)) {
        std::string list;
        for (const char* k : known) list += std::string(list.empty() ? "" : ", ") + k;
        fail(kv.first, join(path, key), "unknown field (known: " + list + ")");
      }
    }
  }

  // YAML wants the keys of a mapping unique; the parser would keep the first silently,
  // so a line appended to switch something off would not.
  void uniqueKeys(const YAML::Node& n, const std::string& path) const {
    std::set<std::string> seen;
    for (const auto& kv : n) {
      const std::string key = keyOf(kv.first, path);
      if (!seen.insert(key).second) fail(kv.first, join(path, key), "given twice");
    }
  }

  std::string keyOf(const YAML::Node& k, const std::string& path) const {
    if (!k.IsScalar()) fail(k, path, "expected a name as key");
    std::string s = k.as<std::string>();
    refuseControlCharacters(k, path, s);
    return s;
  }

  // Names end up in log lines, the statistics table, JSON and the line-oriented
  // tracker-id state file: they are UTF-8 text, and a control character (a newline above
  // all, or a terminal's escape) has no place in them.
  void refuseControlCharacters(const YAML::Node& n, const std::string& path,
                               const std::string& s) const {
    for (size_t i = 0; i < s.size();) {
      uint32_t cp = 0;
      const size_t len = Zub::utf8SequenceAt(s, i, &cp);
      if (len == 0) fail(n, path, "a name must be UTF-8 text");
      if (Zub::isControl(cp)) fail(n, path, "a name must not contain control characters");
      i += len;
    }
  }

  static std::string join(const std::string& path, const std::string& key) {
    return path.empty() ? key : path + "." + key;
  }

  std::string str(const YAML::Node& n, const std::string& path) const {
    if (!n.IsScalar()) fail(n, path, "expected a text value");
    return n.as<std::string>();
  }

  bool boolean(const YAML::Node& n, const std::string& path) const {
    bool b;
    if (!n.IsScalar() || !YAML::convert<bool>::decode(n, b))
      fail(n, path, "expected true or false");
    return b;
  }

  long long integer(const YAML::Node& n, const std::string& path) const {
    long long v;
    if (!n.IsScalar() || !YAML::convert<long long>::decode(n, v)) {
      fail(n, path, "expected a whole number");
    }
    return v;
  }

  // A whole number within [lo, hi] of `unit`.
  uint32_t range(const YAML::Node& n, const std::string& path, long long lo, long long hi,
                 const char* unit) const {
    const long long v = integer(n, path);
    if (v < lo || v > hi) {
      fail(n, path, "expected " + std::to_string(lo) + " to " + std::to_string(hi) + " " + unit);
    }
    return static_cast<uint32_t>(v);
  }

  // A bounded model value, from the number the operator writes in `unit`s, each `scale`
  // of the model's; out of range, the error says the range in those units.
  template <class T>
  T bounded(const YAML::Node& n, const std::string& path, const char* unit,
            long long scale = 1) const {
    const long long v = integer(n, path);
    const long long lo = (T::kMin + scale - 1) / scale, hi = T::kMax / scale;
    if (v < lo || v > hi) {
      fail(n, path, "expected " + std::to_string(lo) + " to " + std::to_string(hi) + " " + unit);
    }
    try {
      return T(v * scale);
    } catch (const Zub::RangeException& e) {
      fail(n, path, e.what());
    }
  }

  template <class F>
  void list(const YAML::Node& n, const std::string& path, F&& each) const {
    if (!n.IsSequence()) fail(n, path, "expected a list");
    for (size_t i = 0; i < n.size(); ++i) each(n[i], path + "[" + std::to_string(i) + "]");
  }

  ExporterSpec exporter(const YAML::Node& n, const std::string& path) const {
    expectMap(n, path,
              {"name", "collectors", "local-interface", "vrf", "dscp", "mtu", "template-interval"});
    ExporterSpec e;
    if (!n["name"]) fail(n, path, "an exporter needs a name");
    e.name = name(n["name"], join(path, "name"));
    if (n["collectors"]) {
      std::set<std::string> hosts;
      list(n["collectors"], join(path, "collectors"),
           [&](const YAML::Node& c, const std::string& p) {
             auto hp = Nelo::HostAndPort::parse(str(c, p));
             if (!hp || hp->port == 0) {
               fail(c, p,
                    "expected host:port, a.b.c.d:port or [IPv6]:port with a port of 1..65535");
             }
             if (!hosts.insert(hp->host).second)
               fail(c, p, "collector host " + hp->host + " given twice");
             e.collectors.push_back(*hp);
           });
    }
    if (n["local-interface"])
      e.localInterface = str(n["local-interface"], join(path, "local-interface"));
    if (n["vrf"]) e.vrf = vrf(n["vrf"], join(path, "vrf"));
    if (n["dscp"]) e.dscp = bounded<Nelo::DscpValue>(n["dscp"], join(path, "dscp"), "(DSCP)");
    if (n["mtu"]) e.mtu = bounded<FlowTracking::IpfixMtu>(n["mtu"], join(path, "mtu"), "bytes");
    if (n["template-interval"]) {
      e.templateInterval = bounded<FlowTracking::TemplateInterval>(
          n["template-interval"], join(path, "template-interval"), "seconds", 1000);
    }
    return e;
  }

  TrackerSpec tracker(const YAML::Node& n, const std::string& path) const {
    expectMap(n, path, {"name", "active-interval", "inactive-timeout", "flow-cache", "exporters"});
    TrackerSpec t;
    if (!n["name"]) fail(n, path, "a tracker needs a name");
    t.name = name(n["name"], join(path, "name"));
    if (n["active-interval"]) {
      t.activeInterval = bounded<FlowTracking::ActiveInterval>(
          n["active-interval"], join(path, "active-interval"), "seconds", 1000);
    }
    if (n["flow-cache"]) {
      t.flowCache =
          bounded<FlowTracking::FlowCacheSize>(n["flow-cache"], join(path, "flow-cache"), "flows");
    }
    if (n["inactive-timeout"]) {
      t.inactiveTimeout = bounded<FlowTracking::InactiveTimeout>(
          n["inactive-timeout"], join(path, "inactive-timeout"), "seconds", 1000);
    }
    if (n["exporters"]) {
      std::set<std::string> names;
      list(n["exporters"], join(path, "exporters"), [&](const YAML::Node& e, const std::string& p) {
        t.exporters.push_back(exporter(e, p));
        if (!names.insert(t.exporters.back().name).second) {
          fail(e, p, "exporter " + t.exporters.back().name + " given twice");
        }
      });
    }
    return t;
  }

  // The caches' worst case, the sum of their sizes at full cost, within the limit: the
  // first tracker whose cache goes past it is named, at its line.
  void memoryWithinLimit(const YAML::Node& root, const AgentConfig& c) const {
    const uint64_t limit = uint64_t{c.memoryLimitMiB} << 20;
    uint64_t total = 0;
    for (size_t i = 0; i < c.trackers.size(); ++i) {
      total += uint64_t{c.trackers[i].flowCache.value()} * bytesPerCachedFlow();
      if (total <= limit) continue;
      const YAML::Node t = root["flow-tracking"]["trackers"][i];
      const std::string path = "flow-tracking.trackers[" + std::to_string(i) + "]";
      const bool given = bool(t["flow-cache"]);
      fail(given ? t["flow-cache"] : t, given ? path + ".flow-cache" : path,
           "the flow caches would take up to " + std::to_string((total + (1 << 20) - 1) >> 20) +
               " MiB with this one (" + std::to_string(bytesPerCachedFlow()) +
               " bytes per flow), more than flow-tracking.memory-limit (" +
               std::to_string(c.memoryLimitMiB) +
               " MiB); make the caches smaller or raise the limit");
    }
  }

  std::string name(const YAML::Node& n, const std::string& path) const {
    std::string s = str(n, path);
    if (const std::string why = nameProblem(s); !why.empty()) fail(n, path, why);
    return s;
  }

  L3::VrfName vrf(const YAML::Node& n, const std::string& path) const {
    try {
      return L3::VrfName(str(n, path));
    } catch (const Zub::RangeException&) {
      fail(n, path, "a VRF name is at most " + std::to_string(L3::VrfName::maxLength) + " bytes");
    }
  }

  InterfaceSpec interface(const std::string& intfName, const YAML::Node& n,
                          const std::string& path) const {
    InterfaceSpec i;
    i.name = intfName;
    i.kind = intfKindOfName(intfName);
    if (n.IsNull()) return i;
    expectMap(n, path,
              {"link", "forwarding-model", "mtu", "ipv4", "ipv6", "vrf", "members", "index"});
    if (n["link"]) {
      const std::string link = str(n["link"], join(path, "link"));
      if (link != "up" && link != "down")
        fail(n["link"], join(path, "link"), "expected up or down");
      i.linkUp = link == "up";
    }
    if (n["forwarding-model"]) {
      static const std::map<std::string, Interface::ForwardingModel> models = {
          {"inactive", Interface::ForwardingModel::intfForwardingModelInactive},
          {"data-link", Interface::ForwardingModel::intfForwardingModelDataLink},
          {"quiet", Interface::ForwardingModel::intfForwardingModelQuiet},
          {"bridged", Interface::ForwardingModel::intfForwardingModelBridged},
          {"routed", Interface::ForwardingModel::intfForwardingModelRouted},
      };
      const std::string m = str(n["forwarding-model"], join(path, "forwarding-model"));
      auto it = models.find(m);
      if (it == models.end()) {
        fail(n["forwarding-model"], join(path, "forwarding-model"),
             "expected routed, bridged, quiet, data-link or inactive");
      }
      i.forwardingModel = it->second;
    }
    if (n["mtu"]) {
      const long long mtu = integer(n["mtu"], join(path, "mtu"));
      if (mtu < 68 || mtu > 65535) fail(n["mtu"], join(path, "mtu"), "expected 68 to 65535 bytes");
      i.mtu = static_cast<uint32_t>(mtu);
    }
    if (n["ipv4"]) {
      auto a = Nelo::IpAddrWithMask::parse(str(n["ipv4"], join(path, "ipv4")));
      if (!a)
        fail(n["ipv4"], join(path, "ipv4"), "expected an IPv4 address with its length, a.b.c.d/n");
      i.ipv4 = *a;
    }
    if (n["ipv6"]) {
      list(n["ipv6"], join(path, "ipv6"), [&](const YAML::Node& a, const std::string& p) {
        auto v = Nelo::Ip6AddrWithMask::parse(str(a, p));
        if (!v) fail(a, p, "expected an IPv6 address with its length, x::y/n");
        i.ipv6.push_back(*v);
      });
    }
    if (n["vrf"]) i.vrf = vrf(n["vrf"], join(path, "vrf"));
    if (n["members"]) {
      if (!Nelo::PortChannelIntfId::isPortChannelIntfId(Nelo::IntfId(intfName))) {
        fail(n["members"], join(path, "members"), "only a Port-Channel has members");
      }
      list(n["members"], join(path, "members"),
           [&](const YAML::Node& m, const std::string& p) { i.members.push_back(str(m, p)); });
    }
    if (n["index"]) {
      const long long idx = integer(n["index"], join(path, "index"));
      if (idx < 1 || idx > 0x3FFFFFFE)
        fail(n["index"], join(path, "index"), "expected 1 to 1073741822");
      i.index = static_cast<uint32_t>(idx);
    }
    return i;
  }

  // `key` is the VRF's name as written, so that a refusal of the name has its line.
  VrfSpec vrfSpec(const YAML::Node& key, const YAML::Node& n, const std::string& path) const {
    VrfSpec v;
    v.name = vrf(key, path);
    auto state = [&](const YAML::Node& s, const std::string& p) {
      const std::string t = str(s, p);
      if (t == "active") return Ip::VrfState::vrfActive;
      if (t == "inactive" || t == "initializing") return Ip::VrfState::vrfInitializing;
      if (t == "deleting") return Ip::VrfState::vrfDeleting;
      fail(s, p, "expected active, inactive or deleting");
    };
    if (n.IsScalar()) {
      v.state = state(n, path);
      return v;
    }
    expectMap(n, path, {"state", "id"});
    if (n["state"]) v.state = state(n["state"], join(path, "state"));
    if (n["id"]) {
      const long long id = integer(n["id"], join(path, "id"));
      if (id < 0 || id > 0xFFFFFE) fail(n["id"], join(path, "id"), "expected 0 to 16777214");
      v.id = static_cast<uint32_t>(id);
    }
    return v;
  }

  AgentConfig document(const YAML::Node& root) const {
    AgentConfig c;
    if (root.IsNull()) fail(root, "", kNoSection);
    expectMap(root, "", {"flow-tracking", "platform"});
    if (const YAML::Node ft = root["flow-tracking"]) {
      const std::string p = "flow-tracking";
      expectMap(ft, p,
                {"enabled", "hardware-acceleration", "sample-rate", "compatible-options",
                 "memory-limit", "ring-size", "trackers", "interfaces"});
      if (ft["memory-limit"]) {
        c.memoryLimitMiB = range(ft["memory-limit"], join(p, "memory-limit"), 16, 1 << 20, "MiB");
      }
      if (ft["ring-size"]) {
        // Whole blocks of 64 KiB.
        c.ringKiB =
            (range(ft["ring-size"], join(p, "ring-size"), 256, 1 << 20, "KiB") + 63) / 64 * 64;
      }
      if (ft["enabled"]) c.enabled = boolean(ft["enabled"], join(p, "enabled"));
      if (ft["hardware-acceleration"]) {
        c.hardwareAcceleration =
            boolean(ft["hardware-acceleration"], join(p, "hardware-acceleration"));
      }
      if (ft["sample-rate"]) {
        c.sampleRate = bounded<FlowTracking::SampleRate>(ft["sample-rate"], join(p, "sample-rate"),
                                                         "(one packet in N)");
      }
      if (ft["compatible-options"]) {
        c.compatibleOptions = boolean(ft["compatible-options"], join(p, "compatible-options"));
      }
      std::set<std::string> names;
      if (ft["trackers"]) {
        // Each tracker takes one observation domain id of 1..65535.
        if (ft["trackers"].IsSequence() && ft["trackers"].size() > 65535) {
          fail(ft["trackers"], join(p, "trackers"),
               "at most 65535 trackers (each needs an observation domain id of 1..65535)");
        }
        list(ft["trackers"], join(p, "trackers"), [&](const YAML::Node& t, const std::string& tp) {
          c.trackers.push_back(tracker(t, tp));
          if (!names.insert(c.trackers.back().name).second) {
            fail(t, tp, "tracker " + c.trackers.back().name + " given twice");
          }
        });
      }
      // A key with nothing under it (`interfaces:`) means none.
      if (const YAML::Node intfs = ft["interfaces"]; intfs && !intfs.IsNull()) {
        const std::string ip = join(p, "interfaces");
        if (!intfs.IsMap()) fail(intfs, ip, "expected a mapping of interface: tracker");
        uniqueKeys(intfs, ip);
        for (const auto& kv : intfs) {
          const std::string intf = keyOf(kv.first, ip);
          const std::string tracker = name(kv.second, join(ip, intf));
          if (!names.count(tracker)) fail(kv.second, join(ip, intf), "no tracker named " + tracker);
          c.interfaceTracker[intf] = tracker;
        }
      }
    }
    if (const YAML::Node pl = root["platform"]) {
      expectMap(pl, "platform", {"source", "names", "interfaces", "vrfs"});
      if (const YAML::Node src = pl["source"]) {
        const std::string v = str(src, "platform.source");
        if (v == "kernel") {
          c.platformSource = PlatformSource::kernel;
        } else if (v != "file") {
          fail(src, "platform.source", "expected file or kernel");
        }
      }
      if (c.platformSource == PlatformSource::kernel) {
        for (const char* k : {"interfaces", "vrfs"}) {
          if (pl[k]) {
            fail(pl[k], join("platform", k),
                 "with source: kernel the interfaces and VRFs come from the kernel");
          }
        }
      }
      if (const YAML::Node names = pl["names"]; names && !names.IsNull()) {
        if (!names.IsMap()) fail(names, "platform.names", "expected a mapping of kernel-name: id");
        uniqueKeys(names, "platform.names");
        std::map<std::string, std::string> linkOf;  // each id belongs to one kernel link
        for (const auto& kv : names) {
          const std::string k = keyOf(kv.first, "platform.names");
          const std::string id = name(kv.second, join("platform.names", k));
          if (const auto [it, fresh] = linkOf.emplace(id, k); !fresh) {
            fail(kv.second, join("platform.names", k),
                 "kernel links " + it->second + " and " + k + " both map to " + id +
                     "; an interface id names one link");
          }
          c.kernelNames[k] = id;
        }
      }
      if (const YAML::Node intfs = pl["interfaces"]; intfs && !intfs.IsNull()) {
        if (!intfs.IsMap()) fail(intfs, "platform.interfaces", "expected a mapping of interfaces");
        uniqueKeys(intfs, "platform.interfaces");
        for (const auto& kv : intfs) {
          const std::string intf = keyOf(kv.first, "platform.interfaces");
          c.interfaces.push_back(interface(intf, kv.second, "platform.interfaces." + intf));
        }
      }
      if (const YAML::Node vrfs = pl["vrfs"]; vrfs && !vrfs.IsNull()) {
        if (!vrfs.IsMap()) fail(vrfs, "platform.vrfs", "expected a mapping of VRFs");
        uniqueKeys(vrfs, "platform.vrfs");
        for (const auto& kv : vrfs) {
          const std::string v = keyOf(kv.first, "platform.vrfs");
          c.vrfs.push_back(vrfSpec(kv.first, kv.second, "platform.vrfs." + v));
        }
      }
    }
    // An empty or truncated file must not switch export off by accident.
    if (!root["flow-tracking"]) fail(root, "", kNoSection);
    memoryWithinLimit(root, c);
    // The kernel as the platform means the host samples in software, at any rate; the
    // chip of a switch described by the file samples no more often than its bound.
    if (c.platformSource == PlatformSource::file &&
        c.sampleRate.value() < FlowTracking::SampleRate::chipMinRate) {
      fail(root["flow-tracking"]["sample-rate"], "flow-tracking.sample-rate",
           "the chip samples one packet in " +
               std::to_string(FlowTracking::SampleRate::chipMinRate) + " to " +
               std::to_string(FlowTracking::SampleRate::maxRate) +
               "; with `platform: {source: kernel}` the host samples at any rate from 1");
    }
    return c;
  }

 private:
  static constexpr const char* kNoSection =
      "no flow-tracking section; write `flow-tracking: {enabled: false}` to disable";

  std::string file_;
};

}  // namespace

namespace {

// Where the first node of each document of a stream is; the events themselves are not
// needed.
class DocumentStarts : public YAML::EventHandler {
 public:
  std::vector<YAML::Mark> starts;
  void OnDocumentStart(const YAML::Mark& mark) override {
    starts.push_back(mark);
    fresh_ = true;
  }
  void OnDocumentEnd() override {}
  void OnNull(const YAML::Mark& m, YAML::anchor_t) override { node(m); }
  void OnAlias(const YAML::Mark& m, YAML::anchor_t) override { node(m); }
  void OnScalar(const YAML::Mark& m, const std::string&, YAML::anchor_t,
                const std::string&) override {
    node(m);
  }
  void OnSequenceStart(const YAML::Mark& m, const std::string&, YAML::anchor_t,
                       YAML::EmitterStyle::value) override {
    node(m);
  }
  void OnSequenceEnd() override {}
  void OnMapStart(const YAML::Mark& m, const std::string&, YAML::anchor_t,
                  YAML::EmitterStyle::value) override {
    node(m);
  }
  void OnMapEnd() override {}

 private:
  void node(const YAML::Mark& m) {
    if (fresh_) starts.back() = m;
    fresh_ = false;
  }
  bool fresh_ = false;
};

}  // namespace

AgentConfig parseConfig(const std::string& yamlText, const std::string& fileName) {
  YAML::Node root;
  try {
    // At most two documents are looked at: yaml-cpp's LoadAll never ends on some broken
    // streams (a ',' at the top level yields empty documents without end, each one
    // allocated), so a four-byte file would take all memory.
    std::istringstream in(yamlText);
    YAML::Parser parser(in);
    DocumentStarts docs;
    for (int i = 0; i < 2 && parser.HandleNextDocument(docs); ++i) {
    }
    if (docs.starts.size() > 1) {
      const int line = docs.starts[1].line;
      throw ConfigError(fileName, line >= 0 ? line + 1 : 0, "",
                        "a second YAML document; the file holds one");
    }
    if (!docs.starts.empty()) root = YAML::Load(yamlText);
  } catch (const YAML::DeepRecursion& e) {
    throw ConfigError(fileName, e.mark.line >= 0 ? e.mark.line + 1 : 0, "",
                      "nested deeper than " + std::to_string(e.depth() - 1) + " levels");
  } catch (const YAML::Exception& e) {
    throw ConfigError(fileName, e.mark.line >= 0 ? e.mark.line + 1 : 0, "", e.msg);
  }
  try {
    return Parser(fileName).document(root);
  } catch (const YAML::Exception& e) {
    // A node of an unexpected kind that a check above did not catch: still the file's
    // fault, reported with its position.
    throw ConfigError(fileName, e.mark.line >= 0 ? e.mark.line + 1 : 0, "", e.msg);
  }
}

AgentConfig loadConfigFile(const std::string& path) {
  return parseConfig(readConfigFile(path), path);
}

std::string readConfigFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in)
    throw ConfigError(path, 0, "", std::string("cannot read the file: ") + std::strerror(errno));
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode))
    throw ConfigError(path, 0, "", "not a regular file");
  // A file past the limit is refused before it is read whole (a device, a runaway
  // generator).
  std::string text;
  char chunk[64 * 1024];
  while (in.read(chunk, sizeof chunk) || in.gcount() > 0) {
    text.append(chunk, static_cast<size_t>(in.gcount()));
    if (text.size() > kMaxConfigBytes) {
      throw ConfigError(path, 0, "",
                        "larger than " + std::to_string(kMaxConfigBytes >> 20) + " MiB");
    }
  }
  if (in.bad())
    throw ConfigError(path, 0, "", std::string("cannot read the file: ") + std::strerror(errno));
  return text;
}

const std::string& embeddedDefaultConfig() {
  static const std::string text =
      R"(# flowexportd's embedded default configuration: this host's own traffic.
# The kernel is the platform: links, addresses and VRFs are followed as they change. Every
# Ethernet link and bond that is up (not the loopback, bridges or tunnels) is sampled, one
# received packet in 100, and the flows go as IPFIX to a collector on 127.0.0.1:4739 with
# the interface table that names the links. Sampling needs CAP_NET_RAW; without it the
# daemon says so and sends templates and tables only.
flow-tracking:
  enabled: true
  sample-rate: 100
  interfaces:
    "*": host
  trackers:
    - name: host
      active-interval: 60
      inactive-timeout: 15
      flow-cache: 65536
      exporters:
        - name: local
          collectors: ["127.0.0.1:4739"]
          template-interval: 60
platform:
  source: kernel
)";
  return text;
}

}  // namespace Agent
