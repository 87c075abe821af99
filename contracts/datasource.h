// The data-source library of the server: data sources, their dictionaries
// and rows, and the small value records around them.
#ifndef SDM_CONTRACTS_DATASOURCE_H
#define SDM_CONTRACTS_DATASOURCE_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "RefCountPtr.h"
#include "platform.h"

class QUOR_DataSource;

// ---------------------------------------------------------------------------
// Variables.

// The shared definition behind QUOR_Variable handles. Never changed while
// shared: QUOR_Variable copies it before a write.
class QUOR_VariableImpl : public QUOR_RefCntObject {
 public:
  QUOR_VariableImpl(LocallyUniqueID id, std::string name, int type)
      : id(id), name(std::move(name)), type(type) {}
  QUOR_VariableImpl(QUOR_VariableImpl const&) = default;
  QUOR_VariableImpl& operator=(QUOR_VariableImpl const&) = delete;

  LocallyUniqueID id;
  std::string name;
  std::string label;
  // 0 numeric; a positive value is a string variable of that width in bytes.
  int type;
};

// One variable of a dictionary: a value whose copies share one definition
// until one of them is changed (copy on write), so copying is cheap and a copy
// never sees later changes to the original. Copies may be made and dropped on
// several threads at once; a single variable is changed by one thread.
class QUOR_Variable {
 public:
  // No identifier, no name, numeric.
  QUOR_Variable();
  QUOR_Variable(LocallyUniqueID id, std::string const& name, int type = 0);

  LocallyUniqueID GetID() const { return impl_->id; }
  std::string const& GetName() const { return impl_->name; }
  void SetName(std::string const& name);
  std::string const& GetLabel() const { return impl_->label; }
  void SetLabel(std::string const& label);
  int GetType() const { return impl_->type; }
  void SetType(int type);

  // Identifier, name, label and type; true at once when both share one
  // definition.
  bool operator==(QUOR_Variable const& other) const;
  bool operator!=(QUOR_Variable const& other) const { return !(*this == other); }

  // The shared definition, for callers that compare handles by address.
  QUOR_VariableImpl const* Definition() const { return impl_.get(); }

 private:
  RefCountPtr<QUOR_VariableImpl> impl_;
};

// ---------------------------------------------------------------------------
// Value records of a dictionary.

// The payload of one extension: type, version and bytes, fixed at
// construction. Shared through RefCountPtr and never changed, so any number
// of threads may read it.
class QUOR_ExtensionImpl : public QUOR_RefCntObject {
 public:
  // Copies `length` bytes from `data`. Throws std::invalid_argument for a
  // negative length, or a null `data` with a positive length.
  QUOR_ExtensionImpl(int type, int version, long length, void const* data);
  QUOR_ExtensionImpl(QUOR_ExtensionImpl const&) = default;
  QUOR_ExtensionImpl& operator=(QUOR_ExtensionImpl const&) = delete;

  int GetType() const { return type_; }
  int GetVersion() const { return version_; }
  long GetLength() const { return static_cast<long>(data_.size()); }
  // Valid for GetLength() bytes; not zero-terminated.
  unsigned char const* GetData() const { return data_.data(); }
  // Same type and the same bytes.
  bool SameContent(QUOR_ExtensionImpl const& other) const;

 private:
  // Set at construction.
  int type_;
  int version_;
  std::vector<unsigned char> data_;
};

// Named text attributes of a source, kept in name order. A plain value.
class DatasourceAttributes {
 public:
  void Set(std::string const& name, std::string const& value) { values_[name] = value; }
  // The empty text when no attribute bears the name.
  std::string Get(std::string const& name) const;
  bool Has(std::string const& name) const { return values_.count(name) != 0; }
  void Remove(std::string const& name) { values_.erase(name); }
  std::size_t Size() const { return values_.size(); }

  bool operator==(DatasourceAttributes const& other) const { return values_ == other.values_; }
  bool operator!=(DatasourceAttributes const& other) const { return !(*this == other); }

  // "name=value" pairs in name order, each ended by ';'. A '\', '=' or ';'
  // inside a name or value is written with a '\' in front, so the text can
  // be split again unambiguously.
  std::string MakeString() const;

 private:
  std::map<std::string, std::string> values_;
};

// The trends information of a source: one opaque text. A plain value.
class QUOR_TrendsInfo {
 public:
  void SetText(std::string text) { text_ = std::move(text); }
  std::string const& GetText() const { return text_; }
  bool operator==(QUOR_TrendsInfo const& other) const { return text_ == other.text_; }
  bool operator!=(QUOR_TrendsInfo const& other) const { return !(*this == other); }

 private:
  std::string text_;
};

