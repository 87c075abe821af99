#include "datasource.h"

#include <algorithm>
#include <stdexcept>
#include <string>

// ---------------------------------------------------------------------------
// QUOR_Variable

QUOR_Variable::QUOR_Variable()
    : impl_(new QUOR_VariableImpl(LocallyUniqueID(), std::string(), 0)) {}

QUOR_Variable::QUOR_Variable(LocallyUniqueID id, std::string const& name, int type)
    : impl_(new QUOR_VariableImpl(id, name, type)) {}

// Each setter takes a private copy first when the definition is shared, so
// copies taken earlier (the snapshot, a message) keep what they saw.
void QUOR_Variable::SetName(std::string const& name) { impl_.Unshared()->name = name; }
void QUOR_Variable::SetLabel(std::string const& label) { impl_.Unshared()->label = label; }
void QUOR_Variable::SetType(int type) { impl_.Unshared()->type = type; }

bool QUOR_Variable::operator==(QUOR_Variable const& other) const {
  if (impl_ == other.impl_) return true;
  QUOR_VariableImpl const& a = *impl_;
  QUOR_VariableImpl const& b = *other.impl_;
  return a.id == b.id && a.type == b.type && a.name == b.name && a.label == b.label;
}

// ---------------------------------------------------------------------------
// Value records

QUOR_ExtensionImpl::QUOR_ExtensionImpl(int type, int version, long length, void const* data)
    : type_(type), version_(version) {
  if (length < 0) throw std::invalid_argument("QUOR_ExtensionImpl: negative length");
  if (length > 0 && data == nullptr) {
    throw std::invalid_argument("QUOR_ExtensionImpl: no data for a non-empty extension");
  }
  auto const* bytes = static_cast<unsigned char const*>(data);
  data_.assign(bytes, bytes + length);
}

bool QUOR_ExtensionImpl::SameContent(QUOR_ExtensionImpl const& other) const {
  return type_ == other.type_ && data_ == other.data_;
}

std::string DatasourceAttributes::Get(std::string const& name) const {
  auto found = values_.find(name);
  return found == values_.end() ? std::string() : found->second;
}

namespace {
void AppendEscaped(std::string const& text, std::string* out) {
  for (char c : text) {
    if (c == '\\' || c == '=' || c == ';') out->push_back('\\');
    out->push_back(c);
  }
}
}  // namespace

std::string DatasourceAttributes::MakeString() const {
  std::string out;
  for (auto const& entry : values_) {
    AppendEscaped(entry.first, &out);
    out.push_back('=');
    AppendEscaped(entry.second, &out);
    out.push_back(';');
  }
  return out;
}

bool VariableSetImpl::operator==(VariableSetImpl const& other) const {
  // Cheapest first: the fixed bytes, then the texts, then the member lists.
  return descriptor == other.descriptor && name == other.name && label == other.label &&
         description == other.description && members == other.members;
}

// ---------------------------------------------------------------------------
// Rows

void ObsProjector::Project(OBS const& from, OBS* to) const {
  std::vector<std::string> picked;
  picked.reserve(columns_.size());
  for (std::size_t column : columns_) {
    if (column >= from.fields.size()) {
      throw std::out_of_range("ObsProjector: column " + std::to_string(column) + " of a row of " +
                              std::to_string(from.fields.size()) + " fields");
    }
    picked.push_back(from.fields[column]);
  }
  to->fields.swap(picked);
  to->row = from.row;
}

namespace {
// The iterator of a source without rows.
class NoRowsIter : public ObsIterator {
 public:
  bool Next() override { return false; }
};
}  // namespace

PassThroughIter::PassThroughIter(QUOR_DataSource const& source, OBS* obs,
                                 ObsProjector const* projector)
    : obs_(obs) {
  if (obs == nullptr) throw std::invalid_argument("PassThroughIter: no row to fill");
  if (projector != nullptr) projector_ = std::make_unique<ObsProjector>(*projector);
  QUOR_DataSource const* parent = source.GetParentSource();
  // Everything needed later is taken now: the caller may hide the parent
  // again as soon as this constructor returns.
  if (parent != nullptr) inner_.reset(parent->MakeIterator(projector_ ? &innerRow_ : obs_));
}

