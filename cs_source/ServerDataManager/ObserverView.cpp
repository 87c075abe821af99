#include "ObserverView.h"

#include <cstring>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "datasource.h"
#include "messages.h"
#include "svrdmitem.h"

namespace {

// All ones: "no variable" and "at the end". Constant, so it holds its value
// even for an Update that a static initialiser runs before this file's own.
constexpr LocallyUniqueID kNoVariable;

// QUOR_Variable::operator==, with its first test, one shared definition,
// made here where it inlines: most variables of a reconciled list share
// their definition with the snapshot.
bool SameVariable(QUOR_Variable const& a, QUOR_Variable const& b) {
  return a.Definition() == b.Definition() || a == b;
}

// A null label and an empty one mean the same.
char const* TextOrEmpty(char const* text) { return text != nullptr ? text : ""; }

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

// Builds the payload of a set extension and queues it. The message keeps
// the payload alive through its own reference.
void QueueSetExtension(QUOR_DataSource::ExtensionType type, std::vector<VariableSet> const& sets,
                       SvrDMItem& item) {
  std::string payload;
  MakeExtension(sets, payload, type);
  RefCountPtr<QUOR_ExtensionImpl> extension(new QUOR_ExtensionImpl(
      static_cast<int>(type), 1, static_cast<long>(payload.size()), payload.data()));
  item.QueueNotification(new ExtensionsMsg(0, item.dataSetID, item.caseSequence, extension));
}

}  // namespace

struct SvrDMObserverView::Data {
  explicit Data(SvrDMItem& item) : pItem(&item) { view.SetDirty(false); }

  // Every message of one Update carries the item's identifier and its case
  // sequence as it stands now.
  template <class Message, class... Args>
  void Queue(Args&&... args) {
    pItem->QueueNotification(
        new Message(0, pItem->dataSetID, pItem->caseSequence, std::forward<Args>(args)...));
  }

  void UpdateVariables(QUOR_DataSource& live);
  void ReplaceVariables(QUOR_DataSource& live);
  void UpdateProperties(QUOR_DataSource& live, int nSplitAtStart, bool bDirtyAtStart);
  void UpdateFileSpec(QUOR_DataSource& live);
  void UpdateFilterAndTrends(QUOR_DataSource& live);
  void UpdateSplit(QUOR_DataSource& live, int nSplitAtStart);
  void UpdateSetsAndExtensions(QUOR_DataSource& live);

  // Set at construction.
  SvrDMItem* const pItem;

