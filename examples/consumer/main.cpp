// README's usage example, built against the installed package as a server
// would build it, and run on the data file given as the argument.
#include <iostream>
#include <string>

#include "ServerDataManager.h"

struct Client : SvrDMDataSetObserver {  // one client of a dataset
  void DataSetChanged(SvrDMWriteableDataSource const* access) override {
    for (DataSetMsg const* message : access->GetNotifications()) std::cout << *message << "\n";
    std::string const refused = copy.Apply(access->GetNotifications());
    if (!refused.empty()) std::cerr << refused << "\n";
  }
  SvrDMClientCopy copy;  // its own copy of the dictionary, kept from the messages
};

int main(int argc, char** argv) {
  std::string const file = argc > 1 ? argv[1] : "survey.csv";
  ServerDataManager& registry = ServerDataManager::GetInstance();
  auto* source = new SystemFileDataSource(file);  // the registry takes ownership
  LocallyUniqueID id = registry.Add(*source, file, /*silent=*/false);
  Client client;
  SvrDMDataset(id).Register(client);
  std::string differences = "not compared";
  try {
    {
      SvrDMWriteableDataSource writer(id, /*tryOnly=*/false, nullptr);  // write lock
      writer->GetVariable(0).SetName("respondent");  // change it; announce nothing
    }  // compared with the snapshot here: the client's first pass tells it the
       // whole dictionary (an InsertVarsMsg a variable), later ones what changed
    SvrDMInputDataSource reader(id, /*tryOnly=*/false);  // shared read lock
    std::cout << reader->ColumnCount() << " variables\n";
    differences = client.copy.Differences(*reader);
  } catch (...) {  // ErrorMsg 2001, int 55, or what a data source threw
    std::cerr << SvrDMDescribeFailure(id) << "\n";
  }
  SvrDMDataset(id).Unregister(client);
  registry.Delete(id);
  if (!differences.empty()) {
    std::cerr << "consumer: the client's copy differs: " << differences << "\n";
    return 1;
  }
  std::cout << "consumer: installed package works\n";
  return 0;
}