PassThroughIter::~PassThroughIter() = default;

bool PassThroughIter::Next() {
  if (!inner_ || !inner_->Next()) return false;
  if (projector_) projector_->Project(innerRow_, obs_);
  return true;
}

// ---------------------------------------------------------------------------
// QUOR_DataSource

QUOR_DataSource::QUOR_DataSource(QUOR_DataSource const* parent)
    : parent_(const_cast<QUOR_DataSource*>(parent)) {}

QUOR_DataSource::~QUOR_DataSource() = default;

LocallyUniqueID QUOR_DataSource::NewVariableID() {
  constexpr uint32_t kVariableGroup = 1;
  constexpr uint64_t kLastSerial = 0xFFFFFFFu;
  // Wider than a serial, so that calls after the last one keep failing
  // instead of wrapping round to serials handed out before.
  static std::atomic<uint64_t> next{1};
  uint64_t const serial = next.fetch_add(1, std::memory_order_relaxed);
  if (serial > kLastSerial) {
    throw std::overflow_error("NewVariableID: every variable identifier of the process is spent");
  }
  return LocallyUniqueID(kVariableGroup, static_cast<uint32_t>(serial));
}

ObsIterator* QUOR_DataSource::MakeIterator(OBS* obs) const {
  if (obs == nullptr) throw std::invalid_argument("MakeIterator: no row to fill");
  return new NoRowsIter();
}

long QUOR_DataSource::GetObsAreaSize() const { return static_cast<long>(ColumnCount()); }
long long QUOR_DataSource::RowCount() const { return 0; }
bool QUOR_DataSource::IsLoaded() const { return true; }

int QUOR_DataSource::NParents() const {
  int count = 0;
  for (QUOR_DataSource const* p = parent_; p != nullptr; p = p->GetParentSource()) ++count;
  return count;
}

void QUOR_DataSource::CopyDictionary(QUOR_DataSource const& other) {
  if (&other == this) return;
  dict_ = other.dict_;
}

namespace {

// Out of line and cold, so that the check it serves stays a compare and a
// branch inlined into GetVariable, which reconciliation calls several times
// per variable.
[[noreturn]] __attribute__((noinline, cold)) void ThrowOutsideDictionary(char const* operation,
                                                                         long position,
                                                                         std::size_t count) {
  throw std::out_of_range(std::string(operation) + ": position " + std::to_string(position) +
                          " outside a dictionary of " + std::to_string(count) + " variables");
}

}  // namespace

void QUOR_DataSource::CheckPosition(long position, long limit, char const* operation) const {
  if (position < 0 || position >= limit) {
    ThrowOutsideDictionary(operation, position, dict_.variables.size());
  }
}

QUOR_Variable& QUOR_DataSource::GetVariable(int position) {
  CheckPosition(position, static_cast<long>(dict_.variables.size()), "GetVariable");
  return dict_.variables[static_cast<std::size_t>(position)];
}

QUOR_Variable const& QUOR_DataSource::GetVariable(int position) const {
  CheckPosition(position, static_cast<long>(dict_.variables.size()), "GetVariable");
  return dict_.variables[static_cast<std::size_t>(position)];
}

int QUOR_DataSource::FindVarIndex(LocallyUniqueID id) const {
  for (std::size_t i = 0; i < dict_.variables.size(); ++i) {
    if (dict_.variables[i].GetID() == id) return static_cast<int>(i);
  }
  return -1;
}

void QUOR_DataSource::InsertVariable(long position, QUOR_Variable const& variable) {
  CheckPosition(position, static_cast<long>(dict_.variables.size()) + 1, "InsertVariable");
  if (FindVarIndex(variable.GetID()) >= 0) {
    throw std::invalid_argument("InsertVariable: identifier " +
                                std::to_string(variable.GetID().ToWord()) +
                                " is already in the dictionary");
  }
  dict_.variables.insert(dict_.variables.begin() + position, variable);
}