  // The snapshot and what goes with it; touched only inside Update.
  DataFreeDataSource view;
  int64_t nRows = -2;  // differs from every real count, so the first Update resets clients
  bool bResetClient = false;
  bool bBulkVarMoves = false;
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

// The incremental variable stage. Each pass makes the first iNew + 1 view
// variables equal to the live ones, queuing exactly the edits it applies to
// the view, so every position in a message is a position in the list that
// the messages before it have produced. A watcher that applies them in order
// ends with the live list.
void SvrDMObserverView::Data::UpdateVariables(QUOR_DataSource& live) {
  uint32_t const nLive = live.ColumnCount();
  // Whether a gap variable is still live. The live source answers that by
  // searching its list, and a large reorder sweeps a gap of up to n
  // survivors on each of n passes: asked there, a reversal costs n^3. So
  // the live identifiers are gathered once, at the first gap of an Update;
  // an Update that meets no gap builds nothing.
  std::unordered_set<uint32_t> liveIDs;
  auto isLive = [&](LocallyUniqueID id) {
    if (liveIDs.empty()) {
      liveIDs.reserve(nLive);
      for (uint32_t i = 0; i < nLive; ++i)
        liveIDs.insert(live.GetVariable(static_cast<int>(i)).GetID().ToWord());
    }
    return liveIDs.count(id.ToWord()) != 0;
  };
  for (uint32_t iNew = 0; iNew < nLive; ++iNew) {
    // Borrowed, not copied: the live list does not change during Update, and
    // an unchanged dictionary should cost no reference count per variable.
    QUOR_Variable const& liveVar = live.GetVariable(static_cast<int>(iNew));
    LocallyUniqueID const id = liveVar.GetID();

    // Positions below iNew are settled; a variable that has not moved is
    // found at once. The match is kept: while the view is not edited in this
    // pass it is the view's variable at iNew, and an unchanged dictionary
    // then costs one lookup per list and variable.
    uint32_t iOld = iNew;
    QUOR_Variable* found = nullptr;
    for (uint32_t const nView = view.ColumnCount(); iOld < nView; ++iOld) {
      QUOR_Variable& candidate = view.GetVariable(static_cast<int>(iOld));
      if (candidate.GetID() == id) {
        found = &candidate;
        break;
      }
    }
    bool const inPlace = found != nullptr && iOld == iNew;

    if (found == nullptr) {
      LocallyUniqueID beforeID = view.ColumnCount() > iNew
                                     ? view.GetVariable(static_cast<int>(iNew)).GetID()
                                     : kNoVariable;
      std::vector<QUOR_Variable> inserted(1, liveVar);
      Queue<InsertVarsMsg>(inserted, beforeID);
      view.InsertVariable(static_cast<long>(iNew), liveVar);
    } else if (iOld > iNew) {
      // Drop from the gap what the live list no longer has; survivors stay
      // for a later pass to place.
      std::vector<QUOR_Variable> deletedVars;
      for (uint32_t j = iNew; j < iOld;) {
        QUOR_Variable& candidate = view.GetVariable(static_cast<int>(j));
        if (!isLive(candidate.GetID())) {
          deletedVars.push_back(candidate);
          view.DeleteVariables(static_cast<int>(j), static_cast<int>(j));
          --iOld;
        } else {
          ++j;
        }
      }
      if (!deletedVars.empty()) Queue<DeleteVarsMsg>(std::move(deletedVars));

      if (iOld > iNew) {
        Queue<MoveVarsMsg>(std::vector<unsigned int>(1, iOld), iNew);
        QUOR_Variable moved = view.GetVariable(static_cast<int>(iOld));
        view.DeleteVariables(static_cast<int>(iOld), static_cast<int>(iOld));
        view.InsertVariable(static_cast<long>(iNew), moved);
      }
    }

    QUOR_Variable& viewVar = inPlace ? *found : view.GetVariable(static_cast<int>(iNew));
    if (!SameVariable(liveVar, viewVar)) {
      QUOR_Variable changed = liveVar;
      Queue<ModifyVarMsg>(changed);
      if (liveVar.GetType() != viewVar.GetType()) bResetClient = true;
      live.SetDirty(true);
      viewVar = liveVar;
    }
    // viewVar and liveVar are still what GetVariable(iNew) of each list gives.
    if (!SameVariable(viewVar, liveVar)) {
      SvrDMAssertionFailed("view.GetVariable(iNew) == pDs->GetVariable(iNew)",
                           "cs_source/ServerDataManager/ObserverView", __LINE__,
                           "void SvrDMObserverView::Update()");
    }
  }

  if (view.ColumnCount() > nLive) {
    std::vector<QUOR_Variable> tail;
    for (uint32_t i = nLive; i < view.ColumnCount(); ++i)
      tail.push_back(view.GetVariable(static_cast<int>(i)));
    view.DeleteVariables(static_cast<int>(nLive), static_cast<int>(view.ColumnCount()) - 1);
    Queue<DeleteVarsMsg>(std::move(tail));
  }
}

// The bulk variable stage: the whole list out, the whole live list in. Two
// messages, even when a list is empty, whatever moved.
void SvrDMObserverView::Data::ReplaceVariables(QUOR_DataSource& live) {
  int const n = static_cast<int>(view.ColumnCount());
  std::vector<QUOR_Variable> old;
  old.reserve(static_cast<std::size_t>(n));
  // Room for both messages first, so that handing one over cannot fail
  // once it is built.
  pItem->notifications.reserve(pItem->notifications.size() + 2);
  // The view's handles pass to the message rather than being copied and
  // then dropped: two atomic operations a variable saved. Until the message
  // is queued the view holds empty handles; if building it fails (only its
  // allocation can, which comes before the list is taken), they go back, so
  // the view is as it was and the next Update starts over.
  for (int i = 0; i < n; ++i) old.push_back(std::move(view.GetVariable(i)));
  try {
    Queue<DeleteVarsMsg>(std::move(old));
  } catch (...) {
    for (std::size_t i = 0; i < old.size(); ++i) {
      view.GetVariable(static_cast<int>(i)) = std::move(old[i]);
    }
    throw;
  }
  view.DeleteVariables(0, n - 1);

  int const m = static_cast<int>(live.ColumnCount());
  std::vector<QUOR_Variable> fresh;
  fresh.reserve(static_cast<std::size_t>(m));
  for (int i = 0; i < m; ++i) {
    QUOR_Variable const& variable = live.GetVariable(i);
    fresh.push_back(variable);
    view.MakeVariable(variable, nullptr);
  }
  Queue<InsertVarsMsg>(fresh, kNoVariable);
  bBulkVarMoves = false;
}

// The property stages, in the order in which a watcher receives them.
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
  if (view.RowsPerImputation() != perImputation) {
    if (perImputation == 0) {
      ImputationInfoMsg* message = new ImputationInfoMsg();
      message->rowsPerImputation = perImputation;
      pItem->QueueNotification(message);
    }
    view.RowsPerImputation(perImputation);
  }

