#include "clientcopy.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <iterator>
#include <map>
#include <sstream>
#include <unordered_set>

#include "datasource.h"
#include "failures.h"
#include "messages.h"
#include "svrdmitem.h"

namespace {

using ExtensionPtr = RefCountPtr<QUOR_ExtensionImpl>;

// The extension types a pass announces.
constexpr QUOR_DataSource::ExtensionType kAnnouncedTypes[] = {
    QUOR_DataSource::kExtensionRecord, QUOR_DataSource::kExtensionVariableSets,
    QUOR_DataSource::kExtensionMRSets, QUOR_DataSource::kExtensionAttributes,
    QUOR_DataSource::kExtensionMRSetsSecond};

// The record `source` gives under `type`, built as a pass builds the one it
// announces, so that a copy compares and seeds by the same bytes.
ExtensionPtr PayloadOf(QUOR_DataSource const& source, QUOR_DataSource::ExtensionType type) {
  std::string payload;
  switch (type) {
    case QUOR_DataSource::kExtensionRecord:
      return QUOR_DataSource::Extension(source, 0).Get();
    case QUOR_DataSource::kExtensionAttributes:
      payload = source.GetAttributes().MakeString();
      break;
    case QUOR_DataSource::kExtensionVariableSets:
      MakeExtension(VariableSets(source, kVariableSetsOfSource), payload, type);
      break;
    default:  // the MR sets, announced under two types
      MakeExtension(VariableSets(source, kMRSetsOfSource), payload, type);
  }
  return ExtensionPtr(
      new QUOR_ExtensionImpl(type, 1, static_cast<long>(payload.size()), payload.data()));
}

bool SamePayload(ExtensionPtr const& a, ExtensionPtr const& b) {
  if (!a.IsValid() || !b.IsValid()) return a.IsValid() == b.IsValid();
  return a->SameContent(*b);
}

// "InsertVarsMsg" for "DEMessages::InsertVarsMsg".
std::string ClassOf(DataSetMsg const& message) {
  char const* name = message.GetClassName();
  char const* colon = std::strrchr(name, ':');
  return colon != nullptr ? colon + 1 : name;
}

// A few variables from `from` on, as "[1:3 age, 1:4 income, ...]".
std::string VariablesFrom(QUOR_DataSource const& source, unsigned int from) {
  constexpr unsigned int kShown = 4;
  std::ostringstream out;
  out << '[';
  for (unsigned int i = from; i < source.ColumnCount() && i < from + kShown; ++i) {
    QUOR_Variable const& variable = source.GetVariable(static_cast<int>(i));
    out << (i != from ? ", " : "") << variable.GetID() << ' ' << variable.GetName();
  }
  out << (source.ColumnCount() > from + kShown ? ", ...]" : "]");
  return out.str();
}

std::vector<LocallyUniqueID> SplitOf(QUOR_DataSource const& source) {
  std::vector<LocallyUniqueID> ids;
  for (int i = 0; i < source.GetNSplitVars(); ++i) {
    ids.push_back(source.GetSplitVarID(static_cast<unsigned int>(i)));
  }
  return ids;
}

std::string Ids(std::vector<LocallyUniqueID> const& ids) {
  std::ostringstream out;
  out << '[';
  for (std::size_t i = 0; i < ids.size(); ++i) out << (i != 0 ? ", " : "") << ids[i];
  out << ']';
  return out.str();
}

std::string TextOf(char const* text) { return text != nullptr ? text : ""; }

// Why a message cannot apply, as one phrase.
template <typename... Parts>
std::string Because(Parts const&... parts) {
  std::ostringstream out;
  (out << ... << parts);
  return out.str();
}

}  // namespace

struct SvrDMClientCopy::Data {
  Data() {
    dictionary.SetDirty(false);
    for (auto type : kAnnouncedTypes) extensions[type] = PayloadOf(dictionary, type);
  }

  // Applies `message`, or returns why it cannot apply and changes nothing.
  std::string Read(DataSetMsg const& message);
  std::string ReadVariables(DataSetMsg const& message, bool* known);
  std::string ReadRoles(DataSetMsg const& message, bool* known);
  void ReadProperties(DataSetMsg const& message);
  // The position of the variable `id` for a role, -1 for none; false with
  // the reason in `why` when the copy holds no such variable.
  bool RolePosition(LocallyUniqueID id, char const* role, int* position, std::string* why) const;
  // Records the refusal and returns it.
  std::string const& Refuse(std::string const& where, DataSetMsg const& message,
                            std::string const& why);
  std::string OutOfStep() const {
    return "the copy is out of step since " + refusal + "; seed it again";
  }

