#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/tracked_source.h"

namespace {

TEST(HandlesTest, AHandleShowsItsItemAtOnceAndOneThatFoundNothingIsHidden) {
  EXPECT_TRUE(SvrDMDataset(std::string("no such handle")).WindowHidden());
  ServerDataManager registry;
  LocallyUniqueID const id = registry.Add(*new TrackedSource, "", true);
  SvrDMDataset handle(registry, id);
  EXPECT_FALSE(handle.WindowHidden());
  handle.WindowHidden(true);
  EXPECT_TRUE(handle.WindowHidden());
  auto* specs = new SvrBootstrapSpecs;
  handle.SetBootstrapSpecs(specs);
  handle.SetBootstrapSpecs(specs);  // the same record again is kept, not freed
  EXPECT_EQ(handle.GetBootstrapSpecs(), specs);
  EXPECT_EQ(specs->GetNSamples(), 1000);
  {
    SvrDMWriteableDataSource writer(registry, id, false, nullptr);
    writer.IncrementCaseSequence();
    EXPECT_EQ(handle.GetCaseSequence(), 1u) << "seen before the access ends";
  }
}

}  // namespace
