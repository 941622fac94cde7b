#include "options/OptionsDataExporter.h"

#include <cstring>

namespace FlowTracking {

std::string stringValue(OptionsDataScope scope) {
  switch (scope) {
    case OptionsDataScope::scopeGlobal:
      return "scopeGlobal";
    case OptionsDataScope::scopeTracker:
      return "scopeTracker";
  }
  return "scope" + std::to_string(static_cast<int>(scope));
}

std::optional<OptionsDataScope> optionsDataScopeFromString(std::string_view name) {
  if (name == "scopeGlobal") return OptionsDataScope::scopeGlobal;
  if (name == "scopeTracker") return OptionsDataScope::scopeTracker;
  return std::nullopt;
}

void FixedNameRow::write(std::string_view row, char* out) {
  std::memset(out, 0, kBytes);
  if (row.size() < 5) return;
  std::memcpy(out + 4, row.data(), 4);  // the id; the exporting process stays 0
  std::string_view name = row.substr(5);
  if (name.size() > CompatibleTemplate::kNameBytes) {
    size_t cut = CompatibleTemplate::kNameBytes;
    while (cut > 0 && (static_cast<unsigned char>(name[cut]) & 0xC0) == 0x80) --cut;
    name = name.substr(0, cut);
  }
  std::memcpy(out + 8, name.data(), name.size());
}

Zub::Ptr<const DataRecord> FixedNameRow::record(std::string_view row) {
  char bytes[kBytes];
  write(row, bytes);
  return Zub::make<DataRecord>(std::string_view(bytes, kBytes));
}

namespace {
template <class T>
Zub::Ptr<T> createOnce(Zub::Ptr<T>& slot, OptionsDataScope scope) {
  if (!slot) slot = Zub::Ptr<T>(new T(scope));
  return slot;
}
}  // namespace

Zub::Ptr<OptionsDataSourceColl> TrackerOptionsData::dataIs(OptionsDataScope scope) {
  return createOnce(data_, scope);
}
Zub::Ptr<OptionsDataUpdate> TrackerOptionsData::updateIs(OptionsDataScope scope) {
  return createOnce(update_, scope);
}
Zub::Ptr<OptionsDataSourceColl> OptionsDataAll::globalDataIs(OptionsDataScope scope) {
  return createOnce(globalData_, scope);
}
Zub::Ptr<OptionsDataUpdate> OptionsDataAll::globalUpdateIs(OptionsDataScope scope) {
  return createOnce(globalUpdate_, scope);
}

}  // namespace FlowTracking