  // The dictionary as the messages have made it: roles by identifier, as
  // a data source holds them, so a role whose variable leaves and comes back
  // behaves here as it does in the sources.
  DataFreeDataSource dictionary;
  std::map<int, ExtensionPtr> extensions;
  int64_t rowCount = -1;
  LocallyUniqueID dataSetID;
  uint32_t caseSequence = 0;
  // Compared by address only, never read: the messages a seed found queued.
  std::vector<DataSetMsg const*> seededQueue;
  std::string refusal;
};

SvrDMClientCopy::SvrDMClientCopy() : data_(new Data()) {}

SvrDMClientCopy::~SvrDMClientCopy() = default;

void SvrDMClientCopy::Seed(SvrDMItem const& item) {
  Data& d = *data_;
  QUOR_DataSource const& snapshot = item.observerView.Snapshot();
  // The whole dictionary, not piece by piece: a role whose variable is gone
  // reads as none, yet the snapshot keeps its identifier for the variable's
  // return, and only a copy of the dictionary carries that over.
  d.dictionary.CopyDictionary(snapshot);
  d.extensions.clear();
  for (auto type : kAnnouncedTypes) d.extensions[type] = PayloadOf(snapshot, type);
  // Held as payloads, or never announced: what a copy fed by messages lacks.
  DataFreeDataSource const none;
  d.dictionary.SetMRSets({});
  d.dictionary.SetVariableSets({});
  d.dictionary.SetAttributes(DatasourceAttributes());
  d.dictionary.SetExtension(QUOR_DataSource::Extension(none, 0));
  d.dictionary.RowsPerImputation(0);
  // The snapshot takes the file path of a source that rests on no data file
  // without announcing it; a copy that watched from the start holds none.
  QUOR_DataSource const* root = item.dataSource;
  while (root != nullptr && root->GetParentSource() != nullptr) root = root->GetParentSource();
  if (dynamic_cast<SystemFileDataSource const*>(root) == nullptr) d.dictionary.SetFileSpec("");

  d.rowCount = std::max<int64_t>(item.observerView.RowCountSeen(), -1);
  d.dataSetID = item.dataSetID;
  d.caseSequence = item.caseSequence;
  // A pass that failed left its messages queued for the next pass, which
  // delivers them first; the snapshot has their changes already.
  d.seededQueue.assign(item.notifications.begin(), item.notifications.end());
  d.refusal.clear();
}

std::string SvrDMClientCopy::Apply(std::vector<DataSetMsg*> const& queue) {
  Data& d = *data_;
  std::size_t first = 0;
  if (!d.seededQueue.empty()) {
    // Only the whole run, in order: a queue that was emptied by hand since
    // the seed starts with new messages, whatever their addresses.
    if (queue.size() >= d.seededQueue.size() &&
        std::equal(d.seededQueue.begin(), d.seededQueue.end(), queue.begin())) {
      first = d.seededQueue.size();
    }
    d.seededQueue.clear();
  }
  if (!d.refusal.empty()) return d.OutOfStep();
  for (std::size_t i = first; i < queue.size(); ++i) {
    if (queue[i] == nullptr) continue;
    std::string const why = d.Read(*queue[i]);
    if (!why.empty()) {
      return d.Refuse(Because("message ", i + 1, " of ", queue.size(), ", "), *queue[i], why);
    }
  }
  return std::string();
}

std::string SvrDMClientCopy::Apply(DataSetMsg const& message) {
  Data& d = *data_;
  if (!d.refusal.empty()) return d.OutOfStep();
  std::string const why = d.Read(message);
  return why.empty() ? why : d.Refuse(std::string(), message, why);
}

std::string const& SvrDMClientCopy::Data::Refuse(std::string const& where,
                                                 DataSetMsg const& message,
                                                 std::string const& why) {
  refusal = where + ClassOf(message) + ": " + why;
  return refusal;
}

std::string SvrDMClientCopy::Data::Read(DataSetMsg const& message) {
  // ImputationInfoMsg and ResetUndoMsg carry no dataset; the others must
  // carry this copy's.
  LocallyUniqueID const id = message.GetDataSetID();
  if (!id.IsNone() && !dataSetID.IsNone() && id != dataSetID) {
    return Because("it is for dataset ", id, ", the copy is of dataset ", dataSetID);
  }
  bool known = false;
  std::string why = ReadVariables(message, &known);
  if (!known) why = ReadRoles(message, &known);
  if (!known) ReadProperties(message);
  if (why.empty() && !id.IsNone()) {
    dataSetID = id;
    caseSequence = message.GetCaseSequence();
  }
  return why;
}

