#include "ObserverView.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "datasource.h"
#include "messages.h"
#include "svrdmitem.h"

namespace {

// All ones: "no variable" and "at the end". Constant, so it holds its value
// even for an Update that a static initialiser runs before this file's own.
constexpr LocallyUniqueID kNoVariable;

// The split arrays of a data source, its messages and the snapshot hold
// eight identifiers.
constexpr int kMaxSplit = 8;

using MessagePtr = std::unique_ptr<DataSetMsg>;

// Makes room for `count` more messages, so that appending them cannot fail.
// Grows geometrically: the stages of one Update each ask for a little.
void MakeRoom(std::vector<DataSetMsg*>& queue, std::size_t count) {
  std::size_t const needed = queue.size() + count;
  if (needed > queue.capacity()) queue.reserve(std::max(needed, 2 * queue.capacity()));
}

// QUOR_Variable::operator==, with its first test, one shared definition,
// made here where it inlines: most variables of a reconciled list share
// their definition with the snapshot.
bool SameVariable(QUOR_Variable const& a, QUOR_Variable const& b) {
  return a.Definition() == b.Definition() || a == b;
}

// A null label and an empty one mean the same.
char const* TextOrEmpty(char const* text) { return text != nullptr ? text : ""; }

std::string IdText(LocallyUniqueID id) {
  return std::to_string(id.group) + ":" + std::to_string(id.serial);
}

[[noreturn]] void RefuseDuplicate(LocallyUniqueID id, uint32_t position) {
  throw std::invalid_argument(
      "SvrDMObserverView::Update: the data source holds the variable identifier " + IdText(id) +
      " twice (again at position " + std::to_string(position) +
      "); identifiers are unique in a dictionary, and nothing was announced");
}

bool SameSets(std::vector<VariableSetImpl> const& a, std::vector<VariableSetImpl> const& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    VariableSetImpl const& x = a[i];
    VariableSetImpl const& y = b[i];
    // Cheapest first: the descriptor, then the texts, then the members.
    if (x.descriptor != y.descriptor || x.name != y.name || x.label != y.label ||
        x.description != y.description || x.members != y.members) {
      return false;
    }
  }
  return true;
}

// Builds the message that carries a set extension. The message keeps the
// payload alive through its own reference.
MessagePtr SetExtensionMessage(QUOR_DataSource::ExtensionType type,
                               std::vector<VariableSet> const& sets, SvrDMItem const& item) {
  std::string payload;
  MakeExtension(sets, payload, type);
  RefCountPtr<QUOR_ExtensionImpl> extension(new QUOR_ExtensionImpl(
      static_cast<int>(type), 1, static_cast<long>(payload.size()), payload.data()));
  return MessagePtr(new ExtensionsMsg(0, item.dataSetID, item.caseSequence, extension));
}

// Counts, for a run of positions that are taken out one by one in any
// order, how many of them are still in below a given one: a Fenwick tree,
// O(log n) for both the question and the removal.
class RemainingCounter {
 public:
  explicit RemainingCounter(uint32_t n) : tree_(n) {
    // All present: node i covers the (i & -i) positions that end at i.
    for (uint32_t i = 1; i <= n; ++i) tree_[i - 1] = i & (~i + 1);
  }
  // Present positions in [0, position).
  uint32_t Below(uint32_t position) const {
    uint32_t sum = 0;
    for (uint32_t i = position; i > 0; i &= i - 1) sum += tree_[i - 1];
    return sum;
  }
  void Remove(uint32_t position) {
    for (uint32_t i = position + 1; i <= tree_.size(); i += i & (~i + 1)) --tree_[i - 1];
  }

 private:
  std::vector<uint32_t> tree_;
};

// From identifier words to positions, open addressing with linear probing:
// one flat array, filled once per Update that needs it.
class IdentifierIndex {
 public:
  static constexpr uint32_t kAbsent = 0xFFFFFFFFu;

  explicit IdentifierIndex(std::size_t count) {
    std::size_t capacity = 16;
    while (capacity < 2 * count) capacity *= 2;
    slots_.assign(capacity, Slot{0, kAbsent});
    mask_ = capacity - 1;
  }
  // The value stored under `key`, storing `value` there first if there was
  // none; kAbsent then tells the caller that the key is new.
  uint32_t FindOrAdd(uint32_t key, uint32_t value) {
    // Fibonacci hashing spreads the consecutive serials of a dictionary.
    for (std::size_t at = (key * 0x9E3779B1u) & mask_;; at = (at + 1) & mask_) {
      Slot& slot = slots_[at];
      if (slot.value == kAbsent) {
        slot = Slot{key, value};
        return kAbsent;
      }
      if (slot.key == key) return slot.value;
    }
  }

