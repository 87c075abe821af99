#include <algorithm>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/queues.h"

namespace {

using Lines = std::vector<std::string>;

// A file-backed source whose row count a test can set or make throw, and
// whose split count it can overstate.
class TestSource : public SystemFileDataSource {
 public:
  long long RowCount() const override {
    if (throwOnRowCount) throw std::runtime_error("row count unavailable");
    return rows;
  }
  int GetNSplitVars() const override {
    return claimedSplit >= 0 ? claimedSplit : SystemFileDataSource::GetNSplitVars();
  }
  long long rows = 0;
  int claimedSplit = -1;  // a count to report instead of the real one
  bool throwOnRowCount = false;
};

LocallyUniqueID Id(char letter) { return LocallyUniqueID(0, static_cast<uint32_t>(letter - '@')); }

// Drives Update directly on one item and checks every queue against a
// watcher's model of the dictionary.
class ObserverViewTest : public ::testing::Test {
 protected:
  // Makes the live list exactly `letters`, each with its definition in `defs`.
  void Live(std::string const& letters) {
    while (source->ColumnCount() > 0) source->DeleteVariables(0, 0);
    for (char letter : letters) {
      defs.emplace(letter, QUOR_Variable(Id(letter), std::string(1, letter)));
      source->InsertVariable(static_cast<long>(source->ColumnCount()), defs.at(letter));
    }
  }

