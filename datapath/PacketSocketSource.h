#pragma once
// Samples of one interface's received packets, taken by the kernel: a packet socket
// bound to the interface, ingress only, with a classic-BPF filter that keeps one packet
// in `sampleRate` at random (and cuts it to the snap length) before anything is copied,
// and a TPACKET_V3 ring read on the scheduler's loop, a block of samples per wake-up.
// With PACKET_VNET_HDR each sample says whether it is a GSO/GRO super-packet and its
// segment size, so that it can count as the wire packets it stands for.
//
// Needs CAP_NET_RAW. The socket receives nothing until it is bound, after its filter and
// ring are in place: no unsampled packet slips in while it is set up.

#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "datapath/PacketParser.h"
#include "platform/orrin/TaskScheduler.h"

namespace FlowTracking {

struct Sample {
  const uint8_t* frame = nullptr;  // from the Ethernet header, `snapLen` bytes
  size_t snapLen = 0;
  uint32_t wireLen = 0;
  uint32_t ifindex = 0;
  uint16_t vlan = 0;  // the VLAN id the kernel took off the frame, 0 for none
  GsoInfo gso;
  int64_t wallNs = 0;  // when the kernel received it
};

// Where samples come from: a packet socket, or what a test feeds. Samples are handed
// over in batches (up to `kBatch`, all of one interface), so that the work per batch
// (finding the interface and its tracker, reading the clock) is done once and the flow
// cache can fetch the memory of a whole batch before it is needed.
class SampleSource {
 public:
  static constexpr size_t kBatch = 64;
  using Handler = std::function<void(std::span<const Sample>)>;
  virtual ~SampleSource() = default;
  virtual bool start(std::string* error) = 0;
  virtual bool sampleRateIs(uint32_t rate, std::string* error) = 0;
  virtual uint64_t ringDrops() = 0;
};

class PacketSocketSource : public SampleSource {
 public:
  struct Options {
    uint32_t ifindex = 0;
    uint32_t sampleRate = 1;  // one in this many packets
    uint32_t snapLen = 192;
    uint32_t blockBytes = 1 << 16;
    uint32_t blocks = 64;          // 4 MiB: a flood of new flows at one in one finds room
    uint32_t blockTimeoutMs = 20;  // a block that is not full is handed over after this
  };
  PacketSocketSource(Orrin::TaskScheduler& scheduler, const Options& options, Handler handler);
  ~PacketSocketSource() override;
  PacketSocketSource(const PacketSocketSource&) = delete;
  PacketSocketSource& operator=(const PacketSocketSource&) = delete;

  // Opens, filters, maps and binds the socket; false (and why in `error`) when that
  // fails, e.g. "Operation not permitted" without CAP_NET_RAW.
  bool start(std::string* error) override;
  bool started() const { return fd_ >= 0; }
  // Another rate: a new filter on the running socket.
  bool sampleRateIs(uint32_t rate, std::string* error) override;
  const Options& options() const { return options_; }

  uint64_t samples() const { return samples_; }
  // Samples the kernel had no room for in the ring (read from the socket and summed).
  uint64_t ringDrops() override;
  // Reads whatever blocks the kernel has handed over (the loop calls it when readable).
  void drain();

 private:
  bool attachFilter_(uint32_t rate, std::string* error);
  void close_();

  Orrin::TaskScheduler& scheduler_;
  Options options_;
  Handler handler_;
  int fd_ = -1;
  uint8_t* ring_ = nullptr;
  size_t ringBytes_ = 0;
  uint32_t nextBlock_ = 0;
  Sample batch_[kBatch];
  uint64_t samples_ = 0;
  uint64_t drops_ = 0;
};

}  // namespace FlowTracking
