#include "support/watcher_model.h"

#include <algorithm>
#include <iterator>
#include <sstream>

namespace {

std::string Name(LocallyUniqueID id) {
  if (id.IsNone()) return "none";
  if (id.group == 0 && id.serial >= 1 && id.serial <= 26)
    return std::string(1, static_cast<char>('A' + id.serial - 1));
  return "#" + std::to_string(id.ToWord());
}

std::string Names(std::vector<QUOR_Variable> const& list) {
  std::string out;
  for (QUOR_Variable const& v : list) out += (out.empty() ? "" : ",") + Name(v.GetID());
  return "[" + out + "]";
}

int Find(std::vector<QUOR_Variable> const& list, LocallyUniqueID id) {
  auto at = std::find_if(list.begin(), list.end(),
                         [id](QUOR_Variable const& v) { return v.GetID() == id; });
  return at == list.end() ? -1 : static_cast<int>(at - list.begin());
}

std::string Payload(RefCountPtr<QUOR_ExtensionImpl> const& extension) {
  if (!extension.IsValid()) return "(none)";
  unsigned char const* data = extension->GetData();
  return std::string(data, data + extension->GetLength());
}

// The payload a source would announce for extension `type`: 0 the record,
// 5 the variable sets, 7 and 19 the MR sets, 17 the attributes.
std::string ExtensionOf(QUOR_DataSource& source, int type) {
  if (type == 0) return Payload(QUOR_DataSource::Extension(source, 0).Get());
  if (type == 17) return source.GetAttributes().MakeString();
  std::string payload;
  MakeExtension(VariableSets(source, static_cast<VarSetsType>(type == 5 ? 0 : 1)), payload,
                static_cast<QUOR_DataSource::ExtensionType>(type));
  return payload;
}

}  // namespace

bool WatcherModel::Apply(std::vector<DataSetMsg*> const& queue, std::string* error) {
  std::ostringstream ignored;
  for (DataSetMsg const* message : queue) {
    *error = message != nullptr ? Read(*message, ignored) : "";
    if (!error->empty()) return false;
  }
  return true;
}

std::string WatcherModel::Read(DataSetMsg const& message, std::ostream& line) {
  if (auto const* m = dynamic_cast<DeleteVarsMsg const*>(&message)) {
    line << "Delete " << Names(m->GetVariables());
    for (QUOR_Variable const& variable : m->GetVariables()) {
      int at = Find(variables, variable.GetID());
      if (at < 0) return "delete of unknown " + Name(variable.GetID());
      variables.erase(variables.begin() + at);
    }
  } else if (auto const* m = dynamic_cast<InsertVarsMsg const*>(&message)) {
    line << "Insert " << Names(m->GetVariables()) << " before " << Name(m->GetBeforeID());
    int at = m->GetBeforeID().IsNone() ? static_cast<int>(variables.size())
                                       : Find(variables, m->GetBeforeID());
    if (at < 0) return "insert before unknown " + Name(m->GetBeforeID());
    variables.insert(variables.begin() + at, m->GetVariables().begin(), m->GetVariables().end());
  } else if (auto const* m = dynamic_cast<MoveVarsMsg const*>(&message)) {
    std::size_t const from = m->GetIndices().at(0);
    std::size_t const to = m->GetTarget();
    line << "Move " << from << " -> " << to;
    if (m->GetIndices().size() != 1 || from >= variables.size() || to >= from) return "bad move";
    std::rotate(variables.begin() + to, variables.begin() + from, variables.begin() + from + 1);
  } else if (auto const* m = dynamic_cast<ModifyVarMsg const*>(&message)) {
    line << "Modify " << Name(m->GetVariable().GetID());
    int at = Find(variables, m->GetVariable().GetID());
    if (at < 0) return "modify of unknown " + Name(m->GetVariable().GetID());
    variables[static_cast<std::size_t>(at)] = m->GetVariable();
  } else if (auto const* m = dynamic_cast<WeightVarMsg const*>(&message)) {
    line << "Weight " << Name(weight = m->GetWeightID());
  } else if (auto const* m = dynamic_cast<FilterVarMsg const*>(&message)) {
    line << "Filter " << Name(filter = m->GetFilterID());
  } else if (auto const* m = dynamic_cast<SplitFileMsg const*>(&message)) {
    line << "Split " << m->GetSplitCount() << ((separate = m->GetSeparate()) ? " separate" : "");
    for (LocallyUniqueID id : split = m->GetSplitIDs()) line << " " << Name(id);
  } else if (auto const* m = dynamic_cast<FileLabelChangeMsg const*>(&message)) {
    line << "Label '" << (label = m->GetLabel()) << "'";
  } else if (auto const* m = dynamic_cast<FileSpecChangeMsg const*>(&message)) {
    line << "FileSpec '" << (fileSpec = m->GetFileSpec()) << "'";
  } else if (auto const* m = dynamic_cast<ExtensionsMsg const*>(&message)) {
    if (!m->GetExtension().IsValid()) {
      // Only record 0 can arrive empty: the live source has none any more.
      line << "Extension 0 removed";
      extensions.erase(0);
    } else {
      line << "Extension " << m->GetExtension()->GetType();
      extensions[m->GetExtension()->GetType()] = Payload(m->GetExtension());
    }
  } else if (auto const* m = dynamic_cast<TrendsInfoMsg const*>(&message)) {
    line << "Trends";
    trends = m->GetTrendsInfo();
  } else if (auto const* m = dynamic_cast<ImputationInfoMsg const*>(&message)) {
    line << "Imputation " << m->rowsPerImputation;  // nothing the model keeps
  } else if (auto const* m = dynamic_cast<ResetClientDataMsg const*>(&message)) {
    line << "ResetClient " << (rowCount = m->GetRowCount());
  } else if (auto const* m = dynamic_cast<DataSetModifiedMsg const*>(&message)) {
    line << "Modified " << ((dirty = m->GetDirty()) ? "true" : "false");
  } else if (dynamic_cast<ResetUndoMsg const*>(&message) != nullptr) {
    line << "ResetUndo";  // nothing the model keeps
  } else {
    line << "?";
  }
  return "";
}

