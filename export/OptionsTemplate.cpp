#include "export/OptionsTemplate.h"

#include "export/Trace.h"
#include "platform/nelo/IpfixHeaders.h"
#include "platform/zub/Assert.h"

namespace FlowTracking {

void updateFieldInfo(const Ipfix::ElementIdColl& eic, HwFlowTracking::FtTemplateEntry& field) {
  if (!eic.elementIdCollHas(field.fieldId())) {
    GLINT(optionsTrace(), Zub::Glint::kError)
        << "Missing fieldId in elementIdColl: " << static_cast<uint32_t>(field.fieldId());
    ZUB_FATAL("eic->elementIdCollHas( field->fieldId() )");
  }
  const Ipfix::ElementId e = eic.elementIdColl(field.fieldId());
  field.fieldLenIs(e.len);
  field.enterpriseIeIs(e.enterpriseIe);
}

namespace {
void traceAdded(const OptionsTemplate& t, const HwFlowTracking::FtTemplateEntry& f, bool scope) {
  GLINT(optionsTrace(), kDiag) << (scope ? "  Added field [scope] " : "  Added field ") << f
                               << " to " << t.name();
}
}  // namespace

void addScopeField(const Ipfix::ElementIdColl& eic, OptionsTemplate& t, Ipfix::RecordType id) {
  auto f = t.scopeFieldIs(static_cast<uint32_t>(t.scopeFieldSize()), id);
  updateFieldInfo(eic, *f);
  traceAdded(t, *f, true);
}

void addField(const Ipfix::ElementIdColl& eic, OptionsTemplate& t, Ipfix::RecordType id) {
  auto f = t.fieldIs(static_cast<uint32_t>(t.fieldSize()), id);
  updateFieldInfo(eic, *f);
  traceAdded(t, *f, false);
}

uint32_t getTemplateEntryLength(const OptionsTemplate& templateEntry) {
  ZUB_ASSERT_TEXT(templateEntry.scopeFields() > 0, "templateEntry->scopeFields() > 0");
  ZUB_ASSERT_TEXT(templateEntry.fields() >= templateEntry.scopeFields(),
                  "templateEntry->fields() >= templateEntry->scopeFields()");
  uint32_t len = sizeof(Nelo::Wire::OptionsTemplateHeader);
  auto add = [&len](const auto& coll) {
    for (const auto& [pos, f] : coll) {
      len += f->enterpriseIe() ? sizeof(Nelo::Wire::EnterpriseFieldSpecifier)
                               : sizeof(Nelo::Wire::FieldSpecifier);
    }
  };
  add(templateEntry.scopeFieldColl());
  add(templateEntry.fieldColl());
  return len;
}

namespace {

using Ipfix::RecordType;

Zub::Ptr<OptionsTemplate> newTemplate(OptionsTemplateConfig& config, const char* name,
                                      StaticTemplateId which) {
  return config.templateEntryIs(name, Constants::reservedTemplateId(which));
}

void addOptTemplateIntfTable(const Ipfix::ElementIdColl& eic, OptionsTemplateConfig& config) {
  GLINT(optionsTrace(), kEntry) << "addOptTemplateIntfTable";
  auto t = newTemplate(config, "IntfTable", StaticTemplateId::optionsTemplateIntfTable);
  addScopeField(eic, *t, RecordType::ingressInterface);
  addField(eic, *t, RecordType::interfaceName);
}

void addOptTemplateVrfTable(const Ipfix::ElementIdColl& eic, OptionsTemplateConfig& config) {
  GLINT(optionsTrace(), kEntry) << "addOptTemplateVrfTable";
  auto t = newTemplate(config, "VrfTable", StaticTemplateId::optionsTemplateVrfTable);
  addScopeField(eic, *t, RecordType::vrfId);
  addField(eic, *t, RecordType::vrfName);
}

void addOptTemplateFlowKey(const Ipfix::ElementIdColl& eic, OptionsTemplateConfig& config) {
  GLINT(optionsTrace(), kEntry) << "addOptTemplateFlowKey";
  auto t = newTemplate(config, "FlowKey", StaticTemplateId::optionsTemplateFlowKeys);
  addScopeField(eic, *t, RecordType::templateId);
  addField(eic, *t, RecordType::flowKeyIndicator);
}

void addOptTemplateFlowTrackerTable(const Ipfix::ElementIdColl& eic,
                                    OptionsTemplateConfig& config) {
  GLINT(optionsTrace(), kEntry) << "addOptTemplateFlowTrackerTable";
  auto t =
      newTemplate(config, "FlowTrackerTable", StaticTemplateId::optionsTemplateFlowTrackerTable);
  addScopeField(eic, *t, RecordType::observationDomainId);
  for (RecordType f : {RecordType::observationDomainName, RecordType::flowActiveTimeout,
                       RecordType::flowIdleTimeout, RecordType::selectorAlgorithm,
                       RecordType::samplingSize, RecordType::samplingPopulation}) {
    addField(eic, *t, f);
  }
}

void addCompatibleTemplates(const Ipfix::ElementIdColl& eic, OptionsTemplateConfig& config) {
  GLINT(optionsTrace(), kEntry) << "addCompatibleTemplates";
  auto fixed = [&](OptionsTemplate& t, RecordType id, uint16_t len) {
    addField(eic, t, id);
    t.field(static_cast<uint32_t>(t.fieldSize() - 1))->fieldLenIs(len);
  };
  auto sampling =
      config.templateEntryIs("CompatSampling", TemplateId(CompatibleTemplate::kSampling));
  sampling->ownSetIs(true);
  addScopeField(eic, *sampling, RecordType::observationDomainId);
  addField(eic, *sampling, RecordType::samplingInterval);
  auto intfs =
      config.templateEntryIs("CompatInterfaces", TemplateId(CompatibleTemplate::kInterfaces));
  intfs->ownSetIs(true);
  addScopeField(eic, *intfs, RecordType::exportingProcessId);
  addField(eic, *intfs, RecordType::ingressInterface);
  fixed(*intfs, RecordType::interfaceDescription, CompatibleTemplate::kNameBytes);
  auto vrfs = config.templateEntryIs("CompatVrfs", TemplateId(CompatibleTemplate::kVrfs));
  vrfs->ownSetIs(true);
  addScopeField(eic, *vrfs, RecordType::exportingProcessId);
  addField(eic, *vrfs, RecordType::vrfId);
  fixed(*vrfs, RecordType::vrfName, CompatibleTemplate::kNameBytes);
}

// pmacct (up to 1.7.9 at least) misreads every options template after the first of a set
// and drops the rest of the message. In the compatible layout every template goes alone in
// its set, at four bytes a template.
void ownSetsIs(OptionsTemplateConfig& config, bool on) {
  for (const auto& [name, t] : config.templateEntryColl()) {
    if (!name.starts_with("Compat")) t->ownSetIs(on);
  }
}

}  // namespace

void initOptTemplateConfig(const Ipfix::ElementIdColl& eic, OptionsTemplateConfig& config,
                           bool compatible) {
  addOptTemplateIntfTable(eic, config);
  addOptTemplateVrfTable(eic, config);
  addOptTemplateFlowKey(eic, config);
  addOptTemplateFlowTrackerTable(eic, config);
  if (compatible) addCompatibleTemplates(eic, config);
  ownSetsIs(config, compatible);
  config.versionInc(1);
}

void compatibleOptTemplatesIs(const Ipfix::ElementIdColl& eic, OptionsTemplateConfig& config,
                              bool on) {
  if (config.templateEntryHas("CompatSampling") == on) return;
  if (on) {
    addCompatibleTemplates(eic, config);
  } else {
    for (const char* name : {"CompatSampling", "CompatInterfaces", "CompatVrfs"}) {
      config.templateEntryDel(name);
    }
  }
  ownSetsIs(config, on);
  config.versionInc(1);
}

}  // namespace FlowTracking
