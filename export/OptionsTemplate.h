#pragma once
// The options templates every exporter announces besides its data templates: the
// interface table, the VRF table, the flow keys of each data template and the flow
// tracker table (RFC 7011 section 3.4.2.2). Their definitions are built from the
// information element catalogue into an OptionsTemplateConfig; each exporter encodes
// them into one options template set (OptionsTemplateExporterSm).
//
// Unless switched off, three compatible templates come in addition, each alone in its
// own set ahead of the four: what most collectors read where they read nothing of the
// four (the sampling rate as samplingInterval, interface and VRF names at a fixed
// length, every field non-scope, under an exporting-process scope). Their ids are far
// above any a data template gets.

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
  // Sent alone in an options template set of its own, ahead of the others.
  ZUB_ATTR(bool, ownSet, false)
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
// Builds the four options templates into `config` (and the compatible ones with
// `compatible`) and raises its version once.
void initOptTemplateConfig(const Ipfix::ElementIdColl& eic, OptionsTemplateConfig& config,
                           bool compatible = false);
// Adds or removes the compatible templates; raises the version when that changed them.
void compatibleOptTemplatesIs(const Ipfix::ElementIdColl& eic, OptionsTemplateConfig& config,
                              bool on);

}  // namespace FlowTracking
