#include "datapath/PacketSocketSource.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

namespace FlowTracking {

namespace {
// The header PACKET_VNET_HDR puts before each frame (struct virtio_net_hdr; its uapi
// header does not compile as C++), in the host's byte order.
struct VnetHeader {
  uint8_t flags;
  uint8_t gsoType;  // 0: not a GSO packet
  uint16_t hdrLen;
  uint16_t gsoSize;
  uint16_t csumStart;
  uint16_t csumOffset;
};
static_assert(sizeof(VnetHeader) == 10);

std::string failure(const char* what) { return std::string(what) + ": " + std::strerror(errno); }
}  // namespace

PacketSocketSource::PacketSocketSource(Orrin::TaskScheduler& scheduler, const Options& options,
                                       Handler handler)
    : scheduler_(scheduler), options_(options), handler_(std::move(handler)) {
  if (options_.sampleRate == 0) options_.sampleRate = 1;
}

PacketSocketSource::~PacketSocketSource() { close_(); }

void PacketSocketSource::close_() {
  if (fd_ >= 0) {
    scheduler_.fdDel(fd_);
    ::close(fd_);
    fd_ = -1;
  }
  if (ring_) ::munmap(ring_, ringBytes_);
  ring_ = nullptr;
}

bool PacketSocketSource::attachFilter_(uint32_t rate, std::string* error) {
  // ld rand; mod #rate; jeq #0 → keep (ret #snap) else drop (ret #0). One in one keeps all.
  sock_filter sample[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(SKF_AD_OFF + SKF_AD_RANDOM)),
      BPF_STMT(BPF_ALU | BPF_MOD | BPF_K, rate),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 0, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, options_.snapLen),
      BPF_STMT(BPF_RET | BPF_K, 0),
  };
  sock_filter all[] = {BPF_STMT(BPF_RET | BPF_K, options_.snapLen)};
  sock_fprog prog{};
  if (rate <= 1) {
    prog.len = 1;
    prog.filter = all;
  } else {
    prog.len = static_cast<unsigned short>(std::size(sample));
    prog.filter = sample;
  }
  if (::setsockopt(fd_, SOL_SOCKET, SO_ATTACH_FILTER, &prog, sizeof prog) < 0) {
    if (error) *error = failure("SO_ATTACH_FILTER");
    return false;
  }
  return true;
}

bool PacketSocketSource::start(std::string* error) {
  if (fd_ >= 0) return true;
  // Protocol 0: nothing is received before bind() names one, below.
  fd_ = ::socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd_ < 0) {
    if (error) *error = failure("packet socket");
    return false;
  }
  auto fail = [&](const char* what) {
    if (error) *error = failure(what);
    close_();
    return false;
  };
  if (!attachFilter_(options_.sampleRate, error)) {
    close_();
    return false;
  }
  int one = 1;
  if (::setsockopt(fd_, SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof one) < 0) {
    return fail("PACKET_IGNORE_OUTGOING");
  }
  if (::setsockopt(fd_, SOL_PACKET, PACKET_VNET_HDR, &one, sizeof one) < 0) {
    return fail("PACKET_VNET_HDR");
  }
  int version = TPACKET_V3;
  if (::setsockopt(fd_, SOL_PACKET, PACKET_VERSION, &version, sizeof version) < 0) {
    return fail("PACKET_VERSION");
  }
  tpacket_req3 req{};
  req.tp_block_size = options_.blockBytes;
  req.tp_block_nr = options_.blocks;
  req.tp_frame_size = 2048;  // a hint only: V3 frames have their own lengths
  req.tp_frame_nr = req.tp_block_size / req.tp_frame_size * req.tp_block_nr;
  req.tp_retire_blk_tov = options_.blockTimeoutMs;
  if (::setsockopt(fd_, SOL_PACKET, PACKET_RX_RING, &req, sizeof req) < 0) {
    return fail("PACKET_RX_RING");
  }
  ringBytes_ = static_cast<size_t>(req.tp_block_size) * req.tp_block_nr;
  void* ring = ::mmap(nullptr, ringBytes_, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
  if (ring == MAP_FAILED) return fail("mmap of the packet ring");
  ring_ = static_cast<uint8_t*>(ring);
  sockaddr_ll sll{};
  sll.sll_family = AF_PACKET;
  sll.sll_protocol = htons(ETH_P_ALL);
  sll.sll_ifindex = static_cast<int>(options_.ifindex);
  if (::bind(fd_, reinterpret_cast<sockaddr*>(&sll), sizeof sll) < 0) return fail("bind");
  scheduler_.fdIs(fd_, EPOLLIN, [this](uint32_t) { drain(); });
  return true;
}