 private:
  struct Slot {
    uint32_t key;
    uint32_t value;
  };
  std::vector<Slot> slots_;
  std::size_t mask_ = 0;
};

// The incremental variable stage, worked out before anything changes.
//
// The messages are those of the plain procedure: for each live position
// iNew in turn, search the snapshot from iNew for the live variable; a new
// one is inserted at iNew; one found further on first has the variables
// between that the live list no longer has swept away, then moves up to
// iNew in one step; a changed definition is reported. Run as written, that
// costs a linear search a pass and a lookup a swept position, quadratic in
// the number of variables under the write lock.
//
// It is worked out here without touching the snapshot instead. Positions
// below iNew are settled, and inserts and moves land at iNew, so the
// unsettled part of the snapshot is always its starting list with some
// variables taken out, in their starting order. A variable's position in the
// snapshot of the moment is therefore iNew plus the number of variables
// still unsettled before it in the starting list. A small change is planned
// by walking that list directly; once the walk has cost more than a few
// passes over both lists, the plan starts again over an index of
// identifiers and a Fenwick tree of the unsettled variables, which answer
// each pass in O(log n). Either way the plan holds the same messages.
struct VariablePlan {
  static constexpr uint32_t kNew = 0xFFFFFFFFu;

  enum class Kind : uint8_t { kInsert, kDelete, kMove, kModify };
  struct Step {
    Kind kind;
    uint32_t a;  // insert, modify: live position; delete: first of `deleted`; move: from
    uint32_t b;  // insert: beforeID word; delete: count; move: target
  };
  // The state of a variable of the unsettled part, by starting position.
  enum : uint8_t { kUnsettled, kStaysLive, kSettled, kDeleted };

  VariablePlan(QUOR_DataSource const& live, QUOR_DataSource& view)
      : live(live), view(view), nLive(live.ColumnCount()), nView(view.ColumnCount()) {}

  LocallyUniqueID LiveID(uint32_t i) const { return live.GetVariable(static_cast<int>(i)).GetID(); }
  LocallyUniqueID ViewID(uint32_t i) const { return view.GetVariable(static_cast<int>(i)).GetID(); }

  void Modified(uint32_t i, QUOR_Variable const& was) {
    steps.push_back({Kind::kModify, i, 0});
    QUOR_Variable const& now = live.GetVariable(static_cast<int>(i));
    if (now.GetType() != was.GetType()) typeChanged = true;
  }
  // Ends a pass that found the live variable `now` at `position` of the
  // starting list, as `was`.
  void Settle(uint32_t i, QUOR_Variable const& now, uint32_t position, QUOR_Variable const& was) {
    match[i - start] = position;
    if (!SameVariable(now, was)) Modified(i, was);
  }
  void Insert(uint32_t i, uint32_t firstUnsettled) {
    LocallyUniqueID const before = firstUnsettled < nView ? ViewID(firstUnsettled) : kNoVariable;
    steps.push_back({Kind::kInsert, i, before.ToWord()});
    match[i - start] = kNew;
    ++inserted;
  }
  void CloseDelete(std::size_t first) {
    if (deleted.size() > first) {
      steps.push_back({Kind::kDelete, static_cast<uint32_t>(first),
                       static_cast<uint32_t>(deleted.size() - first)});
    }
  }

  // Each returns false, with the plan to be started again, when it gives up.
  void PlanPrefix();
  bool PlanByWalking();
  void PlanByIndex();
  void CheckInsertedAreUnique() const;

  QUOR_DataSource const& live;
  QUOR_DataSource& view;
  uint32_t const nLive, nView;
  // Positions below `start` hold the same identifiers in both lists.
  uint32_t start = 0;
  std::vector<Step> steps;
  // Starting positions of the variables that go, ascending across the plan.
  std::vector<uint32_t> deleted;
  // For each live position from `start`: the starting position of the
  // snapshot's variable it was matched with, or kNew.
  std::vector<uint32_t> match;
  uint32_t inserted = 0;
  bool typeChanged = false;
};

// Variables that have not moved: one identifier comparison a list and
// variable, which is all an Update with no difference costs.
void VariablePlan::PlanPrefix() {
  uint32_t const common = std::min(nLive, nView);
  for (; start < common; ++start) {
    QUOR_Variable const& liveVar = live.GetVariable(static_cast<int>(start));
    QUOR_Variable const& viewVar = view.GetVariable(static_cast<int>(start));
    if (liveVar.GetID() != viewVar.GetID()) break;
    if (!SameVariable(liveVar, viewVar)) Modified(start, viewVar);
  }
}

