#pragma once
// The agent's configuration file (YAML): the operator configuration and, until the
// platform status comes from the kernel, the platform's interfaces and VRFs. Parsing
// validates everything before anything is applied; an error names the file, the line
// and the field.

#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "ipfix/FlowTrackingTypes.h"
#include "platform/nelo/Addr.h"
#include "platform/nelo/VrfName.h"
#include "platform/status/Interface.h"
#include "platform/status/Ip.h"

namespace Agent {

struct ExporterSpec {
  std::string name;
  std::vector<Nelo::HostAndPort> collectors;  // keyed by host text, so hosts are unique
  std::string localInterface;
  L3::VrfName vrf{"default"};  // an exporter with no VRF is in the default VRF
  Nelo::DscpValue dscp;
  FlowTracking::IpfixMtu mtu;
  FlowTracking::TemplateInterval templateInterval;
};

struct TrackerSpec {
  std::string name;
  FlowTracking::ActiveInterval activeInterval;
  FlowTracking::FlowCacheSize flowCache;  // flows of the software data path
  FlowTracking::InactiveTimeout inactiveTimeout;
  std::vector<ExporterSpec> exporters;
};

// What an interface is to flow tracking: an Ethernet link or a port-channel (bond) can be
// tracked, any other interface cannot. The file's interfaces are of the kind their names
// say ("EthernetN", "Port-ChannelN"); the kernel's are of the kind of their link, whatever
// their names.
enum class IntfKind { other, ethernet, lag };
IntfKind intfKindOfName(const std::string& name);

struct InterfaceSpec {
  std::string name;
  IntfKind kind = IntfKind::other;
  bool linkUp = true;
  Interface::ForwardingModel forwardingModel =
      Interface::ForwardingModel::intfForwardingModelRouted;
  uint32_t mtu = 1500;
  std::optional<Nelo::IpAddrWithMask> ipv4;
  std::vector<Nelo::Ip6AddrWithMask> ipv6;
  L3::VrfName vrf{"default"};
  std::vector<std::string> members;  // port-channels
  std::optional<uint32_t> index;     // the index the hardware reports in flow records
};

struct VrfSpec {
  L3::VrfName name;
  Ip::VrfState state = Ip::VrfState::vrfActive;
  std::optional<uint32_t> id;
  std::string device;  // the kernel's VRF device; empty for a VRF of the file's
};

// Where the platform's interfaces and VRFs come from: the file's own lists, or the
// kernel (rtnetlink), with an optional map from kernel names to interface ids.
enum class PlatformSource { file, kernel };

// The software data path's memory: the flow caches of all trackers together hold at most
// `memoryLimitMiB` (each flow of a cache's size counted at its full cost, as a cache that
// fills up takes it), and each sampled interface has a ring of `ringKiB`.
inline constexpr uint32_t kDefaultMemoryLimitMiB = 1024;
inline constexpr uint32_t kDefaultRingKiB = 4096;
// What one flow of a cache's size costs at most, in bytes (record and hash slots).
size_t bytesPerCachedFlow();

struct AgentConfig {
  bool enabled = false;
  uint32_t memoryLimitMiB = kDefaultMemoryLimitMiB;
  uint32_t ringKiB = kDefaultRingKiB;
  bool hardwareAcceleration = false;
  FlowTracking::SampleRate sampleRate;
  bool compatibleOptions = true;
  std::vector<TrackerSpec> trackers;
  // Bound interface -> tracker; the interface "*" stands for every Ethernet link and
  // port-channel not bound by name.
  std::map<std::string, std::string> interfaceTracker;
  std::vector<InterfaceSpec> interfaces;
  std::vector<VrfSpec> vrfs;
  PlatformSource platformSource = PlatformSource::file;
  std::map<std::string, std::string> kernelNames;
};

// "flowexport.yaml:14: flow-tracking.trackers[0].exporters[0].mtu: <message>"
class ConfigError : public std::runtime_error {
 public:
  ConfigError(const std::string& file, int line, const std::string& field,
              const std::string& message);
  const std::string& file() const { return file_; }
  int line() const { return line_; }
  const std::string& field() const { return field_; }
  const std::string& message() const { return message_; }

 private:
  std::string file_;
  int line_;
  std::string field_;
  std::string message_;
};

// Why `s` cannot be the name of a tracker, exporter or VRF-bound object, or "" when it
// can: names are non-empty UTF-8 text without control characters, and short enough for
// the tables that carry them.
std::string nameProblem(const std::string& s);

// Parses and validates; raises ConfigError.
AgentConfig parseConfig(const std::string& yamlText, const std::string& fileName);
// The largest configuration file read; a larger one is refused.
inline constexpr size_t kMaxConfigBytes = 64u << 20;
// The file's text, checked to be a regular file within the limit; raises ConfigError.
std::string readConfigFile(const std::string& path);
AgentConfig loadConfigFile(const std::string& path);

// The configuration the agent runs on when it is given no file: the host's own links,
// sampled one in 100, exporting to a collector on 127.0.0.1:4739.
const std::string& embeddedDefaultConfig();

}  // namespace Agent
