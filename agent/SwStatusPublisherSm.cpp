#include "agent/SwStatusPublisherSm.h"

#include "platform/zub/Glint.h"

namespace Agent {

namespace {
Zub::Glint::Facility& trace() {
  static auto& f = Zub::Glint::facility("Agent");
  return f;
}
}  // namespace

// One tracker: one published group status per configured flow group.
class SwStatusPublisherSm::TrackerSm : public Zub::Reactor {
 public:
  TrackerSm(const Zub::Ptr<HwFlowTracking::FtConfig>& ft,
            const Zub::Ptr<HwFlowTracking::FtStatus>& status,
            const Zub::Ptr<Ipfix::ElementIdColl>& catalogue)
      : ft_(ft), status_(status), catalogue_(catalogue) {
    watch(ft_->hwFgConfigSignal(), [this](const uint32_t& seq) { handleFgConfig(seq); });
  }

  void handleInitialized() override {
    for (uint32_t seq : ft_->hwFgConfigColl().keys()) handleFgConfig(seq);
  }

  void handleFgConfig(uint32_t seq) {
    groupSubs_.erase(seq);
    auto fg = ft_->hwFgConfig(seq);
    if (!fg) {
      unpublish(seq);
      return;
    }
    watch(groupSubs_, seq, fg->genIdSignal(), [this, seq] { publish(seq); });
    watch(groupSubs_, seq, fg->templateIdSignal(), [this, seq] { publish(seq); });
    publish(seq);
  }

  // Writes the group's status anew when its definition has a new generation.
  void publish(uint32_t seq) {
    auto fg = ft_->hwFgConfig(seq);
    if (!fg || fg->genId() == 0 || !fg->templateId().isValid()) {
      unpublish(seq);
      return;
    }
    auto old = published_.find(seq);
    if (old != published_.end() && old->second != fg->templateId()) unpublish(seq);
    const FlowTracking::TemplateId id = fg->templateId();
    auto existing = status_->hwFgStatus(id);
    if (existing && existing->genId() == fg->genId()) return;
    Zub::Ptr<HwFlowTracking::FgStatus> st(new HwFlowTracking::FgStatus(id, fg->fgName()));
    st->seqnoIs(seq);
    uint32_t pos = 0;
    for (const auto& [pseq, param] : fg->flowParamColl()) {
      const Ipfix::ElementId e = catalogue_->elementIdColl(param.type);
      if (!e) {
        GLINT(trace(), 0) << "flow group " << fg->fgName() << ": " << param.type
                          << " has no information element and is left out";
        continue;
      }
      auto entry = st->templateEntryIs(pos++, param.type);
      entry->fieldLenIs(e.len);
      entry->enterpriseIeIs(e.enterpriseIe);
      entry->flowKeyIs(param.flowKey);
    }
    st->genIdIs(fg->genId());
    // The complete status replaces the old one in one step.
    if (existing) status_->hwFgStatusDel(id);
    status_->hwFgStatusColl().insert(id, st);
    published_[seq] = id;
    GLINT(trace(), 1) << "Published template " << id << " of " << ft_->name() << "/" << fg->fgName()
                      << " generation " << fg->genId();
  }

  void unpublish(uint32_t seq) {
    auto it = published_.find(seq);
    if (it == published_.end()) return;
    status_->hwFgStatusDel(it->second);
    published_.erase(it);
  }

 private:
  Zub::Ptr<HwFlowTracking::FtConfig> ft_;
  Zub::Ptr<HwFlowTracking::FtStatus> status_;
  Zub::Ptr<Ipfix::ElementIdColl> catalogue_;
  Zub::KeyedSubscriptions<uint32_t> groupSubs_;
  std::map<uint32_t, FlowTracking::TemplateId> published_;
};

SwStatusPublisherSm::SwStatusPublisherSm(const Zub::Ptr<HwFlowTracking::Config>& hwConfig,
                                         const Zub::Ptr<HwFlowTracking::Status>& hwStatus,
                                         const Zub::Ptr<Ipfix::ElementIdColl>& catalogue)
    : hwConfig_(hwConfig), hwStatus_(hwStatus), catalogue_(catalogue), tracker_(this) {
  watch(hwConfig_->hwFtConfigSignal(), [this](const Zub::Name& n) { handleHwFtConfig(n); });
}

SwStatusPublisherSm::~SwStatusPublisherSm() = default;

void SwStatusPublisherSm::handleInitialized() {
  for (const Zub::Name& n : hwConfig_->hwFtConfigColl().keys()) handleHwFtConfig(n);
}

void SwStatusPublisherSm::handleHwFtConfig(const Zub::Name& tracker) {
  auto ft = hwConfig_->hwFtConfig(tracker);
  const bool had = tracker_.has(tracker);
  // The tracker's status is created just before its publisher and deleted right after it.
  tracker_.reconcile(tracker, bool(ft), [&] {
    auto status = hwStatus_->hwFtStatusIs(tracker);
    return Zub::makeReactor<TrackerSm>(ft, status, catalogue_);
  });
  if (!ft && had) hwStatus_->hwFtStatusDel(tracker);
}

}  // namespace Agent
