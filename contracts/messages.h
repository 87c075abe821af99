// The messages library of the server: the notification messages that tell a
// dataset's watchers what a writer changed.
#ifndef SDM_CONTRACTS_MESSAGES_H
#define SDM_CONTRACTS_MESSAGES_H

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "RefCountPtr.h"
#include "datasource.h"
#include "platform.h"
#include "serialization.h"

// Base of every notification message. Blocks come from VUGlobal. Every
// message holds its own copy of what it was given (an extension is shared by
// reference count), so it outlives the strings, arrays and variables it was
// built from. A message is built and read by one thread at a time.
//
// Process passes the message through a stream by ForeignProcess with number
// 1 and the class name; a default-constructed message of the same class
// rebuilds itself from the stream that way.
class DataSetMsg : public VSerializable {
 public:
  ~DataSetMsg() override;

  int Process(VStream& stream) override;
  // Passes the fields through the stream, in either direction.
  virtual void Serialize(VStream& stream);
  // One line: the class name and every field.
  virtual void Print(std::ostream& out) const;

  uint32_t GetReserved() const { return reserved_; }
  LocallyUniqueID GetDataSetID() const { return dataSetID_; }
  uint32_t GetCaseSequence() const { return caseSequence_; }

 protected:
  // Reserved 0, no dataset, case sequence 0.
  DataSetMsg();
  DataSetMsg(uint32_t reserved, LocallyUniqueID dataSetID, uint32_t caseSequence);
  DataSetMsg(DataSetMsg const&) = default;
  DataSetMsg& operator=(DataSetMsg const&) = default;

  // The fields behind the common three, for Print; empty in the base.
  virtual void PrintFields(std::ostream& out) const;

 private:
  uint32_t reserved_;
  LocallyUniqueID dataSetID_;
  uint32_t caseSequence_;
};

// The message on one line, for logs.
std::ostream& operator<<(std::ostream& out, DataSetMsg const& message);

// The listed variables have left the dictionary, in dictionary order.
class DeleteVarsMsg : public DataSetMsg {
 public:
  DeleteVarsMsg() = default;
  DeleteVarsMsg(uint32_t reserved, LocallyUniqueID dataSetID, uint32_t caseSequence,
                std::vector<QUOR_Variable> variables);
  DeleteVarsMsg* Clone() const override;
  char const* GetClassName() const override;
  void Serialize(VStream& stream) override;

  std::vector<QUOR_Variable> const& GetVariables() const { return variables_; }

 protected:
  void PrintFields(std::ostream& out) const override;

 private:
  std::vector<QUOR_Variable> variables_;
};

// The listed variables enter the dictionary in front of `beforeID`, or at the
// end when it is all-ones. The constructor takes the list over and leaves
// `variables` empty.
class InsertVarsMsg : public DataSetMsg {
 public:
  InsertVarsMsg() = default;
  InsertVarsMsg(uint32_t reserved, LocallyUniqueID dataSetID, uint32_t caseSequence,
                std::vector<QUOR_Variable>& variables, LocallyUniqueID beforeID);
  InsertVarsMsg* Clone() const override;
  char const* GetClassName() const override;
  void Serialize(VStream& stream) override;

  std::vector<QUOR_Variable> const& GetVariables() const { return variables_; }
  LocallyUniqueID GetBeforeID() const { return beforeID_; }

 protected:
  void PrintFields(std::ostream& out) const override;

 private:
  std::vector<QUOR_Variable> variables_;
  LocallyUniqueID beforeID_;
};

// The variable at the position in `indices` now stands at `target`.
class MoveVarsMsg : public DataSetMsg {
 public:
  MoveVarsMsg() = default;
  MoveVarsMsg(uint32_t reserved, LocallyUniqueID dataSetID, uint32_t caseSequence,
              std::vector<unsigned int> indices, unsigned int target);
  MoveVarsMsg* Clone() const override;
  char const* GetClassName() const override;
  void Serialize(VStream& stream) override;

  std::vector<unsigned int> const& GetIndices() const { return indices_; }
  unsigned int GetTarget() const { return target_; }

