// Reads its input as a script of dictionary edits and ends of write access
// on one dataset. After every access the watcher's client copy, built only from
// the messages it was shown, must equal the live dictionary; the variable
// messages of a pass must be those of the plain procedure; and an access
// that changes nothing must show it nothing. Where the build can replace
// operator new, the script may also make the end of an access fail at one
// of its allocations (or from one on): the next access must then bring the
// watcher to the live dictionary all the same.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "ServerDataManager.h"
#include "support/queues.h"
#ifdef SDM_FAULTS
#include "support/failing_new.h"
#endif

namespace {

class Script {
 public:
  Script(uint8_t const* data, size_t size) : data_(data), size_(size) {}
  bool Done() const { return at_ >= size_; }
  int Next() { return at_ < size_ ? data_[at_++] : 0; }
  int Below(int n) { return n <= 0 ? 0 : Next() % n; }

 private:
  uint8_t const* data_;
  size_t size_;
  size_t at_ = 0;
};

[[noreturn]] void Finding(char const* what, std::string const& detail,
                          std::vector<DataSetMsg*> const& queue) {
  std::fprintf(stderr, "%s: %s\n", what, detail.c_str());
  for (std::string const& line : DescribeQueue(queue)) std::fprintf(stderr, "  %s\n", line.c_str());
  std::abort();
}

#ifdef SDM_FAULTS
using HoldFaults = failing_new::Pause;
#else
// Nothing to hold off where operator new stays the runtime's.
struct HoldFaults {
  HoldFaults() {}   // NOLINT(modernize-use-equals-default): user-provided, so
  ~HoldFaults() {}  // NOLINT(modernize-use-equals-default): never "unused"
};
#endif

class CheckingWatcher : public SvrDMDataSetObserver {
 public:
  void DataSetChanged(SvrDMWriteableDataSource const* access) override {
    HoldFaults hold;  // the watcher's own copies are not the library's
    ++passes;
    std::vector<DataSetMsg*> const& queue = access->GetNotifications();
    if (checkVariables && VariableLines(queue) != expected) {
      std::string detail;
      for (std::string const& line : expected) detail += "\n  expected " + line;
      Finding("variable messages differ from the plain procedure's", detail, queue);
    }
    std::string error = client.Apply(queue);
    if (error.empty()) error = client.Differences(*access->GetDataSource());
    if (!error.empty()) Finding("watcher diverged", error, queue);
  }
  SvrDMClientCopy client;
  int passes = 0;
  bool checkVariables = false;
  std::vector<std::string> expected;
};

void Edit(Script& script, QUOR_DataSource& live, uint32_t& nextSerial) {
  int const n = static_cast<int>(live.ColumnCount());
  switch (script.Below(16)) {
    case 0:
    case 1:
      // Now and then a run of new variables, so that lists grow wide.
      for (int k = script.Below(16) == 0 ? script.Below(64) : 1; k > 0 && n < 300; --k) {
        ++nextSerial;
        live.InsertVariable(script.Below(n + 1),
                            QUOR_Variable(LocallyUniqueID(0, nextSerial), "v", script.Below(3)));
      }
      break;
    case 2:
      if (n > 0) {
        int first = script.Below(n);
        live.DeleteVariables(first, first + script.Below(n - first));
      }
      break;
    case 3:
      if (n > 1) {
        int from = script.Below(n);
        QUOR_Variable moved = live.GetVariable(from);
        live.DeleteVariables(from, from);
        live.InsertVariable(script.Below(n), moved);
      }
      break;
    case 4:
      if (n > 0)
        live.GetVariable(script.Below(n))
            .SetName(std::string(1, static_cast<char>('a' + script.Below(26))));
      break;
    case 5:
      if (n > 0) live.GetVariable(script.Below(n)).SetType(script.Below(4));
      break;
    case 6:
      if (n > 0)
        live.GetVariable(script.Below(n))
            .SetLabel(std::string(static_cast<size_t>(script.Below(3)), 'l'));
      break;
    case 7:
      live.SetWeightVar(script.Below(n + 1) - 1);
      break;
    case 8:
      live.SetFilterVar(script.Below(n + 1) - 1);
      break;
    case 9: {
      int positions[8];
      int count = n > 0 ? script.Below(9) : 0;
      for (int i = 0; i < count; ++i) positions[i] = script.Below(n);
      live.SetSplit(static_cast<unsigned>(count), positions, script.Below(2) == 1);
      break;
    }
    case 10:
      live.SetLabel(script.Below(3) == 0
                        ? nullptr
                        : std::string(static_cast<size_t>(script.Below(4)), 'x').c_str());
      break;
    case 11:
      live.SetFileSpec(("/nonexistent/" + std::to_string(script.Below(3))).c_str());
      break;
    case 12: {
      std::vector<VariableSetImpl> sets(static_cast<size_t>(script.Below(3)));
      for (VariableSetImpl& set : sets) {
        set.descriptor[0] = static_cast<unsigned char>(script.Below(3));
        if (n > 0) set.members.push_back(live.GetVariable(script.Below(n)).GetID());
      }
      if (script.Below(2) == 0) {
        live.SetMRSets(sets);
      } else {
        live.SetVariableSets(sets);
      }
      break;
    }
    case 13: {
      DatasourceAttributes attributes;
      if (script.Below(2) == 1) attributes.Set("k", std::to_string(script.Below(3)));
      live.SetAttributes(attributes);
      live.SetExtension(
          QUOR_DataSource::Extension(0, std::string(static_cast<size_t>(script.Below(3)), 'e')));
      live.RowsPerImputation(script.Below(3));
      live.GetTrendsInfo()->SetText(std::string(static_cast<size_t>(script.Below(2)), 't'));
      break;
    }
    case 14: {  // the whole list reordered, as a sort does
      std::vector<QUOR_Variable> all = VariablesOf(live);
      int const how = script.Below(3);
      if (how == 0) std::reverse(all.begin(), all.end());
      if (how == 1 && n > 1) std::rotate(all.begin(), all.begin() + 1, all.end());
      if (how == 2) std::shuffle(all.begin(), all.end(), std::minstd_rand(script.Next()));
      if (n > 0) live.DeleteVariables(0, n - 1);
      for (QUOR_Variable const& variable : all) live.MakeVariable(variable, nullptr);
      break;
    }
    default:
      live.SetDirty(script.Below(2) == 1);
      break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  Script script(data, size);
  ServerDataManager registry;
  LocallyUniqueID const id = registry.Add(*new SystemFileDataSource(), "", true);
  SvrDMItemPtr const item = registry.GetDataSet(id);
  CheckingWatcher watcher;
  SvrDMDataset(registry, id).Register(watcher);
  uint32_t nextSerial = 0;
  while (!script.Done()) {
    // Ended by delete: the end may throw.
    auto* access = new SvrDMWriteableDataSource(registry, id, false, nullptr);
    // Up to 16 edits, then the access ends and the watcher checks.
    for (int edits = script.Below(16); edits >= 0 && !script.Done(); --edits)
      Edit(script, **access, nextSerial);
    bool const bulk = script.Below(8) == 0;
    if (bulk) access->BulkVarMoves();
    // A pass that starts from an empty queue queues exactly the plain
    // procedure's variable messages.
    watcher.checkVariables = item->notifications.empty();
    if (watcher.checkVariables) {
      // With nothing left over, the watcher holds what the snapshot holds.
      watcher.expected =
          LiteralVariableStage(VariablesOf(watcher.client.Dictionary()),
                               VariablesOf(*item->dataSource), bulk, id, item->caseSequence);
    }
    bool failed = false;
#ifdef SDM_FAULTS
    bool const fault = script.Below(4) == 0;
    if (fault) failing_new::Arm(script.Below(96) + 1, script.Below(2) == 1);
#endif
    try {
      delete access;
    } catch (std::bad_alloc const&) {
      failed = true;
    }
#ifdef SDM_FAULTS
    if (fault) failing_new::Disarm();
#endif
    watcher.checkVariables = false;
    if (failed) {
      // The failed pass's messages wait in the queue; this access delivers
      // them with whatever is still different, and the watcher checks.
      { SvrDMWriteableDataSource next(registry, id, false, nullptr); }
      std::string const error = watcher.client.Differences(*item->dataSource);
      if (!error.empty())
        Finding("watcher diverged after a failed pass", error, item->notifications);
    }
    int const passes = watcher.passes;
    { SvrDMWriteableDataSource quiet(registry, id, false, nullptr); }
    if (watcher.passes != passes) {
      Finding("an access that changed nothing was shown messages", "", item->notifications);
    }
  }
  SvrDMDataset(registry, id).Unregister(watcher);
  return 0;
}
