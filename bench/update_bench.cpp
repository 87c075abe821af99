// Reconciliation of the snapshot with the live dictionary, and the floor an
// Update that finds nothing is measured against.
//
// Each benchmark holds an item whose live source it edits directly, then
// times SvrDMObserverView::Update alone. Putting the source back, and the
// Update that brings the snapshot back with it, run with the clock stopped:
// every timed Update here walks thousands of variables, so the cost of
// stopping the clock is lost in the noise, and the figure is the one edit
// the benchmark is named after rather than an average with its undoing.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "ServerDataManager.h"

namespace {

QUOR_Variable MakeVariable(int i) {
  return QUOR_Variable(LocallyUniqueID(1, static_cast<uint32_t>(i + 1)), "v" + std::to_string(i));
}

std::vector<QUOR_Variable> MakeVariables(int n) {
  std::vector<QUOR_Variable> variables;
  variables.reserve(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i) variables.push_back(MakeVariable(i));
  return variables;
}

// The least an Update that finds no difference can do: walk two lists of the
// same n handles side by side and compare each pair's identifier and
// definition address. The two vectors share their definitions, as a snapshot
// shares them with the live dictionary.
void BM_Baseline_CompareHandles(benchmark::State& state) {
  std::vector<QUOR_Variable> live = MakeVariables(static_cast<int>(state.range(0)));
  std::vector<QUOR_Variable> snapshot = live;
  for (auto _ : state) {
    benchmark::DoNotOptimize(live.data());
    benchmark::DoNotOptimize(snapshot.data());
    std::size_t differences = 0;
    for (std::size_t i = 0; i < live.size(); ++i) {
      if (live[i].GetID() != snapshot[i].GetID() ||
          live[i].Definition() != snapshot[i].Definition()) {
        ++differences;
      }
    }
    benchmark::DoNotOptimize(differences);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Baseline_CompareHandles)->Arg(1000)->Arg(100000);

// A registered dataset of n variables with no rows, whose snapshot is up to
// date, and direct access to its live source.
class SettledDataset {
 public:
  explicit SettledDataset(int n) {
    DataFreeDataSource* source = new DataFreeDataSource;
    for (QUOR_Variable const& variable : MakeVariables(n)) source->MakeVariable(variable, nullptr);
    item_ = registry_.GetDataSet(registry_.Add(*source, std::string(), true));
    live_ = item_->dataSource;
    // The bulk path fills the snapshot in one pass; the first incremental
    // Update would insert the n variables one search at a time.
    item_->observerView.BulkVarMoves(true);
    Settle();
  }

  SvrDMItem& item() { return *item_; }
  SvrDMItemPtr& pointer() { return item_; }
  QUOR_DataSource& live() { return *live_; }
  int size() const { return static_cast<int>(live_->ColumnCount()); }

  // Brings the snapshot up to date and drops what that queued.
  void Settle() {
    item_->observerView.Update();
    item_->ClearNotifications();
  }

  // True when an Update now finds nothing, as after Settle it must.
  bool IsSettled() {
    item_->observerView.Update();
    bool const quiet = item_->notifications.empty();
    item_->ClearNotifications();
    return quiet;
  }

  // The first variable goes to the end, and back again.
  void MoveFirstToEnd() {
    QUOR_Variable first = live_->GetVariable(0);
    live_->DeleteVariables(0, 0);
    live_->MakeVariable(first, nullptr);
  }
  void MoveLastToFront() {
    int const last = size() - 1;
    QUOR_Variable moved = live_->GetVariable(last);
    live_->DeleteVariables(last, last);
    live_->InsertVariable(0, moved);
  }
  // The whole list in the opposite order.
  void Reverse() {
    std::vector<QUOR_Variable> reversed;
    for (int i = size() - 1; i >= 0; --i) reversed.push_back(live_->GetVariable(i));
    live_->DeleteVariables(0, size() - 1);
    for (QUOR_Variable const& variable : reversed) live_->MakeVariable(variable, nullptr);
  }

 private:
  ServerDataManager registry_;
  SvrDMItemPtr item_;
  QUOR_DataSource* live_ = nullptr;
};

void BM_Update_NoDifference(benchmark::State& state) {
  SettledDataset dataset(static_cast<int>(state.range(0)));
  if (!dataset.IsSettled()) return state.SkipWithError("the snapshot did not settle");
  for (auto _ : state) dataset.item().observerView.Update();
  if (!dataset.item().notifications.empty()) state.SkipWithError("Update found a difference");
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Update_NoDifference)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMicrosecond);

// One new variable in the middle: one search that fails, one InsertVarsMsg.
void BM_Update_InsertMiddle(benchmark::State& state) {
  SettledDataset dataset(static_cast<int>(state.range(0)));
  int const middle = dataset.size() / 2;
  QUOR_Variable const inserted(LocallyUniqueID(2, 1), "inserted");
  std::size_t queued = 0;
  for (auto _ : state) {
    state.PauseTiming();
    dataset.live().InsertVariable(middle, inserted);
    state.ResumeTiming();

    dataset.item().observerView.Update();

    state.PauseTiming();
    queued = dataset.item().notifications.size();
    dataset.item().ClearNotifications();
    dataset.live().DeleteVariables(middle, middle);
    dataset.Settle();
    state.ResumeTiming();
  }
  if (queued != 1) state.SkipWithError("expected one InsertVarsMsg per Update");
}
BENCHMARK(BM_Update_InsertMiddle)->Arg(100000)->Unit(benchmark::kMicrosecond);

// The first variable moved to the end, on the bulk path the writer asks for
// when it has reordered many variables: two messages whatever moved.
void BM_Update_MoveFirstToEnd_Bulk(benchmark::State& state) {
  SettledDataset dataset(static_cast<int>(state.range(0)));
  std::size_t queued = 0;
  for (auto _ : state) {
    state.PauseTiming();
    dataset.MoveFirstToEnd();
    state.ResumeTiming();

    dataset.item().observerView.BulkVarMoves(true);
    dataset.item().observerView.Update();

    state.PauseTiming();
    queued = dataset.item().notifications.size();
    dataset.item().ClearNotifications();
    dataset.MoveLastToFront();
    dataset.item().observerView.BulkVarMoves(true);
    dataset.Settle();
    state.ResumeTiming();
  }
  if (queued != 2) state.SkipWithError("expected a DeleteVarsMsg and an InsertVarsMsg");
}
BENCHMARK(BM_Update_MoveFirstToEnd_Bulk)->Arg(10000)->Unit(benchmark::kMicrosecond);

// The end of a write access as a server meets it: Update, one observer told,
// the queue emptied. Each benchmark edits the live list with the clock
// stopped, then times the end of one write access.
class WatchedDataset : public SettledDataset {
 public:
  explicit WatchedDataset(int n) : SettledDataset(n), handle_(pointer()) {
    handle_.Register(observer_);
  }
  ~WatchedDataset() { handle_.Unregister(observer_); }

