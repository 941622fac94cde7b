#pragma once
// The hardware flow-tracking status: what the forwarding side publishes about the data
// templates it uses (per tracker and flow group, the template's field list) and about
// what it can do.

#include "config/FlowTrackerConfig.h"

namespace HwFlowTracking {

// One field of a data template, at position `seqno`.
class FtTemplateEntry : public Zub::Entity {
 public:
  FtTemplateEntry(uint32_t seqno, Ipfix::RecordType fieldId)
      : Entity(std::to_string(seqno)), seqno_(seqno), fieldId_(fieldId) {}
  uint32_t seqno() const { return seqno_; }
  Ipfix::RecordType fieldId() const { return fieldId_; }
  void checkReinstantiation(Ipfix::RecordType fieldId) const {
    Zub::checkCtorParam(*this, "fieldId", fieldId_, fieldId);
  }
  ZUB_ATTR(uint32_t, fieldLen, 0)
  ZUB_ATTR(bool, enterpriseIe, false)
  ZUB_ATTR(bool, flowKey, false)
  // "seqno: fieldId len N[ enterprise][ key]"
  std::string stringValue() const;

 private:
  uint32_t seqno_;
  Ipfix::RecordType fieldId_;
};

class FgStatus : public Zub::Entity {
 public:
  FgStatus(FlowTracking::TemplateId templateId, const Zub::Name& fgName)
      : Entity(templateId.stringValue()), templateId_(templateId), fgName_(fgName) {}
  FlowTracking::TemplateId templateId() const { return templateId_; }
  const Zub::Name& fgName() const { return fgName_; }
  void checkReinstantiation(const Zub::Name& fgName) const {
    Zub::checkCtorParam(*this, "fgName", fgName_, fgName);
  }
  ZUB_ATTR(uint32_t, genId, 0)
  ZUB_ATTR(uint32_t, seqno, 0)
  ZUB_COLL(templateEntry, Zub::OrderedCollection<uint32_t, Zub::Ptr<FtTemplateEntry>>)

 private:
  FlowTracking::TemplateId templateId_;
  Zub::Name fgName_;
};

class FtStatus : public Zub::Entity {
 public:
  explicit FtStatus(const Zub::Name& name) : Entity(name) {}
  ZUB_COLL(hwFgStatus, Zub::OrderedCollection<FlowTracking::TemplateId, Zub::Ptr<FgStatus>>)
};

class Status : public Zub::Entity {
 public:
  explicit Status(const Zub::Name& name) : Entity(name) {}
  ZUB_COLL(hwFtStatus, Zub::Collection<Zub::Name, Zub::Ptr<FtStatus>>)
};

class Capabilities : public Zub::Entity {
 public:
  explicit Capabilities(const Zub::Name& name) : Entity(name) {}
  ZUB_ATTR(bool, hwFtrSupported, false)
  ZUB_ATTR(bool, swFtrSupported, false)
};

}  // namespace HwFlowTracking