bool WatcherModel::Matches(QUOR_DataSource& live, std::string* error, bool checkFileSpec) const {
  std::ostringstream why;
  std::vector<QUOR_Variable> liveVariables;
  for (int i = 0; i < static_cast<int>(live.ColumnCount()); ++i)
    liveVariables.push_back(live.GetVariable(i));
  if (!(variables == liveVariables))
    why << "variables: model " << Names(variables) << ", live " << Names(liveVariables);
  // Like a data source, a client reads a role whose variable is gone as
  // unset, and keeps it for the variable's return.
  auto present = [this](LocallyUniqueID id) {
    return Find(variables, id) >= 0 ? id : LocallyUniqueID();
  };
  std::vector<LocallyUniqueID> modelSplit, liveSplit;
  std::copy_if(split.begin(), split.end(), std::back_inserter(modelSplit),
               [&present](LocallyUniqueID id) { return !present(id).IsNone(); });
  for (int i = 0; i < live.GetNSplitVars(); ++i) liveSplit.push_back(live.GetSplitVarID(i));
  char const* liveLabel = live.GetLabel();
  if (present(weight) != live.GetWeightVariableID()) why << "; weight differs";
  if (present(filter) != live.GetFilterVariableID()) why << "; filter differs";
  if (modelSplit != liveSplit) why << "; split differs";
  if (!liveSplit.empty() && separate != live.GetSplitqSeparate()) why << "; separate flag differs";
  if (label != (liveLabel != nullptr ? liveLabel : "")) why << "; label differs";
  if (checkFileSpec && fileSpec != live.GetFileSpec()) why << "; fileSpec differs";
  if (dirty != live.IsDirty()) why << "; dirty flag differs";
  if (rowCount != live.RowCount()) why << "; row count differs";
  if (!(trends == *live.GetTrendsInfo())) why << "; trends differ";
  // An extension never announced must still be as a new source has it.
  QUOR_DataSource fresh(nullptr);
  for (int type : {0, 5, 7, 17, 19}) {
    auto seen = extensions.find(type);
    if ((seen != extensions.end() ? seen->second : ExtensionOf(fresh, type)) !=
        ExtensionOf(live, type)) {
      why << "; extension " << type << (seen != extensions.end() ? " differs" : " never announced");
    }
  }
  *error = why.str();
  return error->empty();
}

std::vector<std::string> DescribeQueue(std::vector<DataSetMsg*> const& queue) {
  // A model of its own, so that each message is read as Apply reads it.
  WatcherModel scratch;
  std::vector<std::string> lines;
  for (DataSetMsg const* message : queue) {
    std::ostringstream line;
    if (message != nullptr) scratch.Read(*message, line);
    lines.push_back(line.str());
  }
  return lines;
}