 protected:
  void PrintFields(std::ostream& out) const override;

 private:
  std::vector<unsigned int> indices_;
  unsigned int target_ = 0;
};

// The variable with this identifier now has this definition.
class ModifyVarMsg : public DataSetMsg {
 public:
  ModifyVarMsg() = default;
  ModifyVarMsg(uint32_t reserved, LocallyUniqueID dataSetID, uint32_t caseSequence,
               QUOR_Variable& variable);
  ModifyVarMsg* Clone() const override;
  char const* GetClassName() const override;
  void Serialize(VStream& stream) override;

  QUOR_Variable const& GetVariable() const { return variable_; }

 protected:
  void PrintFields(std::ostream& out) const override;

 private:
  QUOR_Variable variable_;
};

// The weight variable is now this one.
class WeightVarMsg : public DataSetMsg {
 public:
  WeightVarMsg() = default;
  WeightVarMsg(uint32_t reserved, LocallyUniqueID dataSetID, uint32_t caseSequence,
               LocallyUniqueID weightID);
  WeightVarMsg* Clone() const override;
  char const* GetClassName() const override;
  void Serialize(VStream& stream) override;

  LocallyUniqueID GetWeightID() const { return weightID_; }

 protected:
  void PrintFields(std::ostream& out) const override;

 private:
  LocallyUniqueID weightID_;
};

// The filter variable is now this one; all-ones when the filter was removed.
class FilterVarMsg : public DataSetMsg {
 public:
  FilterVarMsg() = default;
  FilterVarMsg(uint32_t reserved, LocallyUniqueID dataSetID, uint32_t caseSequence,
               LocallyUniqueID filterID);
  FilterVarMsg* Clone() const override;
  char const* GetClassName() const override;
  void Serialize(VStream& stream) override;

  LocallyUniqueID GetFilterID() const { return filterID_; }

 protected:
  void PrintFields(std::ostream& out) const override;

 private:
  LocallyUniqueID filterID_;
};

// The split variables are now the first `splitCount` identifiers, in order.
class SplitFileMsg : public DataSetMsg {
 public:
  static constexpr int kMaxSplitVars = 8;

  SplitFileMsg() = default;
  // Copies `splitCount` identifiers from `splitIDs`, which is not read for 0.
  // Throws std::invalid_argument for a count outside 0 to 8, or a null array
  // with a positive count.
  SplitFileMsg(uint32_t reserved, LocallyUniqueID dataSetID, uint32_t caseSequence, int splitCount,
               LocallyUniqueID const* splitIDs, bool separate);
  SplitFileMsg* Clone() const override;
  char const* GetClassName() const override;
  void Serialize(VStream& stream) override;

  int GetSplitCount() const { return static_cast<int>(splitIDs_.size()); }
  std::vector<LocallyUniqueID> const& GetSplitIDs() const { return splitIDs_; }
  bool GetSeparate() const { return separate_; }

 protected:
  void PrintFields(std::ostream& out) const override;

 private:
  std::vector<LocallyUniqueID> splitIDs_;
  bool separate_ = false;
};

// The dataset's label is now this text; empty when it was removed.
class FileLabelChangeMsg : public DataSetMsg {
 public:
  FileLabelChangeMsg() = default;
  // Copies the text; null reads as empty.
  FileLabelChangeMsg(uint32_t reserved, LocallyUniqueID dataSetID, uint32_t caseSequence,
                     char const* label);
  FileLabelChangeMsg* Clone() const override;
  char const* GetClassName() const override;
  void Serialize(VStream& stream) override;

  std::string const& GetLabel() const { return label_; }

 protected:
  void PrintFields(std::ostream& out) const override;

 private:
  std::string label_;
};

// The dataset's file path (GetFileSpec of its source) is now this text.
class FileSpecChangeMsg : public DataSetMsg {
 public:
  FileSpecChangeMsg() = default;
  // Copies the text; null reads as empty.
  FileSpecChangeMsg(uint32_t reserved, LocallyUniqueID dataSetID, uint32_t caseSequence,
                    char const* fileSpec, bool specFlag);
  FileSpecChangeMsg* Clone() const override;
  char const* GetClassName() const override;
  void Serialize(VStream& stream) override;

