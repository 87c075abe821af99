// The data-source library of the server: data sources, their dictionaries
// and rows.
#ifndef SDM_CONTRACTS_DATASOURCE_H
#define SDM_CONTRACTS_DATASOURCE_H

#include <string>

// Base of all data sources. A source never deletes its parent: whoever owns
// the head of a chain deletes the members one by one.
class QUOR_DataSource {
 public:
  explicit QUOR_DataSource(QUOR_DataSource const* parent) : parent_(const_cast<QUOR_DataSource*>(parent)) {}
  virtual ~QUOR_DataSource() = default;
  virtual long long RowCount() const { return 0; }

  QUOR_DataSource* GetParentSource() const { return parent_; }
  void SetParentSource(QUOR_DataSource const* parent) { parent_ = const_cast<QUOR_DataSource*>(parent); }

 private:
  QUOR_DataSource* parent_;
};

// A source backed by a data file; the root of a chain.
class SystemFileDataSource : public QUOR_DataSource {
 public:
  SystemFileDataSource() : QUOR_DataSource(nullptr) {}
  bool GetPasswordMangled() const { return passwordMangled_; }
  void SetPasswordMangled(bool mangled) { passwordMangled_ = mangled; }

 private:
  bool passwordMangled_ = false;
};

// Implemented by the server: sees each data source on its way into a new
// dataset and returns the one to use instead (possibly the same). Called
// under the registry's lock.
class QUOR_DataSourceFilterHook {
 public:
  virtual QUOR_DataSource* Filter(QUOR_DataSource* source) = 0;
  virtual ~QUOR_DataSourceFilterHook() = default;
};

#endif  // SDM_CONTRACTS_DATASOURCE_H
