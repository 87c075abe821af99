#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/queues.h"

namespace {

using Lines = std::vector<std::string>;
using Serials = std::vector<uint32_t>;

// A file-backed source whose row count a test can set, and whose split
// count it can overstate.
class TestSource : public SystemFileDataSource {
 public:
  long long RowCount() const override { return rows; }
  int GetNSplitVars() const override {
    return claimedSplit >= 0 ? claimedSplit : SystemFileDataSource::GetNSplitVars();
  }
  long long rows = 0;
  int claimedSplit = -1;  // a count to report instead of the real one
};

LocallyUniqueID Id(char letter) { return LocallyUniqueID(0, static_cast<uint32_t>(letter - '@')); }

// Drives Update directly on one item. Every pass that starts on an empty
// queue must give the plain procedure's variable messages, and every queue,
// applied to a client copy, must leave it holding the live dictionary.
class ObserverViewTest : public ::testing::Test {
 protected:
  // Makes the live list exactly these identifiers (group 0), each with its
  // definition in `defs`.
  void Live(Serials const& serials) {
    source->DeleteVariables(0, static_cast<int>(source->ColumnCount()) - 1);
    for (uint32_t serial : serials) source->MakeVariable(Def(serial), nullptr);
  }
  void Live(std::string const& letters) {
    Serials serials;
    for (char letter : letters) serials.push_back(Id(letter).serial);
    Live(serials);
  }
  QUOR_Variable& Def(uint32_t serial) {
    return defs.emplace(serial, QUOR_Variable(LocallyUniqueID(0, serial), "v")).first->second;
  }
  QUOR_Variable& Def(char letter) { return Def(Id(letter).serial); }

  // Runs Update, checks it as above and returns its queue, emptied.
  Lines Update() {
    bool const fresh = item->notifications.empty();
    Lines const expected =
        LiteralVariableStage(VariablesOf(item->observerView.Snapshot()), VariablesOf(*source), bulk,
                             Id('Z'), item->caseSequence);
    item->observerView.Update();
    bulk = false;
    if (fresh) {
      EXPECT_EQ(VariableLines(item->notifications), expected);
    }
    EXPECT_EQ(client.Apply(item->notifications), "");
    EXPECT_EQ(client.Differences(*source), "");
    return Take();
  }
  Lines Take() {
    Lines lines = DescribeQueue(item->notifications);
    item->ClearNotifications();
    return lines;
  }
  void BulkNext() {
    item->observerView.BulkVarMoves(true);
    bulk = true;
  }

