#include <functional>
#include <stdexcept>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/access_probes.h"

namespace {

using Lines = std::vector<std::string>;

class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override { registry.Register(a); }
  void TearDown() override { registry.Unregister(b), registry.Unregister(a); }
  LocallyUniqueID Add(std::string const& name = "s", std::string const& file = "") {
    return registry.Add(*TrackedSource::Chain(&destroyed, {name}), file, false);
  }

  Lines destroyed, log;
  Listener a{"A", &log}, b{"B", &log};
  ServerDataManager registry;
};

TEST_F(RegistryTest, IdentifiersCountBySixteenAreNeverReusedAndAnUnknownOneIs2001) {
  EXPECT_EQ(Add("old", "old.csv").ToWord(), 0u);
  SvrDMItemPtr second = registry.GetDataSet(registry.Add(*new TrackedSource, "", "pw", true, true));
  EXPECT_EQ(second->password + std::to_string(second->passwordMangled), "pw1");
  registry.Password(second->dataSetID, "new", false);
  EXPECT_EQ(second->password + std::to_string(second->passwordMangled), "new0");
  EXPECT_EQ(registry.AddEmpty(true).ToWord(), 32u);
  registry.Delete(LocallyUniqueID(0, 2));
  EXPECT_EQ(Add().ToWord(), 48u);
  // Under a used identifier the old dataset goes first; the counter is
  // neither read nor moved.
  registry.Add(*TrackedSource::Chain(&destroyed, {"new"}), "new.csv", false, {0, 0}, 7);
  EXPECT_EQ(registry.GetDataSet(LocallyUniqueID(0, 0))->caseSequence, 7u);
  EXPECT_EQ(Add().ToWord(), 64u);
  EXPECT_EQ(destroyed, Lines{"old"});
  EXPECT_EQ(log, (Lines{"A created 0 old.csv", "A created 48 ", "A deleted 0",
                        "A created 0 new.csv", "A created 64 "}));
  // Same serial, other group; the soak checks the code, 2001.
  EXPECT_THROW(registry.GetDataSet(LocallyUniqueID(1, 0)), ErrorMsg);
}

TEST_F(RegistryTest, NoticesFollowAnnounceAndSourceAndHandlesKeepWhatIsDeleted) {
  registry.AddEmpty(false);  // no source: no creation notice, but a deletion notice
  registry.Add(*TrackedSource::Chain(&destroyed, {"silent"}), "", true);  // nothing ever
  registry.GetDataSet(Add("kept", "kept.csv"))->handle = "Sales";
  SvrDMItemPtr kept = registry.GetDataSet(std::string("sALES"));
  EXPECT_FALSE(registry.GetDataSet(std::string("missing")).IsValid());
  registry.Clear();
  EXPECT_EQ(log, (Lines{"A created 32 kept.csv", "A deleted 32", "A deleted 0"}));
  EXPECT_EQ(destroyed, Lines{"silent"});
  EXPECT_EQ(kept->fileName, "kept.csv");  // a handle keeps what is deleted
}

TEST_F(RegistryTest, ObserversStandOnceInOrderOfRegistrationAndMayLeaveInTheirNotice) {
  registry.Register(a);
  Add("", "one");
  registry.Register(b);
  registry.Register(a);  // moves to the end
  b.then = [&] { registry.Unregister(b); };
  Add("", "two");
  registry.Register(b);  // and stays: A's throw comes first
  a.then = [] { throw std::runtime_error("observer"); };
  EXPECT_THROW(Add("", "three"), std::runtime_error);  // before B heard
  EXPECT_EQ(log, (Lines{"A created 0 one", "B created 16 two", "A created 16 two",
                        "A created 32 three"}));
  // A notice that deletes an earlier dataset shifts the table under the deletion.
  int notices = 0;
  b.then = nullptr;  // a deletion notice leaves the observers alone
  a.then = [&] {
    if (notices++ == 0) registry.Delete(LocallyUniqueID(0, 0));
  };
  registry.Delete(LocallyUniqueID(0, 1));
  EXPECT_EQ(registry.GetAllDatasets().size(), 1u);
  EXPECT_NO_THROW(registry.GetDataSet(LocallyUniqueID(0, 2)));
}

// Operations on threads of their own wait while this one holds the
// registry inside a deletion notice; the last, a write access that gives an
// empty dataset its first source, waits to send the creation notice.
TEST_F(RegistryTest, OperationsWaitWhileAnotherThreadHoldsTheRegistry) {
  LocallyUniqueID const id = Add(), other = Add();
  SvrDMItemPtr empty = registry.GetDataSet(registry.AddEmpty(false));
  std::function<void()> const operations[] = {
      [&] { registry.Password(id, "pw", false); },
      [&] { registry.Register(b); },
      [&] { registry.Unregister(b); },
      [&] { registry.GetAllDatasets(); },
      [&] { registry.GetDataSet(id); },
      [&] { registry.GetDataSet(std::string("h")); },
      [&] { registry.AddEmpty(true); },
      [&] { registry.Add(*new TrackedSource, "", true); },
      [&] { registry.Add(*new TrackedSource, "", "pw", false, true); },
      [&] { registry.SavFileExternallyChanged("f"); },
      [&] { registry.Clear(); },
      [&] { SvrDMWriteableDataSource(empty, false, nullptr).SetDataSet(new TrackedSource); }};
  std::vector<std::future<void>> waiting;
  a.then = [&] {
    if (!waiting.empty()) return;
    for (auto const& operation : operations) {
      waiting.push_back(std::async(std::launch::async, operation));
    }
    for (auto const& run : waiting) EXPECT_TRUE(Waits(run)) << "finished while held";
  };
  registry.Delete(other);
}

}  // namespace
