// Adds a dataset through the installed library and checks that it is found.
#include <cstdio>

#include "ServerDataManager.h"

int main() {
  ServerDataManager registry;
  LocallyUniqueID id = registry.AddEmpty(true);
  SvrDMItemPtr item = registry.GetDataSet(id);
  if (!item.IsValid() || item->dataSetID != id) {
    std::puts("consumer: dataset not found");
    return 1;
  }
  std::puts("consumer: installed package works");
  return 0;
}