  std::map<uint32_t, QUOR_Variable> defs;
  bool bulk = false;
  TestSource* source = new TestSource;  // owned by the item
  SvrDMItemPtr item{new SvrDMItem(Id('Z'), source, nullptr, 5, "", true)};
  SvrDMClientCopy client;
};

// From each of three snapshots to every list of up to four distinct
// variables out of five (one of them new), some with a changed definition,
// on both paths: inserts at either end, gaps, moves both ways, tail deletes.
// The bulk path is one-shot and leaves the live dirty flag alone.
TEST_F(ObserverViewTest, EverySmallVariableListGivesThePlainProceduresMessages) {
  std::vector<std::string> lives = {""};
  for (std::size_t i = 0; i < lives.size(); ++i) {
    for (char letter : std::string("ABCDX")) {
      if (lives[i].size() < 4 && lives[i].find(letter) == std::string::npos)
        lives.push_back(lives[i] + letter);
    }
  }
  int round = 0;
  for (std::string const view : {"", "AB", "ABCD"}) {
    for (std::string const& live : lives) {
      SCOPED_TRACE(view + " -> " + live);
      Live(view);
      Update();
      if (++round % 3 == 0) Def('B').SetLabel(std::to_string(round));
      Live(live);
      bool const bulkRound = round % 7 == 0;
      if (bulkRound) BulkNext(), source->SetDirty(false);
      Update();
      EXPECT_FALSE(bulkRound && source->IsDirty()) << "the bulk path changed the live flag";
    }
  }
}

TEST_F(ObserverViewTest, EveryPropertyChangedQueuesInTheFixedOrder) {
  source->RowsPerImputation(4);
  Live("ABCDE");
  Update();

  source->rows = 9;
  source->RowsPerImputation(0);
  source->SetLabel("Survey 2026");
  source->SetWeightVar(2);
  source->SetFilterVar(3);
  source->GetTrendsInfo()->SetText("quarterly");
  int const positions[] = {4, 2};
  source->SetSplit(2, positions, true);
  VariableSetImpl set{{Id('A'), Id('B')}, "pair", "A pair", "", {{1, 2, 3, 4, 5, 6}}};
  source->SetMRSets({set});
  source->SetVariableSets({set});
  source->SetExtension(QUOR_DataSource::Extension(0, "record zero"));
  DatasourceAttributes attributes;
  attributes.Set("owner", "lab");
  source->SetAttributes(attributes);
  source->SetDirty(true);
  EXPECT_EQ(Update(), (Lines{"ImputationInfoMsg", "FileLabelChangeMsg", "WeightVarMsg",
                             "TrendsInfoMsg", "FilterVarMsg", "SplitFileMsg", "ExtensionsMsg 7",
                             "ExtensionsMsg 19", "ExtensionsMsg 5", "ExtensionsMsg 0",
                             "ExtensionsMsg 17", "ResetClientDataMsg", "DataSetModifiedMsg"}));
  // A filter set goes behind the trends (above), a filter removed ahead; the
  // split and the MR sets compare in order, a descriptor whole.
  source->SetFilterVar(-1);
  source->GetTrendsInfo()->SetText("monthly");
  source->SetSplit(2, std::vector<int>{2, 4}.data(), true);
  VariableSetImpl other = set;
  other.descriptor[5] = 9;
  source->SetMRSets({set, other});
  EXPECT_EQ(Update(), (Lines{"FilterVarMsg", "TrendsInfoMsg", "SplitFileMsg", "ExtensionsMsg 7",
                             "ExtensionsMsg 19"}));
  source->SetMRSets({other, set});
  EXPECT_EQ(Update(), (Lines{"ExtensionsMsg 7", "ExtensionsMsg 19"}));

  // What only looks different queues nothing: a moved weight variable, a
  // null label for an empty one, a rise of the rows per imputation (only a
  // drop to 0 is announced), a separate flag without a split.
  Live("EABCD");
  EXPECT_EQ(Update(), Lines{"MoveVarsMsg"});
  source->SetLabel("");
  source->SetSplit(0, nullptr, true);
  EXPECT_EQ(Update(), (Lines{"FileLabelChangeMsg", "SplitFileMsg"}));
  source->SetLabel(nullptr);
  source->RowsPerImputation(5);
  source->SetSplit(0, nullptr, false);
  EXPECT_EQ(Update(), Lines{});

  Def('E').SetType(8);  // a new type also resets the clients' rows
  Live("EABCD");
  EXPECT_EQ(Update(), (Lines{"ModifyVarMsg", "ResetClientDataMsg"}));
}

TEST_F(ObserverViewTest, FileSpecIsAnnouncedForFileRootsOnlyAndNeverForSharedNames) {
  // A head that is no file source over a file root: announced, head's text.
  auto* head = new DataFreeDataSource();
  head->SetParentSource(item->dataSource);
  item->dataSource = head;
  head->SetFileSpec("/data/a.csv");
  item->observerView.Update();
  EXPECT_EQ(Take(), (Lines{"FileSpecChangeMsg", "ResetClientDataMsg"}));
  EXPECT_EQ(item->fileName, "/data/a.csv");

  // A dataset that shares its file never announces it, however often asked.
  item->sharedFileName = "/data/b.csv";
  head->SetFileSpec("/data/b.csv");
  item->observerView.Update();
  item->observerView.Update();
  EXPECT_EQ(Take(), Lines{});
}

// A source that claims more split variables than a split can hold is
// refused before the split stage writes or queues anything. (An Update that
// fails midway resumes at the next: the injection tests check it.)
TEST_F(ObserverViewTest, ASplitOfMoreThanEightIsRefusedBeforeAnythingIsWritten) {
  Live("AB");
  Update();
  source->claimedSplit = 9;
  EXPECT_THROW(item->observerView.Update(), std::out_of_range);
  EXPECT_EQ(Take(), Lines{});
  source->claimedSplit = -1;
  EXPECT_EQ(Update(), Lines{});
}

// An identifier twice in the live list is refused on both paths, whether the
// walk or the index plans it, with the snapshot and the queue as they were.
TEST_F(ObserverViewTest, DuplicateIdentifiersAreRefusedBeforeAnythingChanges) {
  Serials ids(200);
  for (uint32_t i = 0; i < 200; ++i) ids[i] = i + 1;
  Live(ids);
  Update();
  Serials reversed(ids.rbegin(), ids.rend());
  reversed.push_back(150);
  for (Serials const& live : {Serials{1, 2, 999, 4, 999}, Serials{1, 2, 3, 1}, reversed}) {
    for (bool bulkPath : {false, true}) {
      Live(live);
      std::vector<QUOR_Variable> const before = VariablesOf(item->observerView.Snapshot());
      item->observerView.BulkVarMoves(bulkPath);
      EXPECT_THROW(item->observerView.Update(), std::invalid_argument);
      EXPECT_TRUE(item->notifications.empty());
      EXPECT_TRUE(VariablesOf(item->observerView.Snapshot()) == before);
    }
  }
}

}  // namespace
