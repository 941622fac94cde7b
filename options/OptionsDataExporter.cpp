#include "options/OptionsDataExporter.h"

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
