// The road of a dataset through the registry: added, found, deleted.
#include <iostream>
#include <string>

#include "ServerDataManager.h"

namespace {
class PrintingObserver : public ServerDataManagerObserver {
 public:
  void DataSetCreated(LocallyUniqueID const& id, std::string const& fileName) override {
    std::cout << "observer: dataset " << id.ToWord() << " created from \"" << fileName << "\"\n";
  }
  void DataSetDeleted(LocallyUniqueID const& id) override {
    std::cout << "observer: dataset " << id.ToWord() << " deleted\n";
  }
};
}  // namespace

int main(int argc, char** argv) {
  std::string const path = argc > 1 ? argv[1] : SDM_SAMPLE_DATA;
  ServerDataManager& registry = ServerDataManager::GetInstance();
  PrintingObserver observer;
  registry.Register(observer);

  LocallyUniqueID id = registry.Add(*new SystemFileDataSource(path), path, false);
  std::cout << "added " << path << " as dataset " << id.ToWord() << "\n";

  SvrDMItemPtr item = registry.GetDataSet(id);
  std::cout << "found dataset " << item->dataSetID.ToWord() << ", file \"" << item->fileName << "\"\n";

  registry.Delete(id);
  try {
    registry.GetDataSet(id);
  } catch (ErrorMsg const& error) {
    std::cout << "after delete, lookup refused with error " << error.GetCode() << "\n";
  }
  std::cout << "the handle taken before the delete still reads dataset " << item->dataSetID.ToWord()
            << "\n";
  registry.Unregister(observer);
  return 0;
}
