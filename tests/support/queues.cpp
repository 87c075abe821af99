#include "support/queues.h"

#include <algorithm>
#include <sstream>

namespace {

std::string Line(DataSetMsg const& message) {
  std::ostringstream out;
  out << message;
  return out.str();
}

bool IsVariableMessage(DataSetMsg const& message) {
  std::string const name = message.GetClassName();
  return name.find("VarsMsg") != std::string::npos ||
         name.find("ModifyVarMsg") != std::string::npos;
}

}  // namespace

std::vector<std::string> DescribeQueue(std::vector<DataSetMsg*> const& queue) {
  std::vector<std::string> lines;
  for (DataSetMsg const* message : queue) {
    std::string const name = message->GetClassName();
    lines.push_back(name.substr(name.rfind(':') + 1));
    if (auto const* m = dynamic_cast<ExtensionsMsg const*>(message))
      lines.back() += m->GetExtension().IsValid()
                          ? " " + std::to_string(m->GetExtension()->GetType())
                          : " removed";
  }
  return lines;
}

std::vector<std::string> LiteralVariableStage(std::vector<QUOR_Variable> view,
                                              std::vector<QUOR_Variable> const& live, bool bulk,
                                              LocallyUniqueID dataSet, uint32_t caseSequence) {
  std::vector<std::string> lines;
  auto queue = [&](DataSetMsg* message) {
    lines.push_back(Line(*message));
    delete message;
  };
  if (bulk) {
    queue(new DeleteVarsMsg(0, dataSet, caseSequence, view));
    std::vector<QUOR_Variable> all = live;
    queue(new InsertVarsMsg(0, dataSet, caseSequence, all, LocallyUniqueID()));
    return lines;
  }
  auto isLive = [&](LocallyUniqueID id) {
    return std::any_of(live.begin(), live.end(),
                       [id](QUOR_Variable const& v) { return v.GetID() == id; });
  };
  std::size_t const nLive = live.size();
  for (std::size_t iNew = 0; iNew < nLive; ++iNew) {
    QUOR_Variable const& liveVar = live[iNew];
    std::size_t iOld = iNew;
    while (iOld < view.size() && view[iOld].GetID() != liveVar.GetID()) ++iOld;
    if (iOld == view.size()) {
      LocallyUniqueID const before = view.size() > iNew ? view[iNew].GetID() : LocallyUniqueID();
      std::vector<QUOR_Variable> one(1, liveVar);
      queue(new InsertVarsMsg(0, dataSet, caseSequence, one, before));
      view.insert(view.begin() + static_cast<std::ptrdiff_t>(iNew), liveVar);
    } else if (iOld > iNew) {
      std::vector<QUOR_Variable> deleted;
      for (std::size_t j = iNew; j < iOld;) {
        if (isLive(view[j].GetID())) {
          ++j;
        } else {
          deleted.push_back(view[j]);
          view.erase(view.begin() + static_cast<std::ptrdiff_t>(j));
          --iOld;
        }
      }
      if (!deleted.empty()) queue(new DeleteVarsMsg(0, dataSet, caseSequence, deleted));
      if (iOld > iNew) {
        queue(new MoveVarsMsg(0, dataSet, caseSequence,
                              std::vector<unsigned int>(1, static_cast<unsigned int>(iOld)),
                              static_cast<unsigned int>(iNew)));
        QUOR_Variable moved = view[iOld];
        view.erase(view.begin() + static_cast<std::ptrdiff_t>(iOld));
        view.insert(view.begin() + static_cast<std::ptrdiff_t>(iNew), moved);
      }
    }
    if (!(view[iNew] == liveVar)) {
      QUOR_Variable changed = liveVar;
      queue(new ModifyVarMsg(0, dataSet, caseSequence, changed));
      view[iNew] = liveVar;
    }
  }
  if (view.size() > nLive) {
    std::vector<QUOR_Variable> tail(view.begin() + static_cast<std::ptrdiff_t>(nLive), view.end());
    queue(new DeleteVarsMsg(0, dataSet, caseSequence, tail));
  }
  return lines;
}

std::vector<QUOR_Variable> VariablesOf(QUOR_DataSource const& source) {
  std::vector<QUOR_Variable> variables;
  for (unsigned int i = 0; i < source.ColumnCount(); ++i)
    variables.push_back(source.GetVariable(static_cast<int>(i)));
  return variables;
}

std::vector<std::string> VariableLines(std::vector<DataSetMsg*> const& queue, std::size_t from) {
  std::vector<std::string> lines;
  for (std::size_t i = from; i < queue.size(); ++i) {
    if (queue[i] != nullptr && IsVariableMessage(*queue[i])) lines.push_back(Line(*queue[i]));
  }
  return lines;
}