// One variable set or MR set as a source stores it. Equal when descriptor,
// the three texts and the member list (same identifiers, same order) agree.
struct VariableSetImpl {
  std::vector<LocallyUniqueID> members;
  std::string name;
  std::string label;
  std::string description;
  std::array<unsigned char, 6> descriptor{};

  bool operator==(VariableSetImpl const& other) const;
  bool operator!=(VariableSetImpl const& other) const { return !(*this == other); }
};

// One set in the form MakeExtension takes: which list it came from and its
// members as identifier words.
struct VariableSet {
  int kind = 0;  // the VarSetsType it was taken from
  std::string name;
  std::string label;
  std::string description;
  std::array<unsigned char, 6> descriptor{};
  std::vector<uint32_t> memberWords;
};

// Selects the list VariableSets reads.
enum VarSetsType { kVariableSetsOfSource = 0, kMRSetsOfSource = 1 };

// ---------------------------------------------------------------------------
// Rows.

// One row as an iterator hands it out: the fields as text, in column order,
// and the row's number counted from 0.
struct OBS {
  std::vector<std::string> fields;
  long long row = -1;
};

// Picks and orders the columns of a row. A plain value.
class ObsProjector {
 public:
  explicit ObsProjector(std::vector<std::size_t> columns) : columns_(std::move(columns)) {}
  // Throws std::out_of_range when a chosen column is not in `from`.
  void Project(OBS const& from, OBS* to) const;

 private:
  std::vector<std::size_t> columns_;
};

// Walks the rows of a source, filling the OBS it was made with. Owned by whoever
// asked for it; one thread at a time.
class ObsIterator {
 public:
  virtual ~ObsIterator() = default;
  // Fills the OBS with the next row; false, the OBS untouched, after the last.
  virtual bool Next() = 0;
};

// An iterator over the rows of a source's parent, optionally projected. The
// parent's own iterator is made in the constructor, so the source's parent
// link need only be set while it runs. With no parent there are no rows.
class PassThroughIter : public ObsIterator {
 public:
  // Throws std::invalid_argument for a null `obs`. The projector is copied.
  PassThroughIter(QUOR_DataSource const& source, OBS* obs, ObsProjector const* projector);
  ~PassThroughIter() override;
  bool Next() override;

 private:
  // Set at construction.
  OBS* obs_;
  std::unique_ptr<ObsIterator> inner_;
  std::unique_ptr<ObsProjector> projector_;
  OBS innerRow_;
};

// ---------------------------------------------------------------------------
// Data sources.

// Base of all data sources: a dictionary (variables and properties), rows,
// and a link to the parent source. The base has no rows. A source never
// deletes its parent: whoever owns the head of a chain deletes the members
// one by one. Const operations may run on several threads at once; a change
// needs the caller's exclusive access.
class QUOR_DataSource {
 public:
  // The types of the extensions that reach clients. The source's own
  // record is also the one record number that Extension reads.
  enum ExtensionType : int {
    kExtensionRecord = 0,         // the source's extension record 0, as it stands
    kExtensionVariableSets = 5,   // MakeExtension over kVariableSetsOfSource
    kExtensionMRSets = 7,         // MakeExtension over kMRSetsOfSource
    kExtensionAttributes = 17,    // DatasourceAttributes::MakeString
    kExtensionMRSetsSecond = 19,  // the MR sets again, in a second extension
  };
  // The version of the extension records made here and by the data manager.
  static constexpr int kExtensionVersion = 1;
  // The most split variables a dictionary holds.
  static constexpr unsigned int kMaxSplitVars = 8;

  // The extension data of a source (record 0), shared by reference count.
  class Extension {
   public:
    // Captures the extension record of `source`; `record` must be
    // kExtensionRecord.
    Extension(QUOR_DataSource const& source, int record);
    // A record of the given type and kExtensionVersion holding a copy of
    // `payload`.
    Extension(int type, std::string const& payload);
    ~Extension() = default;

    bool IsEmpty() const { return !impl_.IsValid(); }
    // Implicit on purpose: a message takes the record in this form.
    // NOLINTNEXTLINE(google-explicit-constructor)
    operator RefCountPtr<QUOR_ExtensionImpl> const&() const { return impl_; }
    RefCountPtr<QUOR_ExtensionImpl> const& Get() const { return impl_; }

   private:
    RefCountPtr<QUOR_ExtensionImpl> impl_;
  };