// Walks the starting list as the plain procedure would, marking what it
// settles and deletes. Gives up after about two passes over both lists.
bool VariablePlan::PlanByWalking() {
  std::vector<uint8_t> state(nView - start, kUnsettled);
  auto at = [&](uint32_t position) -> uint8_t& { return state[position - start]; };
  uint64_t work = 0;
  uint64_t const budget = 2 * (uint64_t{nLive} + nView - 2 * uint64_t{start}) + 64;
  uint32_t first = start;  // the first unsettled position
  auto markSettled = [&](uint32_t position) {
    at(position) = kSettled;
    while (first < nView && at(first) >= kSettled) ++first;
  };

  for (uint32_t iNew = start; iNew < nLive; ++iNew) {
    // The plan reads through references: neither list changes while it is
    // made, and a lookup of a position is a call into the data source.
    QUOR_Variable const& liveVar = live.GetVariable(static_cast<int>(iNew));
    LocallyUniqueID const id = liveVar.GetID();
    uint32_t found = first;
    uint32_t ahead = 0;  // unsettled variables in front of `found`
    QUOR_Variable const* viewVar = nullptr;
    for (; found < nView; ++found) {
      if (++work > budget) return false;
      if (at(found) >= kSettled) continue;
      viewVar = &view.GetVariable(static_cast<int>(found));
      if (viewVar->GetID() == id) break;
      ++ahead;
    }
    if (found == nView) {
      Insert(iNew, first);
      continue;
    }
    if (ahead > 0) {
      // The variables in between that the live list no longer has go now.
      // A live variable of the snapshot that is not yet settled stands
      // further on in the live list, so only that part is searched.
      std::size_t const firstDeleted = deleted.size();
      for (uint32_t gap = first; gap < found; ++gap) {
        if (at(gap) != kUnsettled) continue;
        LocallyUniqueID const gapID = ViewID(gap);
        bool stays = false;
        for (uint32_t i = iNew + 1; i < nLive && !stays; ++i) {
          if (++work > budget) return false;
          stays = LiveID(i) == gapID;
        }
        if (stays) {
          at(gap) = kStaysLive;
        } else {
          at(gap) = kDeleted;
          deleted.push_back(gap);
          --ahead;
        }
      }
      CloseDelete(firstDeleted);
      if (ahead > 0) steps.push_back({Kind::kMove, iNew + ahead, iNew});
    }
    markSettled(found);
    Settle(iNew, liveVar, found, *viewVar);
  }
  std::size_t const firstDeleted = deleted.size();
  for (uint32_t position = first; position < nView; ++position) {
    if (at(position) < kSettled) deleted.push_back(position);
  }
  CloseDelete(firstDeleted);
  if (inserted > 0) CheckInsertedAreUnique();
  return true;
}

// Every variable the walk found nowhere in the snapshot was inserted, and an
// identifier that the live list holds twice is always one of them, at its
// later position: the earlier one was settled by then, so the search from
// the first unsettled variable could not find it. So only what stands in
// front of the last insert is compared with the inserted identifiers.
void VariablePlan::CheckInsertedAreUnique() const {
  std::vector<std::pair<uint32_t, uint32_t>> words;  // identifier word, live position
  words.reserve(inserted);
  for (Step const& step : steps) {
    if (step.kind == Kind::kInsert) words.emplace_back(LiveID(step.a).ToWord(), step.a);
  }
  std::sort(words.begin(), words.end());
  uint32_t const end =
      std::max_element(words.begin(), words.end(), [](auto const& x, auto const& y) {
        return x.second < y.second;
      })->second;
  for (uint32_t i = 0; i < end; ++i) {
    uint32_t const word = LiveID(i).ToWord();
    auto hit = std::lower_bound(words.begin(), words.end(), std::make_pair(word, 0u));
    for (; hit != words.end() && hit->first == word; ++hit) {
      if (hit->second != i) RefuseDuplicate(LiveID(hit->second), hit->second);
    }
  }
}