  UpdateFileSpec(live);

  char const* label = TextOrEmpty(live.GetLabel());
  if (std::strcmp(label, TextOrEmpty(view.GetLabel())) != 0) {
    Queue<FileLabelChangeMsg>(label);
    view.SetLabel(*label != '\0' ? label : nullptr);
  }

  // Weight by identifier: a weight variable that only moved is no change.
  int const weightIndex = live.GetWeightVarIndex();
  LocallyUniqueID const weightID = live.GetWeightVariableID();
  if (weightID != view.GetWeightVariableID()) {
    Queue<WeightVarMsg>(weightID);
    view.SetWeightVar(weightIndex);
  }

  UpdateFilterAndTrends(live);
  UpdateSplit(live, nSplitAtStart);
  UpdateSetsAndExtensions(live);

  if (bResetClient) {
    Queue<ResetClientDataMsg>(static_cast<int64_t>(live.RowCount()));
    bResetClient = false;
  }

  // The variable stage may have marked the live source dirty in this same
  // Update; that counts too.
  bool const dirty = live.IsDirty();
  if (dirty != bDirtyAtStart) Queue<DataSetModifiedMsg>(dirty);
  view.SetDirty(dirty);
}

void SvrDMObserverView::Data::UpdateFileSpec(QUOR_DataSource& live) {
  char const* liveFileSpec = live.GetFileSpec();
  if (std::strcmp(liveFileSpec, view.GetFileSpec()) == 0) return;
  // A dataset added for a file that another dataset holds keeps that name
  // to itself: it is not announced, and the view keeps its old FileSpec, so
  // the same comparison recurs until the name moves on.
  if (pItem->sharedFileName == liveFileSpec) return;

  QUOR_DataSource const* root = &live;
  while (root->GetParentSource() != nullptr) root = root->GetParentSource();
  // Only a chain that rests on a data file has a file name to announce.
  if (dynamic_cast<SystemFileDataSource const*>(root) != nullptr) {
    std::string const fileSpec(liveFileSpec);
    Queue<FileSpecChangeMsg>(fileSpec.c_str(), true);
    pItem->FileName(fileSpec);
  }
  view.SetFileSpec(liveFileSpec);
}

