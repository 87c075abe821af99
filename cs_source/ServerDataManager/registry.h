// The table of the datasets open in one server process.
#ifndef SDM_REGISTRY_H
#define SDM_REGISTRY_H

#include <memory>
#include <string>
#include <vector>

#include "platform.h"
#include "sdmexport.h"
#include "svrdmitem.h"

class QUOR_DataSource;
class QUOR_DataSourceFilterHook;
class SvrDMDataset;

// Implemented by the server: hears datasets come into being and go. Called
// with the registry's lock held; DataSetCreated may unregister its own
// observer, DataSetDeleted must leave the list alone.
class SDM_EXPORT ServerDataManagerObserver {
 public:
  virtual ~ServerDataManagerObserver() = default;
  virtual void DataSetCreated(LocallyUniqueID const& id, std::string const& fileName) = 0;
  virtual void DataSetDeleted(LocallyUniqueID const& id) = 0;
};

// Gives each dataset its identifier and its one SvrDMItem, finds items by
// identifier and handle, and removes them. The table holds counted pointers,
// so an item outlives its entry while anything else refers to it. Every
// operation may be called from any thread; one recursive lock guards the
// table and the observers. Items point back to their registry, so a registry
// other than the process one must outlive every handle on its datasets.
class SDM_EXPORT ServerDataManager {
 public:
  // The process-wide instance. It exists before main runs and ends after
  // the static objects of every file that includes this header: such an
  // object may use it from its constructor and from its destructor.
  static ServerDataManager& GetInstance();

  ServerDataManager();
  ~ServerDataManager();
  ServerDataManager(ServerDataManager const&) = delete;
  ServerDataManager& operator=(ServerDataManager const&) = delete;

  // The four ways in. Each takes ownership of the data source (also through
  // the reference) and its parent chain. `silent` keeps registry observers
  // from hearing of the dataset.
  LocallyUniqueID Add(QUOR_DataSource& dataSource, std::string const& fileName, bool silent);
  LocallyUniqueID Add(QUOR_DataSource& dataSource, std::string const& fileName,
                      std::string const& password, bool passwordMangled, bool silent);
  // Replaces whatever dataset has `id`, and gives the new one that
  // identifier and case sequence.
  void Add(QUOR_DataSource& dataSource, std::string const& fileName, bool silent,
           LocallyUniqueID id, unsigned int caseSequence);
  LocallyUniqueID AddEmpty(bool silent);

  // Removes the dataset; an unknown identifier is no error.
  void Delete(LocallyUniqueID const& id);
  // Removes every dataset, last added first.
  void Clear();

  // Throws ErrorMsg 2001 for an unknown identifier.
  SvrDMItemPtr GetDataSet(LocallyUniqueID const& id) const;
  // A null pointer for an unknown handle. Case is ignored.
  SvrDMItemPtr GetDataSet(std::string const& handle) const;

  // Whether the data file `fileName` (case ignored) has changed behind the
  // server's back, asked of the dataset that holds it; when several datasets
  // carry that name the last one's answer stands. False with no match.
  bool SavFileExternallyChanged(std::string const& fileName) const;
  // Replaces the password of dataset `id`; an unknown identifier is no error.
  void Password(LocallyUniqueID const& id, std::string const& password, bool mangled);

  // Registry observers: Register makes the observer the last in the list
  // (moving it there if it was in the list already); neither is owned.
  void Register(ServerDataManagerObserver& observer);
  void Unregister(ServerDataManagerObserver& observer);
  // Sends the creation notice of `item` if it is announced, has a data
  // source and has not had it yet.
  void NotifyCreate(SvrDMItem& item);
  // Makes `hook` the one filter of incoming data sources (null: none) and
  // returns the previous one. Takes no lock: no Add may run meanwhile.
  QUOR_DataSourceFilterHook* RegisterFilter(QUOR_DataSourceFilterHook* hook);

  // One handle per open dataset, in the order of addition. Each holds its
  // own reference, so the result outlives later deletions.
  std::vector<SvrDMDataset> GetAllDatasets() const;

  struct Data;

 private:
  std::unique_ptr<Data> data_;
};

// Keeps the process-wide instance alive for as long as a static object of any
// file that includes this header may use it, from its constructor or from its
// destructor. Each such file holds one of these ahead of its own objects: the
// first to be built builds the instance, the last to end ends it.
class SDM_EXPORT SvrDMRegistryInit {
 public:
  SvrDMRegistryInit();
  ~SvrDMRegistryInit();
  SvrDMRegistryInit(SvrDMRegistryInit const&) = delete;
  SvrDMRegistryInit& operator=(SvrDMRegistryInit const&) = delete;
};

// One per file, with internal linkage on purpose.
static SvrDMRegistryInit const sdmRegistryInit;

#endif  // SDM_REGISTRY_H