// The same plan over an index: every live variable is matched with its
// place in the snapshot up front, which also finds a duplicate before
// anything is planned, and which variables the sweeps will take out is then
// known. A Fenwick tree gives each found variable's position at its pass.
void VariablePlan::PlanByIndex() {
  IdentifierIndex index(std::size_t{nView} + nLive);
  for (uint32_t position = 0; position < nView; ++position) {
    index.FindOrAdd(ViewID(position).ToWord(), position);
  }
  uint32_t const kInsertedMark = IdentifierIndex::kAbsent - 1;
  std::vector<uint8_t> state(nView - start, kUnsettled);
  for (uint32_t iNew = start; iNew < nLive; ++iNew) {
    LocallyUniqueID const id = LiveID(iNew);
    uint32_t const position = index.FindOrAdd(id.ToWord(), kInsertedMark);
    if (position == IdentifierIndex::kAbsent) {
      match[iNew - start] = kNew;
      continue;
    }
    // Seen before in this list: as a new one, as a settled variable of the
    // common start, or matched at an earlier position.
    if (position == kInsertedMark || position < start || state[position - start] != kUnsettled) {
      RefuseDuplicate(id, iNew);
    }
    state[position - start] = kStaysLive;
    match[iNew - start] = position;
  }
  std::vector<uint32_t> gone;
  for (uint32_t position = start; position < nView; ++position) {
    if (state[position - start] == kUnsettled) gone.push_back(position);
  }

  RemainingCounter unsettled(nView - start);
  std::size_t nextGone = 0;
  uint32_t first = start;
  auto markSettled = [&](uint32_t position) {
    unsettled.Remove(position - start);
    state[position - start] = kSettled;
  };
  for (uint32_t iNew = start; iNew < nLive; ++iNew) {
    uint32_t const position = match[iNew - start];
    while (first < nView && state[first - start] >= kSettled) ++first;
    if (position == kNew) {
      Insert(iNew, first);
      continue;
    }
    uint32_t ahead = unsettled.Below(position - start);
    if (ahead > 0) {
      // Those ahead that are gone are exactly the gone ones below this
      // position: every sweep takes all of those, so they are the next ones
      // of the ascending list.
      std::size_t const firstDeleted = deleted.size();
      for (; nextGone < gone.size() && gone[nextGone] < position; ++nextGone) {
        markSettled(gone[nextGone]);
        state[gone[nextGone] - start] = kDeleted;
        deleted.push_back(gone[nextGone]);
        --ahead;
      }
      CloseDelete(firstDeleted);
      if (ahead > 0) steps.push_back({Kind::kMove, iNew + ahead, iNew});
    }
    markSettled(position);
    Settle(iNew, live.GetVariable(static_cast<int>(iNew)), position,
           view.GetVariable(static_cast<int>(position)));
  }
  std::size_t const firstDeleted = deleted.size();
  deleted.insert(deleted.end(), gone.begin() + static_cast<std::ptrdiff_t>(nextGone), gone.end());
  CloseDelete(firstDeleted);
}

}  // namespace

struct SvrDMObserverView::Data {
  explicit Data(SvrDMItem& item) : pItem(&item) { view.SetDirty(false); }

  // A property whose snapshot write failed part-way: the snapshot may then
  // hold anything for it, so the next Update announces it whatever the
  // comparison says. Set only after a failure.
  enum Unsure : uint32_t {
    kFileSpec = 1u << 0,
    kLabel = 1u << 1,
    kWeight = 1u << 2,
    kFilter = 1u << 3,
    kTrends = 1u << 4,
    kSplit = 1u << 5,
    kMRSets = 1u << 6,
    kVariableSets = 1u << 7,
    kExtension = 1u << 8,
    kAttributes = 1u << 9,
    kImputation = 1u << 10,
  };

  // Every message of one Update carries the item's identifier and its case
  // sequence as it stands now.
  template <class Message, class... Args>
  MessagePtr Build(Args&&... args) const {
    return MessagePtr(
        new Message(0, pItem->dataSetID, pItem->caseSequence, std::forward<Args>(args)...));
  }

  bool Changed(bool differs, Unsure property) const { return differs || (unsure & property) != 0; }

  // Queues the messages (null ones skipped) and makes the snapshot's write,
  // both or neither as far as a watcher can tell: the messages are built by
  // the caller and room in the queue is made before the snapshot changes, so
  // nothing can fail once it has; a write that fails throws the messages
  // away and leaves the property unsure.
  template <class Write>
  void Publish(Unsure property, Write&& write, MessagePtr first, MessagePtr second = nullptr) {
    std::vector<DataSetMsg*>& queue = pItem->notifications;
    MakeRoom(queue, 2);
    try {
      write();
    } catch (...) {
      unsure |= property;
      throw;
    }
    unsure &= ~static_cast<uint32_t>(property);
    if (first) queue.push_back(first.release());
    if (second) queue.push_back(second.release());
  }

  void UpdateVariables(QUOR_DataSource& live);
  void CommitVariables(QUOR_DataSource& live, VariablePlan& plan);
  void ReplaceVariables(QUOR_DataSource& live);
  void UpdateProperties(QUOR_DataSource& live, int nSplitAtStart, bool bDirtyAtStart);
  void UpdateFileSpec(QUOR_DataSource& live);
  void UpdateFilterAndTrends(QUOR_DataSource& live);
  void UpdateSplit(QUOR_DataSource& live, int nSplitAtStart);
  void UpdateSets(QUOR_DataSource& live);
  void UpdateExtensions(QUOR_DataSource& live);

  // Set at construction.
  SvrDMItem* const pItem;