  // Times the end of a write access after `edit`; returns what it queued.
  template <class Edit>
  std::size_t TimedEnd(benchmark::State& state, Edit&& edit) {
    state.PauseTiming();
    edit(live());
    auto* access = new SvrDMWriteableDataSource(pointer(), false, nullptr);
    observer_.seen = 0;
    state.ResumeTiming();
    delete access;
    return observer_.seen;
  }

 private:
  struct Observer : SvrDMDataSetObserver {
    void DataSetChanged(SvrDMWriteableDataSource const* access) override {
      seen = access->GetNotifications().size();
    }
    std::size_t seen = 0;
  };
  SvrDMDataset handle_;
  Observer observer_;
};

void BM_WriteEnd_NoDifference(benchmark::State& state) {
  WatchedDataset dataset(static_cast<int>(state.range(0)));
  std::size_t queued = 0;
  for (auto _ : state) queued += dataset.TimedEnd(state, [](QUOR_DataSource&) {});
  if (queued != 0) state.SkipWithError("an end found a difference");
}
BENCHMARK(BM_WriteEnd_NoDifference)->Arg(100000)->Unit(benchmark::kMicrosecond);

// Rebuilds the live list in the order `reorder` gives a copy of it.
template <class Reorder>
void Reordered(QUOR_DataSource& live, Reorder&& reorder) {
  std::vector<QUOR_Variable> variables;
  variables.reserve(live.ColumnCount());
  for (unsigned i = 0; i < live.ColumnCount(); ++i)
    variables.push_back(live.GetVariable(static_cast<int>(i)));
  reorder(variables);
  live.DeleteVariables(0, static_cast<int>(live.ColumnCount()) - 1);
  for (QUOR_Variable const& variable : variables) live.MakeVariable(variable, nullptr);
}

// Every iteration reverses the order the last one left: n - 1 MoveVarsMsg,
// each variable found at the far end of the unsettled part.
void BM_WriteEnd_Reverse(benchmark::State& state) {
  WatchedDataset dataset(static_cast<int>(state.range(0)));
  std::size_t queued = 0;
  for (auto _ : state) {
    queued = dataset.TimedEnd(state, [](QUOR_DataSource& live) {
      Reordered(live, [](std::vector<QUOR_Variable>& v) { std::reverse(v.begin(), v.end()); });
    });
  }
  if (queued != static_cast<std::size_t>(state.range(0) - 1)) {
    state.SkipWithError("expected one MoveVarsMsg per variable but the last");
  }
}
BENCHMARK(BM_WriteEnd_Reverse)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

// The first variable goes to the end: n - 1 MoveVarsMsg, each a gap of one
// survivor.
void BM_WriteEnd_Rotate(benchmark::State& state) {
  WatchedDataset dataset(static_cast<int>(state.range(0)));
  std::size_t queued = 0;
  for (auto _ : state) {
    queued = dataset.TimedEnd(state, [](QUOR_DataSource& live) {
      Reordered(live, [](std::vector<QUOR_Variable>& v) {
        std::rotate(v.begin(), v.begin() + 1, v.end());
      });
    });
  }
  if (queued != static_cast<std::size_t>(state.range(0) - 1)) {
    state.SkipWithError("expected one MoveVarsMsg per variable after the first");
  }
}
BENCHMARK(BM_WriteEnd_Rotate)->Arg(100000)->Unit(benchmark::kMillisecond);

// A random order each time, from a fixed seed.
void BM_WriteEnd_Shuffle(benchmark::State& state) {
  WatchedDataset dataset(static_cast<int>(state.range(0)));
  std::mt19937 random(20261123);
  std::size_t queued = 0;
  for (auto _ : state) {
    queued = dataset.TimedEnd(state, [&](QUOR_DataSource& live) {
      Reordered(live,
                [&](std::vector<QUOR_Variable>& v) { std::shuffle(v.begin(), v.end(), random); });
    });
  }
  if (queued == 0) state.SkipWithError("a shuffle queued nothing");
}
BENCHMARK(BM_WriteEnd_Shuffle)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace
