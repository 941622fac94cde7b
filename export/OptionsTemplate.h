#pragma once
// The options templates every exporter announces besides its data templates: the
// interface table, the VRF table, the flow keys of each data template and the flow
// tracker table (RFC 7011 section 3.4.2.2). Their definitions are built once from the
// information element catalogue into an OptionsTemplateConfig; each exporter encodes
// them into one options template set (OptionsTemplateExporterSm).

#include "config/HwFlowTrackingStatus.h"
#include "ipfix/Ipfix.h"

namespace FlowTracking {

class OptionsTemplate : public Zub::Entity {
 public:
  OptionsTemplate(const Zub::String& name, TemplateId templateId)
      : Entity(name), templateId_(templateId) {}
  TemplateId templateId() const { return templateId_; }
  void checkReinstantiation(TemplateId templateId) const {
    Zub::checkCtorParam(*this, "templateId", templateId_, templateId);
  }
  // Fields by position from 0: the scope fields, then the other fields.
  ZUB_COLL(scopeField, Zub::OrderedCollection<uint32_t, Zub::Ptr<HwFlowTracking::FtTemplateEntry>>)
  ZUB_COLL(field, Zub::OrderedCollection<uint32_t, Zub::Ptr<HwFlowTracking::FtTemplateEntry>>)
  size_t scopeFields() const { return scopeFieldSize(); }
  size_t fields() const { return fieldSize(); }

 private:
  TemplateId templateId_;
};

class OptionsTemplateConfig : public Zub::Entity {
 public:
  explicit OptionsTemplateConfig(const Zub::Name& name = "optTemplateConfig") : Entity(name) {}
  ZUB_COLL(templateEntry, Zub::OrderedCollection<Zub::String, Zub::Ptr<OptionsTemplate>>)
  // Raised after a change; readers react to it.
  ZUB_COUNTER(uint32_t, version)
};

// Copies the catalogue's length and enterprise flag into the field; an element missing
// from the catalogue is a programming error.
void updateFieldInfo(const Ipfix::ElementIdColl& eic, HwFlowTracking::FtTemplateEntry& field);
// Adds a field at the next free position of the template's scope fields (other fields).
void addScopeField(const Ipfix::ElementIdColl& eic, OptionsTemplate& t, Ipfix::RecordType id);
void addField(const Ipfix::ElementIdColl& eic, OptionsTemplate& t, Ipfix::RecordType id);
// 6 bytes of record header plus 4 per field and 4 more per enterprise field.
uint32_t getTemplateEntryLength(const OptionsTemplate& templateEntry);
// Builds the four options templates into `config` and raises its version once.
void initOptTemplateConfig(const Ipfix::ElementIdColl& eic, OptionsTemplateConfig& config);

}  // namespace FlowTracking