  explicit QUOR_DataSource(QUOR_DataSource const* parent);
  QUOR_DataSource(QUOR_DataSource const&) = delete;
  // A variable identifier that no earlier call in this process returned, for
  // a new variable. Variables take group 1 and serials from 1 up, so they
  // never print like datasets, which the registry numbers in group 0; the
  // data-file source names its columns this way. Any thread may call it.
  // Throws std::overflow_error once the 2^28 - 1 serials are spent.
  static LocallyUniqueID NewVariableID();
  QUOR_DataSource& operator=(QUOR_DataSource const&) = delete;

  // The virtual table, in this order; everything else is non-virtual.
  virtual ~QUOR_DataSource();
  virtual int GetNSplitVars() const;
  virtual int GetSplitVarIndex(unsigned int rank) const;
  virtual LocallyUniqueID GetSplitVarID(unsigned int rank) const;
  virtual bool GetSplitqSeparate() const;
  // A new iterator filling `obs`, owned by the caller. The base has no rows.
  virtual ObsIterator* MakeIterator(OBS* obs) const;
  // Number of fields in one row.
  virtual long GetObsAreaSize() const;
  virtual long long RowCount() const;
  virtual bool IsLoaded() const;
  // Number of sources above this one in its chain.
  virtual int NParents() const;

  // Chain. The link is not owned.
  QUOR_DataSource* GetParentSource() const { return parent_; }
  void SetParentSource(QUOR_DataSource const* parent) {
    parent_ = const_cast<QUOR_DataSource*>(parent);
  }
  // Replaces this dictionary with a copy of `other`'s; rows and link stay.
  void CopyDictionary(QUOR_DataSource const& other);

  // Variables. Positions count from 0. GetVariable and DeleteVariables throw
  // std::out_of_range for a position outside the dictionary.
  unsigned int ColumnCount() const { return static_cast<unsigned int>(dict_.variables.size()); }
  // Valid until the dictionary next changes; assigning to it changes the entry.
  QUOR_Variable& GetVariable(int position);
  QUOR_Variable const& GetVariable(int position) const;
  int FindVarIndex(LocallyUniqueID id) const;
  // Inserts a copy in front of `position` (ColumnCount() appends). Throws
  // std::out_of_range for a bad position and std::invalid_argument when the
  // identifier is already in the dictionary.
  void InsertVariable(long position, QUOR_Variable const& variable);
  // Appends a copy without looking for a duplicate identifier (the append path
  // of bulk rebuilds stays O(1)). Stores the new position in `position` if it
  // is not null.
  void MakeVariable(QUOR_Variable const& variable, unsigned int* position);
  // Removes `first` to `last`, both included. Does nothing when last < first.
  void DeleteVariables(int first, int last);

  bool IsDirty() const { return dict_.dirty; }
  void SetDirty(bool dirty) { dict_.dirty = dirty; }

  // Weight, filter and split are held by identifier, so they follow a variable
  // that moves; a variable that leaves the dictionary leaves them too. No
  // such variable reads as position -1 and the all-ones identifier, and
  // position -1 (or any position outside the dictionary) clears them.
  int GetWeightVarIndex() const;
  LocallyUniqueID GetWeightVariableID() const;
  void SetWeightVar(int position);
  int GetFilterVarIndex() const;
  LocallyUniqueID GetFilterVariableID() const;
  void SetFilterVar(int position);
  // A rank at or beyond GetNSplitVars() reads as -1 and the all-ones
  // identifier.
  // `positions` is read for `count` entries (not at all for 0). Throws
  // std::invalid_argument for more than 8, and std::out_of_range for a
  // position outside the dictionary; nothing changes then.
  void SetSplit(unsigned int count, int const* positions, bool separate);

  char const* GetFileSpec() const { return dict_.fileSpec.c_str(); }
  // Null stores the empty text.
  void SetFileSpec(char const* fileSpec) { dict_.fileSpec = fileSpec != nullptr ? fileSpec : ""; }
  // Null when there is no label.
  char const* GetLabel() const { return dict_.hasLabel ? dict_.label.c_str() : nullptr; }
  // Null clears the label.
  void SetLabel(char const* label);

  long long RowsPerImputation() const { return dict_.rowsPerImputation; }
  void RowsPerImputation(long long rows) { dict_.rowsPerImputation = rows; }

  QUOR_TrendsInfo const* GetTrendsInfo() const { return &dict_.trends; }
  QUOR_TrendsInfo* GetTrendsInfo() { return &dict_.trends; }
  DatasourceAttributes const& GetAttributes() const { return dict_.attributes; }
  void SetAttributes(DatasourceAttributes const& attributes) { dict_.attributes = attributes; }

