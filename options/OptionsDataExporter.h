#pragma once
// The options data model: how the options data sources (interface, VRF, flow key and
// flow tracker tables) hand their records to the options data exporters.
//
// Each source owns one OptionsDataSource holding the complete current set of its
// records and raises its version once it has finished changing them; each scope also
// carries an OptionsDataUpdate through which a source pushes one incremental record.
// Records are complete options data records as they go on the wire, shared as
// Ptr<const DataRecord> and never changed after publishing. The manager creates the
// containers, the sources write into them, the exporters only read.

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "export/OptionsTemplate.h"
#include "ipfix/DataExporter.h"
#include "ipfix/FlowTrackingTypes.h"
#include "platform/zub/Collection.h"

namespace FlowTracking {

// Records every exporter sends whatever tracker it serves, or records of one tracker.
enum class OptionsDataScope : uint8_t { scopeGlobal, scopeTracker };
std::string stringValue(OptionsDataScope scope);
std::optional<OptionsDataScope> optionsDataScopeFromString(std::string_view name);

class OptionsDataSource : public Zub::Entity {
 public:
  OptionsDataSource(const Zub::String& sourceName, TemplateId dataSetId)
      : Entity(sourceName), dataSetId_(dataSetId) {}
  const Zub::String& sourceName() const { return name(); }
  // The options template whose data set carries this source's records; fixed.
  TemplateId dataSetId() const { return dataSetId_; }
  void checkReinstantiation(TemplateId dataSetId) const {
    Zub::checkPtrCtorParam("_setId", dataSetId_, dataSetId);
  }
  // The records, keyed by identity.
  ZUB_SET(dataRecord, Zub::Ptr<const DataRecord>)
  // For a source that sends the rows of another (interface or VRF) table again at a fixed
  // length (FixedNameRow): that table's source while the compatible layout is on, null
  // otherwise. Such a source keeps no records of its own: they are made as they are sent.
  ZUB_ATTR(Zub::Ptr<OptionsDataSource>, rowsOf)
  // Raised once a change of the records is complete; exporters react to it alone.
  ZUB_COUNTER(uint32_t, version)

 private:
  TemplateId dataSetId_;
};

class OptionsDataSourceColl : public Zub::Entity {
 public:
  explicit OptionsDataSourceColl(OptionsDataScope scope)
      : Entity(FlowTracking::stringValue(scope)), scope_(scope) {}
  OptionsDataScope scope() const { return scope_; }
  ZUB_COLL(source, Zub::OrderedCollection<Zub::String, Zub::Ptr<OptionsDataSource>>)
  // Creates the source, or returns the one of that name with the same data set id; a
  // different data set id is a name-in-use error.
  Zub::Ptr<OptionsDataSource> sourceIs(const Zub::String& name, TemplateId setId) {
    return source_.is(name, setId);
  }

 private:
  OptionsDataScope scope_;
};

class OptionsDataUpdate : public Zub::Entity {
 public:
  using Update = std::pair<TemplateId, Zub::Ptr<const DataRecord>>;
  explicit OptionsDataUpdate(OptionsDataScope scope)
      : Entity(FlowTracking::stringValue(scope)), scope_(scope) {}
  OptionsDataScope scope() const { return scope_; }
  // The latest record pushed and its data set; starts as (0xFFFF, null).
  const Update& update() const { return update_; }
  // The latest record must reach the collectors at once, with whatever is queued before
  // it (a new sampling rate, ahead of any record sampled at it); others are coalesced.
  bool urgent() const { return urgent_; }
  ZUB_ATTR(uint32_t, version, 0)
  // Stores the pair (releasing the previous record) and raises the version by one: every
  // call is exactly one change an exporter hears of.
  void addUpdate(TemplateId setId, const Zub::Ptr<const DataRecord>& record, bool urgent = false) {
    update_ = {setId, record};
    urgent_ = urgent;
    versionIs(version() + 1);
  }