// One filter change gives one message: ahead of the trends message when the
// filter is removed, behind it when a filter is set or replaced.
void SvrDMObserverView::Data::UpdateFilterAndTrends(QUOR_DataSource& live) {
  int const filterIndex = live.GetFilterVarIndex();
  LocallyUniqueID const filterID = live.GetFilterVariableID();
  bool const filterChanged = filterID != view.GetFilterVariableID();
  bool const filterRemoved = filterID == kNoVariable;
  if (filterChanged && filterRemoved) {
    Queue<FilterVarMsg>(filterID);
    view.SetFilterVar(filterIndex);
  }

  if (!(*view.GetTrendsInfo() == *live.GetTrendsInfo())) {
    Queue<TrendsInfoMsg>(live.GetTrendsInfo());
    *view.GetTrendsInfo() = *live.GetTrendsInfo();
  }

  if (filterChanged && !filterRemoved) {
    Queue<FilterVarMsg>(filterID);
    view.SetFilterVar(filterIndex);
  }
}

void SvrDMObserverView::Data::UpdateSplit(QUOR_DataSource& live, int nSplitAtStart) {
  constexpr int kMaxSplit = 8;
  bool changed = nSplitAtStart != view.GetNSplitVars() || nSplitAtStart != live.GetNSplitVars();
  if (!changed && nSplitAtStart > 0) {
    changed = view.GetSplitqSeparate() != live.GetSplitqSeparate();
    for (int i = 0; !changed && i < nSplitAtStart; ++i) {
      changed = live.GetSplitVarID(static_cast<unsigned>(i)) !=
                view.GetSplitVarID(static_cast<unsigned>(i));
    }
  }
  if (!changed) return;

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
  Queue<SplitFileMsg>(n, static_cast<LocallyUniqueID const*>(ids), separate);
  view.SetSplit(static_cast<unsigned>(n), positions, separate);
}

void SvrDMObserverView::Data::UpdateSetsAndExtensions(QUOR_DataSource& live) {
  std::vector<VariableSetImpl> liveMRSets = live.GetMRSets();
  if (!SameSets(liveMRSets, view.GetMRSets())) {
    view.SetMRSets(liveMRSets);
    std::vector<VariableSet> const sets = VariableSets(live, static_cast<VarSetsType>(1));
    // Clients read MR sets from two extensions; both go out.
    QueueSetExtension(static_cast<QUOR_DataSource::ExtensionType>(7), sets, *pItem);
    QueueSetExtension(static_cast<QUOR_DataSource::ExtensionType>(19), sets, *pItem);
  }

  std::vector<VariableSetImpl> liveVarSets = live.GetVariableSets();
  if (!SameSets(liveVarSets, view.GetVariableSets())) {
    view.SetVariableSets(liveVarSets);
    QueueSetExtension(static_cast<QUOR_DataSource::ExtensionType>(5),
                      VariableSets(live, static_cast<VarSetsType>(0)), *pItem);
  }

  QUOR_DataSource::Extension const viewExtension(view, 0);
  QUOR_DataSource::Extension const liveExtension(live, 0);
  if (!(viewExtension == liveExtension)) {
    Queue<ExtensionsMsg>(static_cast<RefCountPtr<QUOR_ExtensionImpl> const&>(liveExtension));
    view.SetExtension(liveExtension);
  }

  DatasourceAttributes const& attributes = live.GetAttributes();
  if (!(view.GetAttributes() == attributes)) {
    std::string const text = attributes.MakeString();
    RefCountPtr<QUOR_ExtensionImpl> extension(
        new QUOR_ExtensionImpl(17, 1, static_cast<long>(text.size()), text.data()));
    Queue<ExtensionsMsg>(extension);
    view.SetAttributes(attributes);
  }
}
