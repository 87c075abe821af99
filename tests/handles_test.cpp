#include <atomic>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/access_probes.h"

namespace {

TEST(HandlesTest, GetAllDatasetsHoldsEachDatasetInOrderOfAdditionPastAClear) {
  std::atomic<int> destroyed{0};
  ServerDataManager registry;
  LocallyUniqueID a = registry.Add(*new ProbeSource(&destroyed), "a", false);
  LocallyUniqueID b = registry.AddEmpty(true);
  LocallyUniqueID c = registry.Add(*new ProbeSource(&destroyed), "c", false);
  std::vector<SvrDMDataset> all = registry.GetAllDatasets();
  std::vector<LocallyUniqueID> ids;
  for (SvrDMDataset const& handle : all) ids.push_back(handle.GetDataSetID());
  EXPECT_EQ(ids, (std::vector<LocallyUniqueID>{a, b, c}));

  registry.Clear();
  EXPECT_EQ(all[2].GetFileName(), "c");
  EXPECT_EQ(destroyed, 0);
  all.clear();
  EXPECT_EQ(destroyed, 2);
}

}  // namespace