 private:
  OptionsDataScope scope_;
  Update update_{TemplateId(TemplateId::invalidTemplateId), nullptr};
  bool urgent_ = false;
};

// What the exporters of one tracker read: the global and the tracker's own sources and
// updates, each keyed by its scope. The same collections sit in several containers.
class OptionsDataContainer : public Zub::Entity {
 public:
  explicit OptionsDataContainer(const Zub::Name& ftName) : Entity(ftName) {}
  ZUB_COLL(data, Zub::OrderedCollection<OptionsDataScope, Zub::Ptr<OptionsDataSourceColl>>)
  ZUB_COLL(update, Zub::OrderedCollection<OptionsDataScope, Zub::Ptr<OptionsDataUpdate>>)
  // Inserts a collection (update) under its scope; null is refused.
  void dataIs(const Zub::Ptr<OptionsDataSourceColl>& coll) {
    data_.insert(coll ? coll->scope() : OptionsDataScope::scopeGlobal, coll);
  }
  void updateIs(const Zub::Ptr<OptionsDataUpdate>& update) {
    update_.insert(update ? update->scope() : OptionsDataScope::scopeGlobal, update);
  }
};

// Puts `record` (null: nothing) in the place of `key`'s row; returns the row's previous
// record, if any.
template <class K>
Zub::Ptr<const DataRecord> exchangeRow(std::map<K, Zub::Ptr<const DataRecord>>& rows, const K& key,
                                       const Zub::Ptr<const DataRecord>& record) {
  Zub::Ptr<const DataRecord> old;
  auto it = rows.find(key);
  if (it != rows.end()) {
    old = std::move(it->second);
    rows.erase(it);
  }
  if (record) rows.emplace(key, record);
  return old;
}

// A row of the interface or VRF table (id, name length, name) again at a fixed length,
// for collectors that read no variable-length field: exporting process 0, the id, and
// the name cut to CompatibleTemplate::kNameBytes (at a character boundary) and padded
// with NULs.
struct FixedNameRow {
  static constexpr size_t kBytes = 8 + CompatibleTemplate::kNameBytes;
  static void write(std::string_view row, char* out);
  static Zub::Ptr<const DataRecord> record(std::string_view row);
};

// One row of a source's table changed: the row's old record leaves the source; the new
// one, if any, is pushed at once through the update (and again at a fixed length when
// `fixed` sends the table's rows so) and enters the source; the version is raised so
// that the next full transmission is rebuilt. `published` is the source's own row map
// (anything exchangeRow() takes).
template <class Rows, class K>
void replaceRow(OptionsDataSource& source, OptionsDataUpdate& update, TemplateId setId,
                Rows& published, const K& key, const Zub::Ptr<const DataRecord>& record,
                const OptionsDataSource* fixed = nullptr) {
  if (auto old = exchangeRow(published, key, record)) source.dataRecordDel(old);
  if (record) {
    update.addUpdate(setId, record);
    if (fixed && fixed->rowsOf()) {
      update.addUpdate(fixed->dataSetId(), FixedNameRow::record(record->data()));
    }
    source.dataRecordIs(record);
  }
  source.versionInc(1);
}

// One tracker's own collection and update.
class TrackerOptionsData : public Zub::Entity {
 public:
  explicit TrackerOptionsData(const Zub::Name& ftName) : Entity(ftName) {}
  const Zub::Ptr<OptionsDataSourceColl>& data() const { return data_; }
  Zub::Ptr<OptionsDataSourceColl> dataIs(OptionsDataScope scope);
  void dataDel() { data_ = nullptr; }
  const Zub::Ptr<OptionsDataUpdate>& update() const { return update_; }
  Zub::Ptr<OptionsDataUpdate> updateIs(OptionsDataScope scope);
  void updateDel() { update_ = nullptr; }

 private:
  Zub::Ptr<OptionsDataSourceColl> data_;
  Zub::Ptr<OptionsDataUpdate> update_;
};

// The root: the global collection and update, and every tracker's data.
class OptionsDataAll : public Zub::Entity {
 public:
  explicit OptionsDataAll(const Zub::Name& name = "optionsDataAll") : Entity(name) {}
  const Zub::Ptr<OptionsDataSourceColl>& globalData() const { return globalData_; }
  Zub::Ptr<OptionsDataSourceColl> globalDataIs(OptionsDataScope scope);
  void globalDataDel() { globalData_ = nullptr; }
  const Zub::Ptr<OptionsDataUpdate>& globalUpdate() const { return globalUpdate_; }
  Zub::Ptr<OptionsDataUpdate> globalUpdateIs(OptionsDataScope scope);
  void globalUpdateDel() { globalUpdate_ = nullptr; }
  ZUB_COLL(trackerData, Zub::OrderedCollection<Zub::Name, Zub::Ptr<TrackerOptionsData>>)

 private:
  Zub::Ptr<OptionsDataSourceColl> globalData_;
  Zub::Ptr<OptionsDataUpdate> globalUpdate_;
};

}  // namespace FlowTracking