  // The snapshot and what goes with it; touched only inside Update.
  DataFreeDataSource view;
  int64_t nRows = -2;  // differs from every real count, so the first Update resets clients
  bool bResetClient = false;
  bool bBulkVarMoves = false;
  uint32_t unsure = 0;
};

SvrDMObserverView::SvrDMObserverView(SvrDMItem& item) : data_(new Data(item)) {}

SvrDMObserverView::~SvrDMObserverView() = default;

void SvrDMObserverView::BulkVarMoves(bool on) { data_->bBulkVarMoves = on; }

QUOR_DataSource const& SvrDMObserverView::Snapshot() const { return data_->view; }

int64_t SvrDMObserverView::RowCountSeen() const { return data_->nRows; }

void SvrDMObserverView::Update() {
  Data& d = *data_;
  // Read before the variable stage, which can change the view's split
  // count; the split and dirty stages compare against these.
  int const nSplitAtStart = d.view.GetNSplitVars();
  bool const bDirtyAtStart = d.view.IsDirty();

  // An item without a data source reads as an empty dictionary.
  std::unique_ptr<QUOR_DataSource> temporary;
  QUOR_DataSource* pDs = d.pItem->dataSource;
  if (pDs == nullptr) {
    temporary.reset(new DataFreeDataSource());
    pDs = temporary.get();
  }

  if (d.bBulkVarMoves) {
    d.ReplaceVariables(*pDs);
  } else {
    d.UpdateVariables(*pDs);
  }
  d.UpdateProperties(*pDs, nSplitAtStart, bDirtyAtStart);
}

void SvrDMObserverView::Data::UpdateVariables(QUOR_DataSource& live) {
  VariablePlan plan(live, view);
  plan.PlanPrefix();
  if (plan.start == plan.nLive && plan.start == plan.nView) {
    if (!plan.steps.empty()) CommitVariables(live, plan);
    return;
  }
  plan.match.resize(plan.nLive - plan.start);
  std::size_t const prefixSteps = plan.steps.size();
  bool const prefixTypeChanged = plan.typeChanged;
  if (!plan.PlanByWalking()) {
    plan.steps.resize(prefixSteps);
    plan.typeChanged = prefixTypeChanged;
    plan.deleted.clear();
    plan.inserted = 0;
    plan.PlanByIndex();
  }
  CommitVariables(live, plan);
}

// Brings the plan to the queue and the snapshot, all or nothing: every
// message is built, and every allocation made, before the snapshot changes;
// the one change that can fail, appending the new variables, is undone when
// it does. A failure therefore leaves snapshot and queue as they were, and
// the next Update plans the same differences again.
//
// The snapshot is not edited step by step either: it is brought to the live
// order in one permutation of its handles, moved rather than copied, so a
// reorder of every variable costs no reference count and no shift of the
// list per step.
void SvrDMObserverView::Data::CommitVariables(QUOR_DataSource& live, VariablePlan& plan) {
  std::vector<MessagePtr> messages;
  messages.reserve(plan.steps.size());
  bool structural = false;
  for (VariablePlan::Step const& step : plan.steps) {
    switch (step.kind) {
      case VariablePlan::Kind::kInsert: {
        std::vector<QUOR_Variable> inserted(1, live.GetVariable(static_cast<int>(step.a)));
        messages.push_back(Build<InsertVarsMsg>(inserted, LocallyUniqueID::FromWord(step.b)));
        structural = true;
        break;
      }
      case VariablePlan::Kind::kDelete: {
        std::vector<QUOR_Variable> gone;
        gone.reserve(step.b);
        for (uint32_t i = step.a; i < step.a + step.b; ++i)
          gone.push_back(view.GetVariable(static_cast<int>(plan.deleted[i])));
        messages.push_back(Build<DeleteVarsMsg>(std::move(gone)));
        structural = true;
        break;
      }
      case VariablePlan::Kind::kMove:
        messages.push_back(Build<MoveVarsMsg>(std::vector<unsigned int>(1, step.a), step.b));
        structural = true;
        break;
      case VariablePlan::Kind::kModify: {
        QUOR_Variable changed = live.GetVariable(static_cast<int>(step.a));
        messages.push_back(Build<ModifyVarMsg>(changed));
        break;
      }
    }
  }

  // Where each position of the changed part takes its variable from: the
  // live order first, then the variables that go, which end up behind it.
  uint32_t const start = plan.start;
  std::vector<uint32_t> from;
  if (structural) {
    from.reserve(plan.nView - start + plan.inserted);
    uint32_t appended = plan.nView;
    for (uint32_t const position : plan.match)
      from.push_back(position == VariablePlan::kNew ? appended++ : position);
    from.insert(from.end(), plan.deleted.begin(), plan.deleted.end());
  }
  std::vector<DataSetMsg*>& queue = pItem->notifications;
  MakeRoom(queue, messages.size());

  if (plan.inserted > 0) {
    uint32_t added = 0;
    try {
      for (uint32_t i = 0; i < plan.match.size(); ++i) {
        if (plan.match[i] != VariablePlan::kNew) continue;
        view.MakeVariable(live.GetVariable(static_cast<int>(start + i)), nullptr);
        ++added;
      }
    } catch (...) {
      if (added > 0) {
        view.DeleteVariables(static_cast<int>(plan.nView),
                             static_cast<int>(plan.nView + added - 1));
      }
      throw;
    }
  }

  // Nothing below can fail: moves of handles, removals, copies of handles
  // onto shareable definitions, and appends to reserved room.
  if (structural) {
    // Cycle by cycle: each position takes the variable it is given, and the
    // place that variable leaves takes its own next.
    uint32_t const kDone = VariablePlan::kNew;
    for (uint32_t cycle = 0; cycle < from.size(); ++cycle) {
      if (from[cycle] == kDone || from[cycle] == start + cycle) continue;
      QUOR_Variable* slot = &view.GetVariable(static_cast<int>(start + cycle));
      QUOR_Variable held = std::move(*slot);
      uint32_t to = cycle;
      for (;;) {
        uint32_t const source = from[to] - start;
        from[to] = kDone;
        if (source == cycle) {
          *slot = std::move(held);
          break;
        }
        QUOR_Variable* next = &view.GetVariable(static_cast<int>(start + source));
        *slot = std::move(*next);
        slot = next;
        to = source;
      }
    }
    uint32_t const total = plan.nView + plan.inserted;
    if (total > plan.nLive) {
      view.DeleteVariables(static_cast<int>(plan.nLive), static_cast<int>(total - 1));
    }
  }
  bool modified = false;
  for (VariablePlan::Step const& step : plan.steps) {
    if (step.kind != VariablePlan::Kind::kModify) continue;
    view.GetVariable(static_cast<int>(step.a)) = live.GetVariable(static_cast<int>(step.a));
    modified = true;
  }
  for (MessagePtr& message : messages) queue.push_back(message.release());
  if (modified) live.SetDirty(true);
  if (plan.typeChanged) bResetClient = true;
}