  std::string const& GetFileSpec() const { return fileSpec_; }
  bool GetSpecFlag() const { return specFlag_; }

 protected:
  void PrintFields(std::ostream& out) const override;

 private:
  std::string fileSpec_;
  bool specFlag_ = false;
};

// An extension record changed. The record is shared, not copied: it never
// changes after construction.
class ExtensionsMsg : public DataSetMsg {
 public:
  ExtensionsMsg() = default;
  ExtensionsMsg(uint32_t reserved, LocallyUniqueID dataSetID, uint32_t caseSequence,
                RefCountPtr<QUOR_ExtensionImpl> const& extension);
  ExtensionsMsg* Clone() const override;
  char const* GetClassName() const override;
  void Serialize(VStream& stream) override;

  RefCountPtr<QUOR_ExtensionImpl> const& GetExtension() const { return extension_; }

 protected:
  void PrintFields(std::ostream& out) const override;

 private:
  RefCountPtr<QUOR_ExtensionImpl> extension_;
};

// The trends information is now this.
class TrendsInfoMsg : public DataSetMsg {
 public:
  TrendsInfoMsg() = default;
  // Copies the record; null reads as an empty one.
  TrendsInfoMsg(uint32_t reserved, LocallyUniqueID dataSetID, uint32_t caseSequence,
                QUOR_TrendsInfo const* trendsInfo);
  TrendsInfoMsg* Clone() const override;
  char const* GetClassName() const override;
  void Serialize(VStream& stream) override;

  QUOR_TrendsInfo const& GetTrendsInfo() const { return trendsInfo_; }

 protected:
  void PrintFields(std::ostream& out) const override;

 private:
  QUOR_TrendsInfo trendsInfo_;
};

// The dataset's rows per imputation are now `rowsPerImputation`, set by the
// builder after construction. Carries no dataset and no case sequence.
class ImputationInfoMsg : public DataSetMsg {
 public:
  ImputationInfoMsg() = default;
  ImputationInfoMsg* Clone() const override;
  char const* GetClassName() const override;
  void Serialize(VStream& stream) override;

  int64_t GetRowsPerImputation() const { return rowsPerImputation; }

  int64_t rowsPerImputation = 0;

 protected:
  void PrintFields(std::ostream& out) const override;
};

// The client's copy of the case data is void; the dataset has this many rows.
class ResetClientDataMsg : public DataSetMsg {
 public:
  ResetClientDataMsg() = default;
  ResetClientDataMsg(uint32_t reserved, LocallyUniqueID dataSetID, uint32_t caseSequence,
                     int64_t rowCount);
  ResetClientDataMsg* Clone() const override;
  char const* GetClassName() const override;
  void Serialize(VStream& stream) override;

  int64_t GetRowCount() const { return rowCount_; }

 protected:
  void PrintFields(std::ostream& out) const override;

 private:
  int64_t rowCount_ = 0;
};

// The dataset's data source has been replaced. No fields.
class ResetUndoMsg : public DataSetMsg {
 public:
  ResetUndoMsg() = default;
  ResetUndoMsg* Clone() const override;
  char const* GetClassName() const override;
};

// The dirty state of the dataset is now this.
class DataSetModifiedMsg : public DataSetMsg {
 public:
  DataSetModifiedMsg() = default;
  DataSetModifiedMsg(uint32_t reserved, LocallyUniqueID dataSetID, uint32_t caseSequence,
                     bool dirty);
  DataSetModifiedMsg* Clone() const override;
  char const* GetClassName() const override;
  void Serialize(VStream& stream) override;

  bool GetDirty() const { return dirty_; }

 protected:
  void PrintFields(std::ostream& out) const override;

 private:
  bool dirty_ = false;
};

#endif  // SDM_CONTRACTS_MESSAGES_H
