#include "messages.h"

#include <ostream>
#include <stdexcept>
#include <utility>

// ---------------------------------------------------------------------------
// Stream helpers. Lists go as a 32-bit count and their elements; nothing is
// reserved from a count read off the stream, so a corrupt count runs into
// the end of the stream instead of into a huge allocation.

namespace {

void PassID(VStream& stream, LocallyUniqueID& id) {
  uint32_t word = id.ToWord();
  stream.Pass(word);
  if (stream.IsLoading()) id = LocallyUniqueID::FromWord(word);
}

void PassVariable(VStream& stream, QUOR_Variable& variable) {
  LocallyUniqueID id = variable.GetID();
  std::string name = variable.GetName();
  std::string label = variable.GetLabel();
  int32_t type = variable.GetType();
  PassID(stream, id);
  stream.Pass(name);
  stream.Pass(label);
  stream.Pass(type);
  if (stream.IsLoading()) {
    QUOR_Variable read(id, name, type);
    read.SetLabel(label);
    variable = read;
  }
}

template <class T, class PassOne>
void PassList(VStream& stream, std::vector<T>& list, PassOne passOne) {
  uint32_t count = static_cast<uint32_t>(list.size());
  stream.Pass(count);
  if (!stream.IsLoading()) {
    for (T& element : list) passOne(stream, element);
    return;
  }
  std::vector<T> read;
  for (uint32_t i = 0; i < count; ++i) {
    T element{};
    passOne(stream, element);
    read.push_back(std::move(element));
  }
  list.swap(read);
}

void PassVariables(VStream& stream, std::vector<QUOR_Variable>& variables) {
  PassList(stream, variables, PassVariable);
}

void SerializeThunk(void* object, VStream& stream) {
  static_cast<DataSetMsg*>(object)->Serialize(stream);
}

// Printing helpers: identifiers as group:serial, texts quoted.
struct PrintID {
  LocallyUniqueID id;
};

std::ostream& operator<<(std::ostream& out, PrintID const& p) {
  if (p.id.IsNone()) return out << "none";
  return out << p.id.group << ':' << p.id.serial;
}

struct PrintText {
  std::string const& text;
};

std::ostream& operator<<(std::ostream& out, PrintText const& p) {
  out << '"';
  for (char c : p.text) {
    if (c == '"' || c == '\\') {
      out << '\\' << c;
    } else if (c == '\n') {
      out << "\\n";
    } else if (c == '\r') {
      out << "\\r";
    } else {
      out << c;
    }
  }
  return out << '"';
}

void PrintVariables(std::ostream& out, std::vector<QUOR_Variable> const& variables) {
  out << '[';
  for (std::size_t i = 0; i < variables.size(); ++i) {
    QUOR_Variable const& v = variables[i];
    if (i != 0) out << ", ";
    out << PrintID{v.GetID()} << ' ' << PrintText{v.GetName()} << " type " << v.GetType();
  }
  out << ']';
}

}  // namespace

// ---------------------------------------------------------------------------
// DataSetMsg

DataSetMsg::DataSetMsg() : reserved_(0), dataSetID_(), caseSequence_(0) {}

DataSetMsg::DataSetMsg(uint32_t reserved, LocallyUniqueID dataSetID, uint32_t caseSequence)
    : reserved_(reserved), dataSetID_(dataSetID), caseSequence_(caseSequence) {}

DataSetMsg::~DataSetMsg() = default;

int DataSetMsg::Process(VStream& stream) {
  return ForeignProcess(this, 1, stream, &SerializeThunk, GetClassName());
}

void DataSetMsg::Serialize(VStream& stream) {
  stream.Pass(reserved_);
  PassID(stream, dataSetID_);
  stream.Pass(caseSequence_);
}

void DataSetMsg::Print(std::ostream& out) const {
  out << GetClassName() << " reserved=" << reserved_ << " dataSet=" << PrintID{dataSetID_}
      << " caseSequence=" << caseSequence_;
  PrintFields(out);
}

void DataSetMsg::PrintFields(std::ostream&) const {}

std::ostream& operator<<(std::ostream& out, DataSetMsg const& message) {
  message.Print(out);
  return out;
}