void QUOR_DataSource::MakeVariable(QUOR_Variable const& variable, unsigned int* position) {
  dict_.variables.push_back(variable);
  if (position != nullptr) *position = static_cast<unsigned int>(dict_.variables.size() - 1);
}

void QUOR_DataSource::DeleteVariables(int first, int last) {
  if (last < first) return;
  long const count = static_cast<long>(dict_.variables.size());
  CheckPosition(first, count, "DeleteVariables");
  CheckPosition(last, count, "DeleteVariables");
  auto begin = dict_.variables.begin() + first;
  auto end = dict_.variables.begin() + last + 1;
  // Weight, filter and split stay recorded by identifier and read as absent
  // while their variable is gone (see the readers below). A variable that
  // is taken out and put back, as a move does, keeps its role.
  dict_.variables.erase(begin, end);
}

// Weight and filter are kept by identifier and checked against the
// dictionary on every read: an entry replaced through GetVariable can carry a
// new identifier, and the old one must then read as absent.
int QUOR_DataSource::PositionOf(LocallyUniqueID id) const {
  return id.IsNone() ? -1 : FindVarIndex(id);
}

LocallyUniqueID QUOR_DataSource::PresentID(LocallyUniqueID id) const {
  return PositionOf(id) < 0 ? LocallyUniqueID() : id;
}

// Any position outside the dictionary, -1 among them, records no variable.
LocallyUniqueID QUOR_DataSource::IDAt(int position) const {
  bool const inside = position >= 0 && static_cast<std::size_t>(position) < dict_.variables.size();
  return inside ? dict_.variables[static_cast<std::size_t>(position)].GetID() : LocallyUniqueID();
}

int QUOR_DataSource::GetWeightVarIndex() const { return PositionOf(dict_.weightID); }
LocallyUniqueID QUOR_DataSource::GetWeightVariableID() const { return PresentID(dict_.weightID); }
void QUOR_DataSource::SetWeightVar(int position) { dict_.weightID = IDAt(position); }
int QUOR_DataSource::GetFilterVarIndex() const { return PositionOf(dict_.filterID); }
LocallyUniqueID QUOR_DataSource::GetFilterVariableID() const { return PresentID(dict_.filterID); }
void QUOR_DataSource::SetFilterVar(int position) { dict_.filterID = IDAt(position); }

unsigned int QUOR_DataSource::SplitPositions(int (&positions)[kMaxSplitVars]) const {
  unsigned int count = 0;
  for (LocallyUniqueID id : dict_.splitIDs) {
    int const position = FindVarIndex(id);
    if (position >= 0 && count < kMaxSplitVars) positions[count++] = position;
  }
  return count;
}

int QUOR_DataSource::GetNSplitVars() const {
  int positions[kMaxSplitVars];
  return static_cast<int>(SplitPositions(positions));
}

// A rank beyond the split reads as no variable, like an absent weight.
int QUOR_DataSource::GetSplitVarIndex(unsigned int rank) const {
  int positions[kMaxSplitVars];
  unsigned int const count = SplitPositions(positions);
  return rank < count ? positions[rank] : -1;
}

LocallyUniqueID QUOR_DataSource::GetSplitVarID(unsigned int rank) const {
  int const position = GetSplitVarIndex(rank);
  return position < 0 ? LocallyUniqueID()
                      : dict_.variables[static_cast<std::size_t>(position)].GetID();
}

bool QUOR_DataSource::GetSplitqSeparate() const { return dict_.splitSeparate; }