// The bulk variable stage: the whole list out, the whole live list in. Two
// messages, even when a list is empty, whatever moved.
void SvrDMObserverView::Data::ReplaceVariables(QUOR_DataSource& live) {
  uint32_t const n = view.ColumnCount();
  uint32_t const m = live.ColumnCount();
  std::vector<QUOR_Variable> fresh;
  fresh.reserve(m);
  for (uint32_t i = 0; i < m; ++i) fresh.push_back(live.GetVariable(static_cast<int>(i)));
  {
    // A list with an identifier twice would pass into the snapshot, whose
    // later comparisons rely on identifiers being unique.
    IdentifierIndex seen(m);
    for (uint32_t i = 0; i < m; ++i) {
      LocallyUniqueID const id = fresh[i].GetID();
      if (seen.FindOrAdd(id.ToWord(), i) != IdentifierIndex::kAbsent) RefuseDuplicate(id, i);
    }
  }
  std::vector<QUOR_Variable> old;
  old.reserve(n);
  MessagePtr insert = Build<InsertVarsMsg>(fresh, kNoVariable);
  // The message holds the live list now, whether it copied it or took it.
  std::vector<QUOR_Variable> const& inserted = static_cast<InsertVarsMsg&>(*insert).GetVariables();
  std::vector<DataSetMsg*>& queue = pItem->notifications;
  MakeRoom(queue, 2);

  // Growth is the one change to the snapshot that can fail; it comes first
  // and is undone on failure.
  uint32_t added = 0;
  try {
    for (; n + added < m; ++added) view.MakeVariable(inserted[n + added], nullptr);
  } catch (...) {
    if (added > 0) view.DeleteVariables(static_cast<int>(n), static_cast<int>(n + added - 1));
    throw;
  }
  // Each place of the snapshot is visited once: its handle passes to the
  // message rather than being copied and then dropped, and the live one
  // takes its place. Building the message can fail only in its allocation,
  // before the list is taken; the old handles then go back.
  for (uint32_t i = 0; i < n; ++i) {
    QUOR_Variable& place = view.GetVariable(static_cast<int>(i));
    old.push_back(std::move(place));
    if (i < m) place = inserted[i];
  }
  MessagePtr remove;
  try {
    remove = Build<DeleteVarsMsg>(std::move(old));
  } catch (...) {
    for (uint32_t i = 0; i < n; ++i) view.GetVariable(static_cast<int>(i)) = std::move(old[i]);
    if (added > 0) view.DeleteVariables(static_cast<int>(n), static_cast<int>(n + added - 1));
    throw;
  }
  if (n > m) view.DeleteVariables(static_cast<int>(m), static_cast<int>(n - 1));
  queue.push_back(remove.release());
  queue.push_back(insert.release());
  bBulkVarMoves = false;
}