// Each message is checked whole before anything changes, so a refused one
// leaves the copy as it was. Positions count in the list that the messages
// before have produced.
std::string SvrDMClientCopy::Data::ReadVariables(DataSetMsg const& message, bool* known) {
  *known = true;
  unsigned int const count = dictionary.ColumnCount();
  if (auto const* m = dynamic_cast<InsertVarsMsg const*>(&message)) {
    LocallyUniqueID const before = m->GetBeforeID();
    int const at = before.IsNone() ? static_cast<int>(count) : dictionary.FindVarIndex(before);
    if (at < 0) return Because("it inserts before ", before, ", which the copy does not hold");
    std::unordered_set<uint32_t> inserted;
    for (QUOR_Variable const& variable : m->GetVariables()) {
      if (dictionary.FindVarIndex(variable.GetID()) >= 0 ||
          !inserted.insert(variable.GetID().ToWord()).second) {
        return Because("it inserts ", variable.GetID(), ", which the copy holds already");
      }
    }
    long position = at;
    for (QUOR_Variable const& variable : m->GetVariables()) {
      dictionary.InsertVariable(position++, variable);
    }
  } else if (auto const* m = dynamic_cast<DeleteVarsMsg const*>(&message)) {
    std::vector<int> positions;
    for (QUOR_Variable const& variable : m->GetVariables()) {
      positions.push_back(dictionary.FindVarIndex(variable.GetID()));
      if (positions.back() < 0) {
        return Because("it deletes ", variable.GetID(), ", which the copy does not hold");
      }
    }
    // From the back, so that the positions still to go stay where they were.
    std::sort(positions.begin(), positions.end(), std::greater<int>());
    auto twice = std::adjacent_find(positions.begin(), positions.end());
    if (twice != positions.end()) {
      return Because("it deletes ", dictionary.GetVariable(*twice).GetID(), " twice");
    }
    for (int position : positions) dictionary.DeleteVariables(position, position);
  } else if (auto const* m = dynamic_cast<MoveVarsMsg const*>(&message)) {
    if (m->GetIndices().size() != 1) {
      return Because("it moves ", m->GetIndices().size(), " positions; a move carries one");
    }
    unsigned int const from = m->GetIndices()[0];
    unsigned int const to = m->GetTarget();
    if (from >= count) {
      return Because("position ", from, " is outside a list of ", count, " variables");
    }
    if (to >= from) return Because("target ", to, " is not below position ", from);
    QUOR_Variable const moved = dictionary.GetVariable(static_cast<int>(from));
    dictionary.DeleteVariables(static_cast<int>(from), static_cast<int>(from));
    dictionary.InsertVariable(to, moved);
  } else if (auto const* m = dynamic_cast<ModifyVarMsg const*>(&message)) {
    int const at = dictionary.FindVarIndex(m->GetVariable().GetID());
    if (at < 0) {
      return Because("it modifies ", m->GetVariable().GetID(), ", which the copy does not hold");
    }
    dictionary.GetVariable(at) = m->GetVariable();
  } else {
    *known = false;
  }
  return std::string();
}

bool SvrDMClientCopy::Data::RolePosition(LocallyUniqueID id, char const* role, int* position,
                                         std::string* why) const {
  *position = id.IsNone() ? -1 : dictionary.FindVarIndex(id);
  if (*position >= 0 || id.IsNone()) return true;
  *why = Because("the ", role, " ", id, " is a variable the copy does not hold");
  return false;
}

// A role names a variable the list holds at that point of the queue, or
// none; the dictionary keeps it by identifier from there on.
std::string SvrDMClientCopy::Data::ReadRoles(DataSetMsg const& message, bool* known) {
  *known = true;
  std::string why;
  int position = -1;
  if (auto const* m = dynamic_cast<WeightVarMsg const*>(&message)) {
    if (RolePosition(m->GetWeightID(), "weight", &position, &why)) {
      dictionary.SetWeightVar(position);
    }
  } else if (auto const* m = dynamic_cast<FilterVarMsg const*>(&message)) {
    if (RolePosition(m->GetFilterID(), "filter", &position, &why)) {
      dictionary.SetFilterVar(position);
    }
  } else if (auto const* m = dynamic_cast<SplitFileMsg const*>(&message)) {
    std::vector<int> positions;
    for (LocallyUniqueID id : m->GetSplitIDs()) {
      if (id.IsNone()) return "it names no variable for a split";
      if (!RolePosition(id, "split variable", &position, &why)) return why;
      positions.push_back(position);
    }
    dictionary.SetSplit(static_cast<unsigned int>(positions.size()), positions.data(),
                        m->GetSeparate());
  } else {
    *known = false;
  }
  return why;
}