  // Runs Update and returns its queue as lines, after applying it to the
  // watcher model and checking that the model now equals the live source.
  // The variable messages are also checked against the plain procedure's.
  Lines Update() {
    bool const fresh = item->notifications.empty();
    std::vector<std::string> const expected =
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
  // The queue as lines, emptied.
  Lines Take() {
    Lines lines = DescribeQueue(item->notifications);
    item->ClearNotifications();
    return lines;
  }
  // Makes the live list the given identifiers, each with its definition in
  // `defs` (made for a new one).
  void LiveIds(std::vector<uint32_t> const& serials) {
    source->DeleteVariables(0, static_cast<int>(source->ColumnCount()) - 1);
    for (uint32_t serial : serials) {
      auto at = wide.emplace(serial, QUOR_Variable(LocallyUniqueID(1, serial), "v")).first;
      source->MakeVariable(at->second, nullptr);
    }
  }
  void BulkNext() {
    item->observerView.BulkVarMoves(true);
    bulk = true;
  }
  void Start(std::string const& letters) {
    Live(letters);
    Update();
  }

  std::map<char, QUOR_Variable> defs;
  std::map<uint32_t, QUOR_Variable> wide;
  bool bulk = false;
  TestSource* source = new TestSource;  // owned by the item
  SvrDMItemPtr item{new SvrDMItem(Id('Z'), source, nullptr, 5, "", true)};
  SvrDMClientCopy client;
};

TEST_F(ObserverViewTest, VariableDifferencesGiveExactlyTheirMessages) {
  // The snapshot's list, the live list, and the messages between them.
  std::vector<std::tuple<std::string, std::string, Lines>> const cases = {
      {"ABC", "ABC", {}},
      {"ABC", "ABCD", {"Insert [D] before none"}},
      {"ABC", "AXBC", {"Insert [X] before B"}},
      {"ABCD", "DABC", {"Move 3 -> 0"}},
      {"ABCD", "BCDA", {"Move 1 -> 0", "Move 2 -> 1", "Move 3 -> 2"}},
      {"ABC", "C", {"Delete [A,B]"}},
      {"ABC", "A", {"Delete [B,C]"}},
      {"AXB", "BA", {"Delete [X]", "Move 1 -> 0"}},
      {"DB", "XB", {"Insert [X] before D", "Delete [D]"}},
      {"ABC", "", {"Delete [A,B,C]"}},
      {"", "ABC", {"Insert [A] before none", "Insert [B] before none", "Insert [C] before none"}},
  };
  for (auto const& [view, live, expected] : cases) {
    SCOPED_TRACE(view + " -> " + live);
    Start(view);
    Live(live);
    EXPECT_EQ(Update(), expected);
  }
}

TEST_F(ObserverViewTest, ChangedDefinitionsGoOutAsModifiesOrInBulk) {
  Start("ABCD");
  defs.at('A').SetLabel("first");
  Live("BCDA");
  EXPECT_EQ(Update(),
            (Lines{"Move 1 -> 0", "Move 2 -> 1", "Move 3 -> 2", "Modify A", "Modified true"}));
  defs.at('C').SetType(8);  // a new type also resets the clients' rows
  Live("BCDA");
  EXPECT_EQ(Update(), (Lines{"Modify C", "ResetClient 0"}));

  source->SetDirty(false);
  defs.at('B').SetName("renamed");
  Live("DBCA");
  BulkNext();
  EXPECT_EQ(Update(),
            (Lines{"Delete [B,C,D,A]", "Insert [D,B,C,A] before none", "Modified false"}));
  EXPECT_FALSE(source->IsDirty());  // the bulk path leaves the live flag alone
  Live("BCDA");                     // and is one-shot
  EXPECT_EQ(Update(), (Lines{"Move 1 -> 0", "Move 2 -> 1"}));
}

TEST_F(ObserverViewTest, EveryPropertyChangedQueuesInTheFixedOrder) {
  source->RowsPerImputation(4);
  Start("ABCDE");

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
  EXPECT_EQ(Update(),
            (Lines{"Imputation 0", "Label 'Survey 2026'", "Weight C", "Trends", "Filter D",
                   "Split 2 separate E C", "Extension 7", "Extension 19", "Extension 5",
                   "Extension 0", "Extension 17", "ResetClient 9", "Modified true"}));

  // A filter set goes behind the trends (above), a filter removed ahead.
  source->SetFilterVar(-1);
  source->GetTrendsInfo()->SetText("monthly");
  EXPECT_EQ(Update(), (Lines{"Filter none", "Trends"}));
}

TEST_F(ObserverViewTest, SplitAndMRSetsCompareInOrderAndMRSetsGoOutTwice) {
  Start("ABC");
  int const ab[] = {0, 1}, ba[] = {1, 0};
  VariableSetImpl first{{Id('A')}, "one", "", "", {{0, 0, 0, 0, 0, 1}}};
  VariableSetImpl second{{Id('B'), Id('C')}, "two", "", "", {{0, 0, 0, 0, 0, 2}}};
  source->SetSplit(2, ab, false);
  source->SetMRSets({first, second});
  EXPECT_EQ(Update(), (Lines{"Split 2 A B", "Extension 7", "Extension 19"}));
  source->SetSplit(2, ba, false);
  source->SetMRSets({second, first});
  EXPECT_EQ(Update(), (Lines{"Split 2 B A", "Extension 7", "Extension 19"}));
  second.descriptor[0] = 9;  // the descriptor is compared whole
  source->SetMRSets({second, first});
  EXPECT_EQ(Update(), (Lines{"Extension 7", "Extension 19"}));
}

TEST_F(ObserverViewTest, PropertiesThatOnlyLookDifferentQueueNothing) {
  Start("ABC");
  source->SetWeightVar(2);
  EXPECT_EQ(Update(), Lines{"Weight C"});
  Live("CAB");  // the weight variable moved, it was not replaced
  EXPECT_EQ(Update(), Lines{"Move 2 -> 0"});
  source->SetLabel("");                // null and empty read alike
  source->RowsPerImputation(5);        // only a drop to 0 is announced
  source->SetSplit(0, nullptr, true);  // no split: the separate flag means nothing
  EXPECT_EQ(Update(), Lines{});
  source->RowsPerImputation(0);
  EXPECT_EQ(Update(), Lines{"Imputation 0"});
  // Every message of a pass carries the item's identifier and case sequence.
  source->SetLabel("x");
  item->caseSequence = 9;
  item->observerView.Update();
  ASSERT_EQ(item->notifications.size(), 1u);
  EXPECT_EQ(item->notifications[0]->GetDataSetID(), Id('Z'));
  EXPECT_EQ(item->notifications[0]->GetCaseSequence(), 9u);
  EXPECT_EQ(item->notifications[0]->GetReserved(), 0u);
}

TEST_F(ObserverViewTest, FileSpecIsAnnouncedForFileRootsOnlyAndNeverForSharedNames) {
  // A head that is no file source over a file root: announced, head's text.
  auto* head = new DataFreeDataSource();
  head->SetParentSource(item->dataSource);
  item->dataSource = head;
  head->SetFileSpec("/data/a.csv");
  item->observerView.Update();
  EXPECT_EQ(Take(), (Lines{"FileSpec '/data/a.csv'", "ResetClient 0"}));
  EXPECT_EQ(item->fileName, "/data/a.csv");

  // A dataset that shares its file never announces it, however often asked.
  item->sharedFileName = "/data/b.csv";
  head->SetFileSpec("/data/b.csv");
  item->observerView.Update();
  item->observerView.Update();
  EXPECT_EQ(Take(), Lines{});

  // A chain whose root is no file source: the view takes the FileSpec silently.
  item->SetDataSet(new DataFreeDataSource());
  item->dataSource->SetFileSpec("/elsewhere.csv");
  item->observerView.Update();
  EXPECT_EQ(Take(), Lines{"ResetUndo"});
  EXPECT_EQ(std::string(item->observerView.Snapshot().GetFileSpec()), "/elsewhere.csv");
}

TEST_F(ObserverViewTest, UpdateInterruptedByAnExceptionResumesWhereItStopped) {
  Start("AB");
  Live("BAC");
  source->rows = 6;
  source->throwOnRowCount = true;
  EXPECT_THROW(item->observerView.Update(), std::runtime_error);
  // The variable stage had finished: its messages stay queued.
  ASSERT_EQ(client.Apply(item->notifications), "");
  EXPECT_EQ(Take(), (Lines{"Move 1 -> 0", "Insert [C] before none"}));
  source->throwOnRowCount = false;
  EXPECT_EQ(Update(), Lines{"ResetClient 6"});

  // A source that claims more split variables than a split can hold is
  // refused before the split stage writes or queues anything.
  source->claimedSplit = 9;
  EXPECT_THROW(item->observerView.Update(), std::out_of_range);
  EXPECT_EQ(Take(), Lines{});
  source->claimedSplit = -1;
  EXPECT_EQ(Update(), Lines{});
}

// Reorders wide enough to leave the walk for the index, and narrow ones that
// stay on it, give the plain procedure's messages (checked in Update).
TEST_F(ObserverViewTest, WideReordersGiveThePlainProceduresMessages) {
  std::mt19937 random(7);
  for (uint32_t n : {5u, 40u, 300u}) {
    std::vector<uint32_t> ids(n);
    for (uint32_t i = 0; i < n; ++i) ids[i] = i + 1;
    auto shapes = std::vector<std::vector<uint32_t>>{ids};
    shapes.emplace_back(ids.rbegin(), ids.rend());
    std::vector<uint32_t> rotated = ids;
    std::rotate(rotated.begin(), rotated.begin() + 1, rotated.end());
    shapes.push_back(rotated);
    std::rotate(rotated.rbegin(), rotated.rbegin() + 2, rotated.rend());
    shapes.push_back(rotated);
    for (int round = 0; round < 6; ++round) {
      std::vector<uint32_t> shuffled = shapes.back();
      std::shuffle(shuffled.begin(), shuffled.end(), random);
      // Some go, some come, some change their definition.
      shuffled.erase(std::remove_if(shuffled.begin(), shuffled.end(),
                                    [&](uint32_t) { return random() % 8 == 0; }),
                     shuffled.end());
      for (uint32_t k = 0; k < n / 8 + 1; ++k)
        shuffled.insert(shuffled.begin() + random() % (shuffled.size() + 1),
                        1000 + 100 * n + k + 10 * round * n);
      for (uint32_t serial : shuffled) {
        if (random() % 16 == 0 && wide.count(serial) != 0)
          wide.at(serial).SetType(static_cast<int>(random() % 3));
      }
      shapes.push_back(shuffled);
    }
    for (std::size_t shape = 0; shape < shapes.size(); ++shape) {
      SCOPED_TRACE("n " + std::to_string(n) + ", shape " + std::to_string(shape));
      LiveIds(shapes[shape]);
      if (shape % 5 == 4) BulkNext();
      Update();
    }
  }
}

// An identifier twice in the live list is refused on both paths, however
// the rest changed, with the snapshot and the queue left as they were.
TEST_F(ObserverViewTest, DuplicateIdentifiersAreRefusedBeforeAnythingChanges) {
  std::vector<uint32_t> ids(200);
  for (uint32_t i = 0; i < 200; ++i) ids[i] = i + 1;
  LiveIds(ids);
  Update();
  std::vector<uint32_t> reversed(ids.rbegin(), ids.rend());
  std::vector<std::vector<uint32_t>> const duplicated = {
      {1, 2, 3, 1},                    // a settled one again, walked
      {1, 2, 999, 4, 999},             // a new one twice, walked
      {1, 2, 3, 4, 5, 6, 7, 8, 9, 3},  // at the end of a long tail
      [&] {                            // a wide reorder, indexed
        std::vector<uint32_t> r = reversed;
        r.push_back(150);
        return r;
      }(),
  };
  for (bool bulkPath : {false, true}) {
    for (std::vector<uint32_t> const& live : duplicated) {
      LiveIds(live);
      std::vector<QUOR_Variable> const before = VariablesOf(item->observerView.Snapshot());
      item->observerView.BulkVarMoves(bulkPath);
      EXPECT_THROW(item->observerView.Update(), std::invalid_argument);
      EXPECT_TRUE(item->notifications.empty());
      EXPECT_TRUE(VariablesOf(item->observerView.Snapshot()) == before);
    }
  }
  item->observerView.BulkVarMoves(false);
  LiveIds(reversed);
  Update();
}

}  // namespace