// Clone and the class name are alike in every class: a VUGlobal copy, and
// the name the far side knows the class by.
#define SDM_MESSAGE_CLASS(Class)                           \
  Class* Class::Clone() const { return new Class(*this); } \
  char const* Class::GetClassName() const { return "DEMessages::" #Class; }

// ---------------------------------------------------------------------------
// Variable messages

SDM_MESSAGE_CLASS(DeleteVarsMsg)

DeleteVarsMsg::DeleteVarsMsg(uint32_t reserved, LocallyUniqueID dataSetID, uint32_t caseSequence,
                             std::vector<QUOR_Variable> variables)
    : DataSetMsg(reserved, dataSetID, caseSequence), variables_(std::move(variables)) {}

void DeleteVarsMsg::Serialize(VStream& stream) {
  DataSetMsg::Serialize(stream);
  PassVariables(stream, variables_);
}

void DeleteVarsMsg::PrintFields(std::ostream& out) const {
  out << " variables=";
  PrintVariables(out, variables_);
}

SDM_MESSAGE_CLASS(InsertVarsMsg)

InsertVarsMsg::InsertVarsMsg(uint32_t reserved, LocallyUniqueID dataSetID, uint32_t caseSequence,
                             std::vector<QUOR_Variable>& variables, LocallyUniqueID beforeID)
    : DataSetMsg(reserved, dataSetID, caseSequence), beforeID_(beforeID) {
  // The caller's list dies once the message is queued, so the message takes
  // it over instead of copying every handle (and its reference count).
  variables_.swap(variables);
}

void InsertVarsMsg::Serialize(VStream& stream) {
  DataSetMsg::Serialize(stream);
  PassVariables(stream, variables_);
  PassID(stream, beforeID_);
}

void InsertVarsMsg::PrintFields(std::ostream& out) const {
  out << " variables=";
  PrintVariables(out, variables_);
  out << " before=" << PrintID{beforeID_};
}

SDM_MESSAGE_CLASS(MoveVarsMsg)

MoveVarsMsg::MoveVarsMsg(uint32_t reserved, LocallyUniqueID dataSetID, uint32_t caseSequence,
                         std::vector<unsigned int> indices, unsigned int target)
    : DataSetMsg(reserved, dataSetID, caseSequence),
      indices_(std::move(indices)),
      target_(target) {}

void MoveVarsMsg::Serialize(VStream& stream) {
  DataSetMsg::Serialize(stream);
  PassList(stream, indices_, [](VStream& s, unsigned int& index) {
    uint32_t value = index;
    s.Pass(value);
    index = value;
  });
  uint32_t target = target_;
  stream.Pass(target);
  target_ = target;
}

void MoveVarsMsg::PrintFields(std::ostream& out) const {
  out << " indices=[";
  for (std::size_t i = 0; i < indices_.size(); ++i) out << (i != 0 ? ", " : "") << indices_[i];
  out << "] target=" << target_;
}

SDM_MESSAGE_CLASS(ModifyVarMsg)

ModifyVarMsg::ModifyVarMsg(uint32_t reserved, LocallyUniqueID dataSetID, uint32_t caseSequence,
                           QUOR_Variable& variable)
    : DataSetMsg(reserved, dataSetID, caseSequence), variable_(variable) {}

void ModifyVarMsg::Serialize(VStream& stream) {
  DataSetMsg::Serialize(stream);
  PassVariable(stream, variable_);
}

void ModifyVarMsg::PrintFields(std::ostream& out) const {
  out << " variable=" << PrintID{variable_.GetID()} << ' ' << PrintText{variable_.GetName()}
      << " label=" << PrintText{variable_.GetLabel()} << " type " << variable_.GetType();
}

// ---------------------------------------------------------------------------
// Property messages

SDM_MESSAGE_CLASS(WeightVarMsg)

WeightVarMsg::WeightVarMsg(uint32_t reserved, LocallyUniqueID dataSetID, uint32_t caseSequence,
                           LocallyUniqueID weightID)
    : DataSetMsg(reserved, dataSetID, caseSequence), weightID_(weightID) {}

void WeightVarMsg::Serialize(VStream& stream) {
  DataSetMsg::Serialize(stream);
  PassID(stream, weightID_);
}

void WeightVarMsg::PrintFields(std::ostream& out) const { out << " weight=" << PrintID{weightID_}; }

SDM_MESSAGE_CLASS(FilterVarMsg)

FilterVarMsg::FilterVarMsg(uint32_t reserved, LocallyUniqueID dataSetID, uint32_t caseSequence,
                           LocallyUniqueID filterID)
    : DataSetMsg(reserved, dataSetID, caseSequence), filterID_(filterID) {}

void FilterVarMsg::Serialize(VStream& stream) {
  DataSetMsg::Serialize(stream);
  PassID(stream, filterID_);
}

void FilterVarMsg::PrintFields(std::ostream& out) const { out << " filter=" << PrintID{filterID_}; }

SDM_MESSAGE_CLASS(SplitFileMsg)

SplitFileMsg::SplitFileMsg(uint32_t reserved, LocallyUniqueID dataSetID, uint32_t caseSequence,
                           int splitCount, LocallyUniqueID const* splitIDs, bool separate)
    : DataSetMsg(reserved, dataSetID, caseSequence), separate_(separate) {
  if (splitCount < 0 || splitCount > kMaxSplitVars) {
    throw std::invalid_argument("SplitFileMsg: " + std::to_string(splitCount) +
                                " split variables, 0 to 8 are allowed");
  }
  if (splitCount > 0 && splitIDs == nullptr) {
    throw std::invalid_argument("SplitFileMsg: no identifiers for a split of " +
                                std::to_string(splitCount));
  }
  if (splitCount > 0) splitIDs_.assign(splitIDs, splitIDs + splitCount);
}

void SplitFileMsg::Serialize(VStream& stream) {
  DataSetMsg::Serialize(stream);
  uint32_t count = static_cast<uint32_t>(splitIDs_.size());
  stream.Pass(count);
  if (stream.IsLoading() && count > static_cast<uint32_t>(kMaxSplitVars)) {
    throw std::runtime_error("SplitFileMsg: stream holds " + std::to_string(count) +
                             " split variables, at most 8 are allowed");
  }
  std::vector<LocallyUniqueID> ids(count);
  if (!stream.IsLoading()) ids = splitIDs_;
  for (LocallyUniqueID& id : ids) PassID(stream, id);
  stream.Pass(separate_);
  if (stream.IsLoading()) splitIDs_.swap(ids);
}

void SplitFileMsg::PrintFields(std::ostream& out) const {
  out << " split=[";
  for (std::size_t i = 0; i < splitIDs_.size(); ++i) {
    out << (i != 0 ? ", " : "") << PrintID{splitIDs_[i]};
  }
  out << "] separate=" << (separate_ ? "true" : "false");
}

SDM_MESSAGE_CLASS(FileLabelChangeMsg)

FileLabelChangeMsg::FileLabelChangeMsg(uint32_t reserved, LocallyUniqueID dataSetID,
                                       uint32_t caseSequence, char const* label)
    : DataSetMsg(reserved, dataSetID, caseSequence), label_(label != nullptr ? label : "") {}

void FileLabelChangeMsg::Serialize(VStream& stream) {
  DataSetMsg::Serialize(stream);
  stream.Pass(label_);
}

void FileLabelChangeMsg::PrintFields(std::ostream& out) const {
  out << " label=" << PrintText{label_};
}

SDM_MESSAGE_CLASS(FileSpecChangeMsg)

FileSpecChangeMsg::FileSpecChangeMsg(uint32_t reserved, LocallyUniqueID dataSetID,
                                     uint32_t caseSequence, char const* fileSpec, bool specFlag)
    : DataSetMsg(reserved, dataSetID, caseSequence),
      fileSpec_(fileSpec != nullptr ? fileSpec : ""),
      specFlag_(specFlag) {}

void FileSpecChangeMsg::Serialize(VStream& stream) {
  DataSetMsg::Serialize(stream);
  stream.Pass(fileSpec_);
  stream.Pass(specFlag_);
}

void FileSpecChangeMsg::PrintFields(std::ostream& out) const {
  out << " fileSpec=" << PrintText{fileSpec_} << " specFlag=" << (specFlag_ ? "true" : "false");
}

SDM_MESSAGE_CLASS(ExtensionsMsg)

ExtensionsMsg::ExtensionsMsg(uint32_t reserved, LocallyUniqueID dataSetID, uint32_t caseSequence,
                             RefCountPtr<QUOR_ExtensionImpl> const& extension)
    : DataSetMsg(reserved, dataSetID, caseSequence), extension_(extension) {}

void ExtensionsMsg::Serialize(VStream& stream) {
  DataSetMsg::Serialize(stream);
  bool present = extension_.IsValid();
  int32_t type = present ? extension_->GetType() : 0;
  int32_t version = present ? extension_->GetVersion() : 0;
  std::string bytes;
  if (present) {
    bytes.assign(reinterpret_cast<char const*>(extension_->GetData()),
                 static_cast<std::size_t>(extension_->GetLength()));
  }
  stream.Pass(present);
  stream.Pass(type);
  stream.Pass(version);
  stream.Pass(bytes);
  if (!stream.IsLoading()) return;
  extension_ =
      present ? new QUOR_ExtensionImpl(type, version, static_cast<long>(bytes.size()), bytes.data())
              : nullptr;
}

void ExtensionsMsg::PrintFields(std::ostream& out) const {
  if (!extension_.IsValid()) {
    out << " extension=none";
    return;
  }
  out << " extension type " << extension_->GetType() << ", " << extension_->GetLength() << " bytes";
}

SDM_MESSAGE_CLASS(TrendsInfoMsg)

TrendsInfoMsg::TrendsInfoMsg(uint32_t reserved, LocallyUniqueID dataSetID, uint32_t caseSequence,
                             QUOR_TrendsInfo const* trendsInfo)
    : DataSetMsg(reserved, dataSetID, caseSequence) {
  if (trendsInfo != nullptr) trendsInfo_ = *trendsInfo;
}

void TrendsInfoMsg::Serialize(VStream& stream) {
  DataSetMsg::Serialize(stream);
  std::string text = trendsInfo_.GetText();
  stream.Pass(text);
  if (stream.IsLoading()) trendsInfo_.SetText(std::move(text));
}

void TrendsInfoMsg::PrintFields(std::ostream& out) const {
  out << " trends=" << PrintText{trendsInfo_.GetText()};
}

// ---------------------------------------------------------------------------
// Dataset messages

SDM_MESSAGE_CLASS(ImputationInfoMsg)

void ImputationInfoMsg::Serialize(VStream& stream) {
  DataSetMsg::Serialize(stream);
  stream.Pass(rowsPerImputation);
}

void ImputationInfoMsg::PrintFields(std::ostream& out) const {
  out << " rowsPerImputation=" << rowsPerImputation;
}

SDM_MESSAGE_CLASS(ResetClientDataMsg)

ResetClientDataMsg::ResetClientDataMsg(uint32_t reserved, LocallyUniqueID dataSetID,
                                       uint32_t caseSequence, int64_t rowCount)
    : DataSetMsg(reserved, dataSetID, caseSequence), rowCount_(rowCount) {}

void ResetClientDataMsg::Serialize(VStream& stream) {
  DataSetMsg::Serialize(stream);
  stream.Pass(rowCount_);
}

void ResetClientDataMsg::PrintFields(std::ostream& out) const { out << " rowCount=" << rowCount_; }

SDM_MESSAGE_CLASS(ResetUndoMsg)

SDM_MESSAGE_CLASS(DataSetModifiedMsg)

DataSetModifiedMsg::DataSetModifiedMsg(uint32_t reserved, LocallyUniqueID dataSetID,
                                       uint32_t caseSequence, bool dirty)
    : DataSetMsg(reserved, dataSetID, caseSequence), dirty_(dirty) {}

void DataSetModifiedMsg::Serialize(VStream& stream) {
  DataSetMsg::Serialize(stream);
  stream.Pass(dirty_);
}

void DataSetModifiedMsg::PrintFields(std::ostream& out) const {
  out << " dirty=" << (dirty_ ? "true" : "false");
}

#undef SDM_MESSAGE_CLASS
