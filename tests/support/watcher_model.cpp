#include "support/watcher_model.h"

#include <sstream>

namespace {

std::string Names(std::vector<QUOR_Variable> const& list) {
  std::string out = "[";
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (i > 0) out += ",";
    out += VariableName(list[i].GetID());
  }
  return out + "]";
}

std::string Payload(RefCountPtr<QUOR_ExtensionImpl> const& extension) {
  unsigned char const* data = extension->GetData();
  return std::string(data, data + extension->GetLength());
}

}  // namespace

std::string VariableName(LocallyUniqueID id) {
  if (id.IsNone()) return "none";
  if (id.group == 0 && id.serial >= 1 && id.serial <= 26) return std::string(1, static_cast<char>('A' + id.serial - 1));
  return "#" + std::to_string(id.ToWord());
}

int WatcherModel::Find(LocallyUniqueID id) const {
  for (std::size_t i = 0; i < variables.size(); ++i) {
    if (variables[i].GetID() == id) return static_cast<int>(i);
  }
  return -1;
}

bool WatcherModel::Apply(std::vector<DataSetMsg*> const& queue, std::string* error) {
  for (std::size_t i = 0; i < queue.size(); ++i) {
    if (queue[i] == nullptr) continue;
    if (!ApplyOne(*queue[i], error)) {
      *error = "message " + std::to_string(i) + ": " + *error;
      return false;
    }
  }
  return true;
}

bool WatcherModel::ApplyOne(DataSetMsg const& message, std::string* error) {
  if (auto const* m = dynamic_cast<DeleteVarsMsg const*>(&message)) {
    for (QUOR_Variable const& variable : m->GetVariables()) {
      int at = Find(variable.GetID());
      if (at < 0) {
        *error = "delete of unknown " + VariableName(variable.GetID());
        return false;
      }
      variables.erase(variables.begin() + at);
    }
  } else if (auto const* m = dynamic_cast<InsertVarsMsg const*>(&message)) {
    int at = static_cast<int>(variables.size());
    if (!m->GetBeforeID().IsNone()) {
      at = Find(m->GetBeforeID());
      if (at < 0) {
        *error = "insert before unknown " + VariableName(m->GetBeforeID());
        return false;
      }
    }
    for (QUOR_Variable const& variable : m->GetVariables()) {
      if (Find(variable.GetID()) >= 0) {
        *error = "insert of " + VariableName(variable.GetID()) + " twice";
        return false;
      }
    }
    variables.insert(variables.begin() + at, m->GetVariables().begin(), m->GetVariables().end());
  } else if (auto const* m = dynamic_cast<MoveVarsMsg const*>(&message)) {
    if (m->GetIndices().size() != 1 || m->GetIndices()[0] >= variables.size() ||
        m->GetTarget() >= m->GetIndices()[0]) {
      *error = "move with bad positions";
      return false;
    }
    QUOR_Variable moved = variables[m->GetIndices()[0]];
    variables.erase(variables.begin() + m->GetIndices()[0]);
    variables.insert(variables.begin() + m->GetTarget(), moved);
  } else if (auto const* m = dynamic_cast<ModifyVarMsg const*>(&message)) {
    int at = Find(m->GetVariable().GetID());
    if (at < 0) {
      *error = "modify of unknown " + VariableName(m->GetVariable().GetID());
      return false;
    }
    variables[static_cast<std::size_t>(at)] = m->GetVariable();
  } else if (auto const* m = dynamic_cast<WeightVarMsg const*>(&message)) {
    weight = m->GetWeightID();
  } else if (auto const* m = dynamic_cast<FilterVarMsg const*>(&message)) {
    filter = m->GetFilterID();
  } else if (auto const* m = dynamic_cast<SplitFileMsg const*>(&message)) {
    split = m->GetSplitIDs();
    separate = m->GetSeparate();
  } else if (auto const* m = dynamic_cast<FileLabelChangeMsg const*>(&message)) {
    label = m->GetLabel();
  } else if (auto const* m = dynamic_cast<FileSpecChangeMsg const*>(&message)) {
    fileSpec = m->GetFileSpec();
  } else if (auto const* m = dynamic_cast<ExtensionsMsg const*>(&message)) {
    // Only record 0 can arrive empty: the live source has none any more,
    // as after its data source was swapped for one without.
    if (!m->GetExtension().IsValid()) {
      extensions.erase(0);
    } else {
      extensions[m->GetExtension()->GetType()] = Payload(m->GetExtension());
    }
  } else if (auto const* m = dynamic_cast<TrendsInfoMsg const*>(&message)) {
    trends = m->GetTrendsInfo();
  } else if (auto const* m = dynamic_cast<ResetClientDataMsg const*>(&message)) {
    rowCount = m->GetRowCount();
  } else if (auto const* m = dynamic_cast<DataSetModifiedMsg const*>(&message)) {
    dirty = m->GetDirty();
  }
  // ImputationInfoMsg and ResetUndoMsg carry nothing the model keeps.
  return true;
}

