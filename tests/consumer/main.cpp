// README's usage example, built against the installed package as a server
// would build it, and run on the data file given as the argument.
#include <iostream>
#include <string>

#include "ServerDataManager.h"

struct Watcher : SvrDMDataSetObserver {  // a client's view of one dataset
  void DataSetChanged(SvrDMWriteableDataSource const* access) override {
    for (DataSetMsg const* message : access->GetNotifications()) std::cout << *message << "\n";
  }
};

int main(int argc, char** argv) {
  std::string const file = argc > 1 ? argv[1] : "survey.csv";
  ServerDataManager& registry = ServerDataManager::GetInstance();
  auto* source = new SystemFileDataSource(file);  // the registry takes ownership
  LocallyUniqueID id = registry.Add(*source, file, /*silent=*/false);
  Watcher watcher;
  SvrDMDataset(id).Register(watcher);
  {
    SvrDMInputDataSource reader(id, /*tryOnly=*/false);  // shared read lock
    std::cout << reader->ColumnCount() << " variables\n";
  }
  {
    SvrDMWriteableDataSource writer(id, /*tryOnly=*/false, nullptr);  // write lock
    writer->GetVariable(0).SetName("respondent");                     // change it; announce nothing
  }  // compared with the snapshot here: the watcher's first pass tells it the
     // whole dictionary (an InsertVarsMsg a variable), later ones what changed
  SvrDMDataset(id).Unregister(watcher);
  registry.Delete(id);
  std::cout << "consumer: installed package works\n";
  return 0;
}
