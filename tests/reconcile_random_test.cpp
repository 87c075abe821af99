// Random edits of a live dictionary, each access followed by Update: a
// watcher that applies every queue to its copy must always end equal to the
// live dictionary, and an Update with nothing changed must queue nothing.
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/watcher_model.h"

namespace {

class RandomSource : public SystemFileDataSource {
 public:
  long long RowCount() const override { return rows; }
  long long rows = 0;
};

class RandomEditor {
 public:
  RandomEditor(uint32_t seed, RandomSource& source) : rng_(seed), source_(source) {}

  int Below(int n) { return n <= 0 ? 0 : static_cast<int>(rng_() % static_cast<uint32_t>(n)); }
  bool Chance(int percent) { return Below(100) < percent; }

  QUOR_Variable NewVariable() {
    ++nextSerial_;
    return QUOR_Variable(LocallyUniqueID(0, nextSerial_), "v" + std::to_string(nextSerial_),
                         Below(3));
  }

  void Fill(int n) {
    for (int i = 0; i < n; ++i)
      source_.InsertVariable(static_cast<long>(source_.ColumnCount()), NewVariable());
  }

  std::vector<VariableSetImpl> Sets() {
    std::vector<VariableSetImpl> sets(static_cast<std::size_t>(Below(3)));
    for (VariableSetImpl& set : sets) {
      set.name = "set" + std::to_string(Below(4));
      set.descriptor[static_cast<std::size_t>(Below(6))] = static_cast<unsigned char>(Below(3));
      for (int k = Below(4); k > 0 && source_.ColumnCount() > 0; --k) {
        set.members.push_back(
            source_.GetVariable(Below(static_cast<int>(source_.ColumnCount()))).GetID());
      }
    }
    return sets;
  }

  // One random edit of the live dictionary.
  void Edit() {
    int const n = static_cast<int>(source_.ColumnCount());
    switch (Below(18)) {
      case 0:
      case 1:
        source_.InsertVariable(Below(n + 1), NewVariable());
        break;
      case 2:
        if (n > 0) {
          int first = Below(n);
          source_.DeleteVariables(first, first + Below(std::min(3, n - first)));
        }
        break;
      case 3:
      case 4:
        if (n > 1) {  // a move: out and back in elsewhere, same identity
          int from = Below(n);
          QUOR_Variable moved = source_.GetVariable(from);
          source_.DeleteVariables(from, from);
          source_.InsertVariable(Below(n), moved);
        }
        break;
      case 5:
        if (n > 0) source_.GetVariable(Below(n)).SetName("r" + std::to_string(Below(1000)));
        break;
      case 6:
        if (n > 0) source_.GetVariable(Below(n)).SetType(Below(3));
        break;
      case 7:
        if (n > 0)
          source_.GetVariable(Below(n)).SetLabel(Chance(50) ? "" : "l" + std::to_string(Below(9)));
        break;
      case 8:
        source_.SetWeightVar(Chance(20) ? -1 : Below(n));
        break;
      case 9:
        source_.SetFilterVar(Chance(30) ? -1 : Below(n));
        break;
      case 10: {
        int positions[8];
        int count = std::min(n, Below(4));
        for (int i = 0; i < count; ++i) positions[i] = Below(n);
        source_.SetSplit(static_cast<unsigned>(count), positions, Chance(50));
        break;
      }
      case 11:
        source_.SetLabel(Chance(30)   ? nullptr
                         : Chance(20) ? ""
                                      : ("label " + std::to_string(Below(5))).c_str());
        break;
      case 12:
        source_.SetFileSpec(("/nonexistent/f" + std::to_string(Below(4)) + ".csv").c_str());
        break;
      case 13:
        source_.RowsPerImputation(Below(3));
        source_.GetTrendsInfo()->SetText(Chance(50) ? "" : "t" + std::to_string(Below(3)));
        break;
      case 14:
        if (Chance(50)) {
          source_.SetMRSets(Sets());
        } else {
          source_.SetVariableSets(Sets());
        }
        break;
      case 15: {
        DatasourceAttributes attributes;
        for (int k = Below(3); k > 0; --k)
          attributes.Set("k" + std::to_string(Below(3)), std::to_string(Below(3)));
        source_.SetAttributes(attributes);
        source_.SetExtension(QUOR_DataSource::Extension(0, "x" + std::to_string(Below(3))));
        break;
      }
      case 16:
        source_.SetDirty(Chance(50));
        break;
      default:
        source_.rows = Below(4);
        break;
    }
  }

 private:
  std::mt19937 rng_;
  RandomSource& source_;
  uint32_t nextSerial_ = 0;
};

uint32_t BaseSeed() {
  char const* fromEnvironment = std::getenv("SDM_SEED");
  return fromEnvironment != nullptr
             ? static_cast<uint32_t>(std::strtoul(fromEnvironment, nullptr, 10))
             : 20261123u;
}

// A watcher that applies each pass to its model and checks it against the
// live source it can read through the access it is given.
class ModelWatcher : public SvrDMDataSetObserver {
 public:
  void DataSetChanged(SvrDMWriteableDataSource const* access) override {
    ++passes;
    lastQueue = DescribeQueue(access->GetNotifications());
    if (!error.empty()) return;
    if (!model.Apply(access->GetNotifications(), &error)) return;
    model.Matches(*access->GetDataSource(), &error);
  }
  WatcherModel model;
  std::string error;
  std::vector<std::string> lastQueue;
  int passes = 0;  // passes that had something to deliver
};

TEST(ReconcileRandomTest, WatcherConvergesAfterEveryAccessAndQuietAccessesQueueNothing) {
  ServerDataManager registry;
  int accesses = 0;
  for (uint32_t round = 0; accesses < 10000; ++round) {
    uint32_t const seed = BaseSeed() + round;
    SCOPED_TRACE("seed " + std::to_string(seed) + " (rerun with SDM_SEED=" + std::to_string(seed) +
                 ")");
    auto* source = new RandomSource;
    RandomEditor editor(seed, *source);
    editor.Fill(editor.Below(201));
    LocallyUniqueID const id = registry.Add(*source, "", true);
    ModelWatcher watcher;
    SvrDMDataset(registry, id).Register(watcher);

    for (int step = 0; step < 50; ++step, ++accesses) {
      {
        SvrDMWriteableDataSource access(registry, id, false, nullptr);
        for (int edits = 1 + editor.Below(6); edits > 0; --edits) editor.Edit();
        if (editor.Chance(10)) access.BulkVarMoves();
      }
      ASSERT_TRUE(watcher.error.empty()) << "step " << step << ": " << watcher.error;

      // Nothing changed in between: the next pass has nothing to say, so
      // the watchers are not called at all.
      int const passesBefore = watcher.passes;
      { SvrDMWriteableDataSource quiet(registry, id, false, nullptr); }
      ASSERT_EQ(watcher.passes, passesBefore)
          << "step " << step << ": a quiet access queued " << watcher.lastQueue.at(0);
    }
    EXPECT_GT(watcher.passes, 40);
    SvrDMDataset(registry, id).Unregister(watcher);
    registry.Delete(id);
  }
}

}  // namespace