bool WatcherModel::Matches(QUOR_DataSource& live, std::string* error, bool checkFileSpec) const {
  std::ostringstream why;
  if (variables.size() != live.ColumnCount()) {
    why << "model has " << variables.size() << " variables, live " << live.ColumnCount();
  } else {
    for (std::size_t i = 0; i < variables.size(); ++i) {
      if (!(variables[i] == live.GetVariable(static_cast<int>(i)))) {
        why << "variable " << i << ": model " << VariableName(variables[i].GetID()) << " '"
            << variables[i].GetName() << "', live " << VariableName(live.GetVariable(static_cast<int>(i)).GetID())
            << " '" << live.GetVariable(static_cast<int>(i)).GetName() << "'";
        break;
      }
    }
  }
  std::vector<LocallyUniqueID> liveSplit;
  for (int i = 0; i < live.GetNSplitVars(); ++i) liveSplit.push_back(live.GetSplitVarID(static_cast<unsigned>(i)));
  char const* liveLabel = live.GetLabel();
  auto extensionOf = [&live](int type) {
    std::string payload;
    if (type == 17) return live.GetAttributes().MakeString();
    MakeExtension(VariableSets(live, static_cast<VarSetsType>(type == 5 ? 0 : 1)), payload,
                  static_cast<QUOR_DataSource::ExtensionType>(type));
    return payload;
  };

  // Like a data source, a client reads a role whose variable is gone as
  // unset, and keeps it for the variable's return.
  auto present = [this](LocallyUniqueID id) { return Find(id) >= 0 ? id : LocallyUniqueID(); };
  std::vector<LocallyUniqueID> effectiveSplit;
  for (LocallyUniqueID id : split) {
    if (Find(id) >= 0) effectiveSplit.push_back(id);
  }
  if (present(weight) != live.GetWeightVariableID()) why << "; weight differs";
  if (present(filter) != live.GetFilterVariableID()) why << "; filter differs";
  if (effectiveSplit != liveSplit) why << "; split differs";
  if (!liveSplit.empty() && separate != live.GetSplitqSeparate()) why << "; separate flag differs";
  if (label != (liveLabel != nullptr ? liveLabel : "")) why << "; label differs";
  if (checkFileSpec && fileSpec != live.GetFileSpec()) why << "; file spec differs";
  if (dirty != live.IsDirty()) why << "; dirty flag differs";
  if (rowCount != live.RowCount()) why << "; row count differs";
  if (!(trends == *live.GetTrendsInfo())) why << "; trends differ";
  QUOR_DataSource::Extension const liveRecord(live, 0);
  RefCountPtr<QUOR_ExtensionImpl> const& record = liveRecord.Get();
  auto recordSeen = extensions.find(0);
  if (recordSeen != extensions.end()) {
    if (!record.IsValid() || recordSeen->second != Payload(record)) why << "; extension 0 differs";
  } else if (record.IsValid()) {
    why << "; extension 0 never announced";
  }

  // A set extension never announced must still be in its starting state.
  for (int type : {5, 7, 17, 19}) {
    auto found = extensions.find(type);
    if (found != extensions.end()) {
      if (found->second != extensionOf(type)) why << "; extension " << type << " differs";
      continue;
    }
    bool const untouched = type == 5    ? live.GetVariableSets().empty()
                           : type == 17 ? live.GetAttributes() == DatasourceAttributes()
                                        : live.GetMRSets().empty();
    if (!untouched) why << "; extension " << type << " never announced";
  }
  *error = why.str();
  return error->empty();
}

std::vector<std::string> DescribeQueue(std::vector<DataSetMsg*> const& queue) {
  std::vector<std::string> lines;
  for (DataSetMsg const* message : queue) {
    std::ostringstream line;
    if (auto const* m = dynamic_cast<DeleteVarsMsg const*>(message)) {
      line << "Delete " << Names(m->GetVariables());
    } else if (auto const* m = dynamic_cast<InsertVarsMsg const*>(message)) {
      line << "Insert " << Names(m->GetVariables()) << " before " << VariableName(m->GetBeforeID());
    } else if (auto const* m = dynamic_cast<MoveVarsMsg const*>(message)) {
      line << "Move " << m->GetIndices().at(0) << " -> " << m->GetTarget();
    } else if (auto const* m = dynamic_cast<ModifyVarMsg const*>(message)) {
      line << "Modify " << VariableName(m->GetVariable().GetID());
    } else if (auto const* m = dynamic_cast<WeightVarMsg const*>(message)) {
      line << "Weight " << VariableName(m->GetWeightID());
    } else if (auto const* m = dynamic_cast<FilterVarMsg const*>(message)) {
      line << "Filter " << VariableName(m->GetFilterID());
    } else if (auto const* m = dynamic_cast<SplitFileMsg const*>(message)) {
      line << "Split " << m->GetSplitCount() << (m->GetSeparate() ? " separate" : "");
      for (LocallyUniqueID id : m->GetSplitIDs()) line << " " << VariableName(id);
    } else if (auto const* m = dynamic_cast<FileLabelChangeMsg const*>(message)) {
      line << "Label '" << m->GetLabel() << "'";
    } else if (auto const* m = dynamic_cast<FileSpecChangeMsg const*>(message)) {
      line << "FileSpec '" << m->GetFileSpec() << "'";
    } else if (auto const* m = dynamic_cast<ExtensionsMsg const*>(message)) {
      if (m->GetExtension().IsValid()) {
        line << "Extension " << m->GetExtension()->GetType();
      } else {
        line << "Extension 0 removed";
      }
    } else if (dynamic_cast<TrendsInfoMsg const*>(message) != nullptr) {
      line << "Trends";
    } else if (auto const* m = dynamic_cast<ImputationInfoMsg const*>(message)) {
      line << "Imputation " << m->rowsPerImputation;
    } else if (auto const* m = dynamic_cast<ResetClientDataMsg const*>(message)) {
      line << "ResetClient " << m->GetRowCount();
    } else if (auto const* m = dynamic_cast<DataSetModifiedMsg const*>(message)) {
      line << "Modified " << (m->GetDirty() ? "true" : "false");
    } else if (dynamic_cast<ResetUndoMsg const*>(message) != nullptr) {
      line << "ResetUndo";
    } else {
      line << "?";
    }
    lines.push_back(line.str());
  }
  return lines;
}