bool PacketSocketSource::sampleRateIs(uint32_t rate, std::string* error) {
  options_.sampleRate = rate ? rate : 1;
  return fd_ < 0 || attachFilter_(options_.sampleRate, error);
}

uint64_t PacketSocketSource::ringDrops() {
  if (fd_ >= 0) {
    tpacket_stats_v3 st{};
    socklen_t len = sizeof st;
    // Reading the statistics resets the kernel's counters: they are summed here.
    if (::getsockopt(fd_, SOL_PACKET, PACKET_STATISTICS, &st, &len) == 0) drops_ += st.tp_drops;
  }
  return drops_;
}

void PacketSocketSource::drain() {
  if (!ring_) return;
  const size_t blockBytes = options_.blockBytes;
  for (uint32_t n = 0; n < options_.blocks; ++n) {
    uint8_t* blockBase = ring_ + nextBlock_ * blockBytes;
    auto* block = reinterpret_cast<tpacket_block_desc*>(blockBase);
    std::atomic_ref<uint32_t> status(block->hdr.bh1.block_status);
    if ((status.load(std::memory_order_acquire) & TP_STATUS_USER) == 0) break;
    const uint32_t count = block->hdr.bh1.num_pkts;
    size_t at = block->hdr.bh1.offset_to_first_pkt;
    size_t batched = 0;
    for (uint32_t i = 0; i < count; ++i) {
      // The kernel's offsets, checked anyway: a sample never reads outside its block.
      if (at + sizeof(tpacket3_hdr) > blockBytes) break;
      const auto* h = reinterpret_cast<const tpacket3_hdr*>(blockBase + at);
      const uint8_t* base = reinterpret_cast<const uint8_t*>(h);
      // The next sample's header is fetched while this one is read.
      if (h->tp_next_offset != 0 && at + h->tp_next_offset + 64 <= blockBytes) {
        __builtin_prefetch(base + h->tp_next_offset);
      }
      const auto* sll =
          reinterpret_cast<const sockaddr_ll*>(base + TPACKET_ALIGN(sizeof(tpacket3_hdr)));
      if (h->tp_mac >= sizeof(VnetHeader) && at + h->tp_mac + h->tp_snaplen <= blockBytes) {
        Sample& s = batch_[batched++];
        s.frame = base + h->tp_mac;
        s.snapLen = h->tp_snaplen;
        s.wireLen = h->tp_len;
        s.ifindex = static_cast<uint32_t>(sll->sll_ifindex);
        s.vlan = (h->tp_status & TP_STATUS_VLAN_VALID) ? h->hv1.tp_vlan_tci & 0x0FFF : 0;
        VnetHeader vnet;
        std::memcpy(&vnet, base + h->tp_mac - sizeof vnet, sizeof vnet);
        s.gso.gsoSize = vnet.gsoType != 0 ? vnet.gsoSize : 0;
        s.wallNs = int64_t{h->tp_sec} * 1'000'000'000 + h->tp_nsec;
        if (batched == kBatch) {
          samples_ += batched;
          handler_(std::span<const Sample>(batch_, batched));
          batched = 0;
        }
      }
      if (h->tp_next_offset == 0) break;
      at += h->tp_next_offset;
    }
    // The samples point into the block: all are handled before it goes back.
    if (batched > 0) {
      samples_ += batched;
      handler_(std::span<const Sample>(batch_, batched));
    }
    status.store(TP_STATUS_KERNEL, std::memory_order_release);
    nextBlock_ = (nextBlock_ + 1) % options_.blocks;
  }
}

}  // namespace FlowTracking