// The property stages, in the order in which a watcher receives them. Each
// builds its message before it writes the snapshot (see Publish).
void SvrDMObserverView::Data::UpdateProperties(QUOR_DataSource& live, int nSplitAtStart,
                                               bool bDirtyAtStart) {
  // Rows: the reset message waits until every cause of a reset has run.
  int64_t const rows = live.RowCount();
  if (rows != nRows) {
    bResetClient = true;
    nRows = rows;
  }

  // Rows per imputation: only a change to 0 is announced.
  long long const perImputation = live.RowsPerImputation();
  if (Changed(view.RowsPerImputation() != perImputation, kImputation)) {
    MessagePtr message;
    if (perImputation == 0) {
      auto* imputation = new ImputationInfoMsg();
      message.reset(imputation);
      imputation->rowsPerImputation = perImputation;
    }
    Publish(
        kImputation, [&] { view.RowsPerImputation(perImputation); }, std::move(message));
  }

  UpdateFileSpec(live);

  char const* label = TextOrEmpty(live.GetLabel());
  if (Changed(std::strcmp(label, TextOrEmpty(view.GetLabel())) != 0, kLabel)) {
    Publish(
        kLabel, [&] { view.SetLabel(*label != '\0' ? label : nullptr); },
        Build<FileLabelChangeMsg>(label));
  }

  // Weight by identifier: a weight variable that only moved is no change.
  int const weightIndex = live.GetWeightVarIndex();
  LocallyUniqueID const weightID = live.GetWeightVariableID();
  if (Changed(weightID != view.GetWeightVariableID(), kWeight)) {
    Publish(
        kWeight, [&] { view.SetWeightVar(weightIndex); }, Build<WeightVarMsg>(weightID));
  }

  UpdateFilterAndTrends(live);
  UpdateSplit(live, nSplitAtStart);
  UpdateSets(live);
  UpdateExtensions(live);

  if (bResetClient) {
    std::vector<DataSetMsg*>& queue = pItem->notifications;
    MessagePtr reset = Build<ResetClientDataMsg>(static_cast<int64_t>(live.RowCount()));
    MakeRoom(queue, 1);
    queue.push_back(reset.release());
    bResetClient = false;
  }

  // The variable stage may have marked the live source dirty in this same
  // Update; that counts too.
  bool const dirty = live.IsDirty();
  MessagePtr modified;
  if (dirty != bDirtyAtStart) modified = Build<DataSetModifiedMsg>(dirty);
  std::vector<DataSetMsg*>& queue = pItem->notifications;
  MakeRoom(queue, 1);
  view.SetDirty(dirty);
  if (modified) queue.push_back(modified.release());
}

void SvrDMObserverView::Data::UpdateFileSpec(QUOR_DataSource& live) {
  char const* liveFileSpec = live.GetFileSpec();
  if (!Changed(std::strcmp(liveFileSpec, view.GetFileSpec()) != 0, kFileSpec)) return;
  // A dataset added for a file that another dataset holds keeps that name
  // to itself: it is not announced, and the view keeps its old FileSpec, so
  // the same comparison recurs until the name moves on.
  if (pItem->sharedFileName == liveFileSpec) return;

  QUOR_DataSource const* root = &live;
  while (root->GetParentSource() != nullptr) root = root->GetParentSource();
  // Only a chain that rests on a data file has a file name to announce.
  MessagePtr message;
  if (dynamic_cast<SystemFileDataSource const*>(root) != nullptr) {
    std::string const fileSpec(liveFileSpec);
    message = Build<FileSpecChangeMsg>(fileSpec.c_str(), true);
    // The item takes the new name before anything is queued: should that
    // fail, the next Update finds the same difference and tries again.
    pItem->FileName(fileSpec);
  }
  Publish(
      kFileSpec, [&] { view.SetFileSpec(liveFileSpec); }, std::move(message));
}