// These cannot fail: each replaces one piece outright.
void SvrDMClientCopy::Data::ReadProperties(DataSetMsg const& message) {
  if (auto const* m = dynamic_cast<FileLabelChangeMsg const*>(&message)) {
    dictionary.SetLabel(m->GetLabel().empty() ? nullptr : m->GetLabel().c_str());
  } else if (auto const* m = dynamic_cast<FileSpecChangeMsg const*>(&message)) {
    dictionary.SetFileSpec(m->GetFileSpec().c_str());
  } else if (auto const* m = dynamic_cast<TrendsInfoMsg const*>(&message)) {
    *dictionary.GetTrendsInfo() = m->GetTrendsInfo();
  } else if (auto const* m = dynamic_cast<ExtensionsMsg const*>(&message)) {
    // Only record 0 can arrive empty: the source has none any more.
    ExtensionPtr const& extension = m->GetExtension();
    extensions[extension.IsValid() ? extension->GetType() : QUOR_DataSource::kExtensionRecord] =
        extension;
  } else if (auto const* m = dynamic_cast<ResetClientDataMsg const*>(&message)) {
    rowCount = m->GetRowCount();
  } else if (auto const* m = dynamic_cast<DataSetModifiedMsg const*>(&message)) {
    dictionary.SetDirty(m->GetDirty());
  }
  // ImputationInfoMsg announces only a drop to 0, so a copy cannot keep the
  // value; ResetUndoMsg changes no dictionary; a message of a class not
  // named here is a procedure's own and passes.
}

std::string SvrDMClientCopy::Differences(QUOR_DataSource const& live, bool compareFileSpec) const {
  Data const& d = *data_;
  QUOR_DataSource const& copy = d.dictionary;
  std::ostringstream out;
  out << std::boolalpha;
  char const* separator = "";
  auto clause = [&out, &separator]() -> std::ostream& {
    out << separator;
    separator = "; ";
    return out;
  };
  unsigned int at = 0;
  while (at < copy.ColumnCount() && at < live.ColumnCount() &&
         copy.GetVariable(static_cast<int>(at)) == live.GetVariable(static_cast<int>(at))) {
    ++at;
  }
  if (at < copy.ColumnCount() || at < live.ColumnCount()) {
    clause() << "variables from position " << at << ": copy " << VariablesFrom(copy, at)
             << ", live " << VariablesFrom(live, at);
  }
  if (copy.GetWeightVariableID() != live.GetWeightVariableID()) {
    clause() << "weight: copy " << copy.GetWeightVariableID() << ", live "
             << live.GetWeightVariableID();
  }
  if (copy.GetFilterVariableID() != live.GetFilterVariableID()) {
    clause() << "filter: copy " << copy.GetFilterVariableID() << ", live "
             << live.GetFilterVariableID();
  }
  std::vector<LocallyUniqueID> const split = SplitOf(live);
  if (SplitOf(copy) != split) {
    clause() << "split: copy " << Ids(SplitOf(copy)) << ", live " << Ids(split);
  } else if (!split.empty() && copy.GetSplitqSeparate() != live.GetSplitqSeparate()) {
    // Without split variables the flag means nothing and is not announced.
    clause() << "separate flag: copy " << copy.GetSplitqSeparate() << ", live "
             << live.GetSplitqSeparate();
  }
  if (TextOf(copy.GetLabel()) != TextOf(live.GetLabel())) {
    clause() << "label: copy \"" << TextOf(copy.GetLabel()) << "\", live \""
             << TextOf(live.GetLabel()) << "\"";
  }
  if (compareFileSpec && std::strcmp(copy.GetFileSpec(), live.GetFileSpec()) != 0) {
    clause() << "file path: copy \"" << copy.GetFileSpec() << "\", live \"" << live.GetFileSpec()
             << "\"";
  }
  if (*copy.GetTrendsInfo() != *live.GetTrendsInfo()) {
    clause() << "trends: copy \"" << copy.GetTrendsInfo()->GetText() << "\", live \""
             << live.GetTrendsInfo()->GetText() << "\"";
  }
  if (copy.IsDirty() != live.IsDirty()) {
    clause() << "dirty flag: copy " << copy.IsDirty() << ", live " << live.IsDirty();
  }
  if (d.rowCount != live.RowCount()) {
    clause() << "row count: copy " << d.rowCount << ", live " << live.RowCount();
  }
  for (auto type : kAnnouncedTypes) {
    if (!SamePayload(Extension(type), PayloadOf(live, type))) {
      clause() << "extension " << static_cast<int>(type) << " differs";
    }
  }
  return out.str();
}

QUOR_DataSource const& SvrDMClientCopy::Dictionary() const { return data_->dictionary; }

RefCountPtr<QUOR_ExtensionImpl> SvrDMClientCopy::Extension(int type) const {
  auto found = data_->extensions.find(type);
  return found != data_->extensions.end() ? found->second : ExtensionPtr();
}

int64_t SvrDMClientCopy::RowCount() const { return data_->rowCount; }

LocallyUniqueID SvrDMClientCopy::DataSetID() const { return data_->dataSetID; }

uint32_t SvrDMClientCopy::CaseSequence() const { return data_->caseSequence; }

std::string const& SvrDMClientCopy::Refusal() const { return data_->refusal; }