  std::vector<VariableSetImpl> GetMRSets() const { return dict_.mrSets; }
  void SetMRSets(std::vector<VariableSetImpl> const& sets) { dict_.mrSets = sets; }
  std::vector<VariableSetImpl> GetVariableSets() const { return dict_.variableSets; }
  void SetVariableSets(std::vector<VariableSetImpl> const& sets) { dict_.variableSets = sets; }
  // Shares the extension's record: an Extension made afterwards compares equal.
  void SetExtension(Extension const& extension) { dict_.extension = extension.Get(); }

 private:
  // Everything CopyDictionary copies.
  struct Dictionary {
    std::vector<QUOR_Variable> variables;
    bool dirty = false;
    LocallyUniqueID weightID;
    LocallyUniqueID filterID;
    std::vector<LocallyUniqueID> splitIDs;
    bool splitSeparate = false;
    std::string fileSpec;
    std::string label;
    bool hasLabel = false;
    long long rowsPerImputation = 0;
    QUOR_TrendsInfo trends;
    DatasourceAttributes attributes;
    std::vector<VariableSetImpl> mrSets;
    std::vector<VariableSetImpl> variableSets;
    RefCountPtr<QUOR_ExtensionImpl> extension;
  };

  // Positions of the split variables still in the dictionary, in rank order;
  // returns their count.
  unsigned int SplitPositions(int (&positions)[kMaxSplitVars]) const;
  void CheckPosition(long position, long limit, char const* operation) const;
  // Where the variable `id` stands, -1 for none or the all-ones identifier.
  int PositionOf(LocallyUniqueID id) const;
  // `id` while a variable bears it, else the all-ones identifier.
  LocallyUniqueID PresentID(LocallyUniqueID id) const;
  // The identifier at `position`, all ones outside the dictionary.
  LocallyUniqueID IDAt(int position) const;

  QUOR_DataSource* parent_;
  Dictionary dict_;
};

// True when both capture no record, or records of the same type and bytes.
bool operator==(QUOR_DataSource::Extension const& a, QUOR_DataSource::Extension const& b);
inline bool operator!=(QUOR_DataSource::Extension const& a, QUOR_DataSource::Extension const& b) {
  return !(a == b);
}

// A source backed by a comma-separated data file, read whole at construction:
// the first line holds the variable names, each further line one row. The
// root of a chain. Const operations may run on several threads at once.
class SystemFileDataSource : public QUOR_DataSource {
 public:
  // No variables, no rows, an empty GetFileSpec().
  SystemFileDataSource();
  // Reads the file at `path`. Throws std::runtime_error naming the file, the
  // line and the fault when it cannot be opened or is malformed.
  explicit SystemFileDataSource(std::string const& path);
  ~SystemFileDataSource() override;

  ObsIterator* MakeIterator(OBS* obs) const override;
  long GetObsAreaSize() const override;
  long long RowCount() const override;

  // Read under no lock, so it is atomic.
  bool GetPasswordMangled() const { return passwordMangled_.load(std::memory_order_acquire); }
  void SetPasswordMangled(bool mangled) {
    passwordMangled_.store(mangled, std::memory_order_release);
  }

  struct Table;

 private:
  // Shared with the iterators, so an iterator stays valid after the source.
  std::shared_ptr<Table const> table_;
  std::atomic<bool> passwordMangled_{false};
};

// A source with a dictionary and no rows.
class DataFreeDataSource : public QUOR_DataSource {
 public:
  DataFreeDataSource() : QUOR_DataSource(nullptr) {}
  ~DataFreeDataSource() override;
};

// Implemented by the server: sees each data source on its way into a new
// dataset and returns the one to use instead (possibly the same). Called
// under the registry's lock. Visible from every shared object, also one built
// with hidden visibility, so that the server's hook and the data manager share
// one type information.
class __attribute__((visibility("default"))) QUOR_DataSourceFilterHook {
 public:
  virtual QUOR_DataSource* Filter(QUOR_DataSource* source) = 0;
  virtual ~QUOR_DataSourceFilterHook() = default;
};

// ---------------------------------------------------------------------------
// Free functions of the library.

// The variable sets (kVariableSetsOfSource) or MR sets (kMRSetsOfSource) of
// `source`. Throws std::invalid_argument for another selector.
std::vector<VariableSet> VariableSets(QUOR_DataSource const& source, VarSetsType which);

// Writes the byte form of `sets` for an extension of `type` into `payload`,
// replacing what it held. Little-endian: a 32-bit type, a 32-bit set count,
// then per set its kind (32 bits), 6 descriptor bytes, the three texts (each
// a 32-bit length and its bytes) and the members (a 32-bit count and one
// 32-bit identifier word each).
void MakeExtension(std::vector<VariableSet> const& sets, std::string& payload,
                   QUOR_DataSource::ExtensionType type);

#endif  // SDM_CONTRACTS_DATASOURCE_H