// One filter change gives one message: ahead of the trends message when the
// filter is removed, behind it when a filter is set or replaced.
void SvrDMObserverView::Data::UpdateFilterAndTrends(QUOR_DataSource& live) {
  int const filterIndex = live.GetFilterVarIndex();
  LocallyUniqueID const filterID = live.GetFilterVariableID();
  bool const filterChanged = Changed(filterID != view.GetFilterVariableID(), kFilter);
  bool const filterRemoved = filterID == kNoVariable;
  auto publishFilter = [&] {
    Publish(
        kFilter, [&] { view.SetFilterVar(filterIndex); }, Build<FilterVarMsg>(filterID));
  };
  if (filterChanged && filterRemoved) publishFilter();

  if (Changed(!(*view.GetTrendsInfo() == *live.GetTrendsInfo()), kTrends)) {
    Publish(
        kTrends, [&] { *view.GetTrendsInfo() = *live.GetTrendsInfo(); },
        Build<TrendsInfoMsg>(live.GetTrendsInfo()));
  }

  if (filterChanged && !filterRemoved) publishFilter();
}

void SvrDMObserverView::Data::UpdateSplit(QUOR_DataSource& live, int nSplitAtStart) {
  bool changed = nSplitAtStart != view.GetNSplitVars() || nSplitAtStart != live.GetNSplitVars();
  if (!changed && nSplitAtStart > 0) {
    changed = view.GetSplitqSeparate() != live.GetSplitqSeparate();
    for (int i = 0; !changed && i < nSplitAtStart; ++i) {
      changed = live.GetSplitVarID(static_cast<unsigned>(i)) !=
                view.GetSplitVarID(static_cast<unsigned>(i));
    }
  }
  if (!Changed(changed, kSplit)) return;

  LocallyUniqueID ids[kMaxSplit];  // all ones beyond the live count
  int positions[kMaxSplit] = {};
  int const n = live.GetNSplitVars();
  // Both arrays, like the message and the view, hold eight. A source that
  // claims more (or fewer than none) is broken; it is refused here, before
  // anything is written past them or queued.
  if (n < 0 || n > kMaxSplit) {
    throw std::out_of_range("SvrDMObserverView::Update: the data source reports " +
                            std::to_string(n) + " split variables; 0 to 8 are possible");
  }
  for (int i = 0; i < n; ++i) {
    ids[i] = live.GetSplitVarID(static_cast<unsigned>(i));
    positions[i] = live.GetSplitVarIndex(static_cast<unsigned>(i));
  }
  bool const separate = live.GetSplitqSeparate();
  Publish(
      kSplit, [&] { view.SetSplit(static_cast<unsigned>(n), positions, separate); },
      Build<SplitFileMsg>(n, static_cast<LocallyUniqueID const*>(ids), separate));
}

void SvrDMObserverView::Data::UpdateSets(QUOR_DataSource& live) {
  std::vector<VariableSetImpl> const liveMRSets = live.GetMRSets();
  if (Changed(!SameSets(liveMRSets, view.GetMRSets()), kMRSets)) {
    std::vector<VariableSet> const sets = VariableSets(live, kMRSetsOfSource);
    // Clients read MR sets from two extensions; both go out.
    MessagePtr first = SetExtensionMessage(QUOR_DataSource::kExtensionMRSets, sets, *pItem);
    MessagePtr second = SetExtensionMessage(QUOR_DataSource::kExtensionMRSetsSecond, sets, *pItem);
    Publish(
        kMRSets, [&] { view.SetMRSets(liveMRSets); }, std::move(first), std::move(second));
  }

  std::vector<VariableSetImpl> const liveVarSets = live.GetVariableSets();
  if (Changed(!SameSets(liveVarSets, view.GetVariableSets()), kVariableSets)) {
    Publish(
        kVariableSets, [&] { view.SetVariableSets(liveVarSets); },
        SetExtensionMessage(QUOR_DataSource::kExtensionVariableSets,
                            VariableSets(live, kVariableSetsOfSource), *pItem));
  }
}

void SvrDMObserverView::Data::UpdateExtensions(QUOR_DataSource& live) {
  QUOR_DataSource::Extension const viewExtension(view, QUOR_DataSource::kExtensionRecord);
  QUOR_DataSource::Extension const liveExtension(live, QUOR_DataSource::kExtensionRecord);
  if (Changed(!(viewExtension == liveExtension), kExtension)) {
    Publish(
        kExtension, [&] { view.SetExtension(liveExtension); },
        Build<ExtensionsMsg>(static_cast<RefCountPtr<QUOR_ExtensionImpl> const&>(liveExtension)));
  }

  DatasourceAttributes const& attributes = live.GetAttributes();
  if (Changed(!(view.GetAttributes() == attributes), kAttributes)) {
    std::string const text = attributes.MakeString();
    RefCountPtr<QUOR_ExtensionImpl> extension(new QUOR_ExtensionImpl(
        QUOR_DataSource::kExtensionAttributes, 1, static_cast<long>(text.size()), text.data()));
    Publish(
        kAttributes, [&] { view.SetAttributes(attributes); }, Build<ExtensionsMsg>(extension));
  }
}