void QUOR_DataSource::SetSplit(unsigned int count, int const* positions, bool separate) {
  if (count > kMaxSplitVars) {
    throw std::invalid_argument("SetSplit: " + std::to_string(count) +
                                " split variables, at most " + std::to_string(kMaxSplitVars) +
                                " are allowed");
  }
  std::vector<LocallyUniqueID> ids;
  ids.reserve(count);
  for (unsigned int i = 0; i < count; ++i) {
    CheckPosition(positions[i], static_cast<long>(dict_.variables.size()), "SetSplit");
    ids.push_back(dict_.variables[static_cast<std::size_t>(positions[i])].GetID());
  }
  dict_.splitIDs.swap(ids);
  dict_.splitSeparate = separate;
}

void QUOR_DataSource::SetLabel(char const* label) {
  dict_.hasLabel = label != nullptr;
  dict_.label = label != nullptr ? label : "";
}

QUOR_DataSource::Extension::Extension(QUOR_DataSource const& source, int record) {
  if (record != kExtensionRecord) {
    throw std::invalid_argument("Extension: record " + std::to_string(record) +
                                " does not exist, only record " + std::to_string(kExtensionRecord));
  }
  impl_ = source.dict_.extension;
}

QUOR_DataSource::Extension::Extension(int type, std::string const& payload)
    : impl_(new QUOR_ExtensionImpl(type, kExtensionVersion, static_cast<long>(payload.size()),
                                   payload.data())) {}

bool operator==(QUOR_DataSource::Extension const& a, QUOR_DataSource::Extension const& b) {
  RefCountPtr<QUOR_ExtensionImpl> const& x = a.Get();
  RefCountPtr<QUOR_ExtensionImpl> const& y = b.Get();
  if (x == y) return true;
  if (!x.IsValid() || !y.IsValid()) return false;
  return x->SameContent(*y);
}

DataFreeDataSource::~DataFreeDataSource() = default;

// ---------------------------------------------------------------------------
// Free functions

std::vector<VariableSet> VariableSets(QUOR_DataSource const& source, VarSetsType which) {
  std::vector<VariableSetImpl> stored;
  if (which == kVariableSetsOfSource) {
    stored = source.GetVariableSets();
  } else if (which == kMRSetsOfSource) {
    stored = source.GetMRSets();
  } else {
    throw std::invalid_argument("VariableSets: selector " +
                                std::to_string(static_cast<int>(which)) + " is neither " +
                                std::to_string(kVariableSetsOfSource) + " (variable sets) nor " +
                                std::to_string(kMRSetsOfSource) + " (MR sets)");
  }
  std::vector<VariableSet> sets;
  sets.reserve(stored.size());
  for (VariableSetImpl const& impl : stored) {
    VariableSet set;
    set.kind = static_cast<int>(which);
    set.name = impl.name;
    set.label = impl.label;
    set.description = impl.description;
    set.descriptor = impl.descriptor;
    set.memberWords.reserve(impl.members.size());
    for (LocallyUniqueID id : impl.members) set.memberWords.push_back(id.ToWord());
    sets.push_back(std::move(set));
  }
  return sets;
}

namespace {
void PutU32(uint32_t value, std::string* out) {
  for (int i = 0; i < 4; ++i) out->push_back(static_cast<char>((value >> (8 * i)) & 0xFFu));
}

void PutText(std::string const& text, std::string* out) {
  PutU32(static_cast<uint32_t>(text.size()), out);
  out->append(text);
}
}  // namespace

void MakeExtension(std::vector<VariableSet> const& sets, std::string& payload,
                   QUOR_DataSource::ExtensionType type) {
  std::string out;
  PutU32(static_cast<uint32_t>(type), &out);
  PutU32(static_cast<uint32_t>(sets.size()), &out);
  for (VariableSet const& set : sets) {
    PutU32(static_cast<uint32_t>(set.kind), &out);
    out.append(reinterpret_cast<char const*>(set.descriptor.data()), set.descriptor.size());
    PutText(set.name, &out);
    PutText(set.label, &out);
    PutText(set.description, &out);
    PutU32(static_cast<uint32_t>(set.memberWords.size()), &out);
    for (uint32_t word : set.memberWords) PutU32(word, &out);
  }
  payload.swap(out);
}
