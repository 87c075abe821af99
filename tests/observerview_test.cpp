#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/watcher_model.h"

namespace {

using Lines = std::vector<std::string>;

// A file-backed source whose row count a test can set, and make throw.
class TestSource : public SystemFileDataSource {
 public:
  long long RowCount() const override {
    if (throwOnRowCount) throw std::runtime_error("row count unavailable");
    return rows;
  }
  long long rows = 0;
  bool throwOnRowCount = false;
};

LocallyUniqueID Id(char letter) {
  return LocallyUniqueID(0, static_cast<uint32_t>(letter - 'A' + 1));
}

// Drives Update directly on one item and checks every queue against a
// watcher's model of the dictionary.
class ObserverViewTest : public ::testing::Test {
 protected:
  ObserverViewTest()
      : source(new TestSource), item(new SvrDMItem(Id('Z'), source, nullptr, 5, "", true)) {}

  // Makes the live list exactly `letters`, each with its definition in `defs`.
  void Live(std::string const& letters) {
    if (source->ColumnCount() > 0)
      source->DeleteVariables(0, static_cast<int>(source->ColumnCount()) - 1);
    for (char letter : letters) {
      defs.emplace(letter, QUOR_Variable(Id(letter), std::string(1, letter)));
      source->InsertVariable(static_cast<long>(source->ColumnCount()), defs.at(letter));
    }
  }

  // Runs Update and returns its queue as lines, after applying it to the
  // watcher model and checking that the model now equals the live source
  // and that each variable message names this dataset and case sequence.
  Lines Update() {
    item->observerView.Update();
    Lines lines = DescribeQueue(item->notifications);
    std::string error;
    EXPECT_TRUE(model.Apply(item->notifications, &error)) << error;
    EXPECT_TRUE(model.Matches(*source, &error)) << error;
    for (DataSetMsg* message : item->notifications) {
      if (auto* m = dynamic_cast<ModifyVarMsg*>(message)) {
        EXPECT_EQ(m->GetDataSetID(), Id('Z'));
        EXPECT_EQ(m->GetCaseSequence(), 5);
        EXPECT_EQ(m->GetReserved(), 0u);
      }
    }
    item->ClearNotifications();
    return lines;
  }

  // Brings the view in line with `letters` and forgets the messages.
  void Start(std::string const& letters) {
    Live(letters);
    Update();
  }

  std::map<char, QUOR_Variable> defs;
  TestSource* source;  // owned by the item
  SvrDMItemPtr item;
  WatcherModel model;
};

struct VariableCase {
  char const* view;
  char const* live;
  Lines expected;
};

TEST_F(ObserverViewTest, VariableDifferencesGiveExactlyTheirMessages) {
  source->rows = 12;
  Live("AB");
  EXPECT_EQ(Update(),
            (Lines{"Insert [A] before none", "Insert [B] before none", "ResetClient 12"}));

  std::vector<VariableCase> const cases = {
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
  for (VariableCase const& c : cases) {
    SCOPED_TRACE(std::string(c.view) + " -> " + c.live);
    Start(c.view);
    Live(c.live);
    EXPECT_EQ(Update(), c.expected);
  }
}

TEST_F(ObserverViewTest, ChangedDefinitionMarksLiveDirtyAndTypeChangeResetsClients) {
  Start("ABCD");
  defs.at('A').SetLabel("first");
  Live("BCDA");
  EXPECT_EQ(Update(),
            (Lines{"Move 1 -> 0", "Move 2 -> 1", "Move 3 -> 2", "Modify A", "Modified true"}));
  EXPECT_TRUE(source->IsDirty());
  source->SetDirty(false);
  EXPECT_EQ(Update(), Lines{"Modified false"});

  defs.at('C').SetType(8);
  Live("BCDA");
  EXPECT_EQ(Update(), (Lines{"Modify C", "ResetClient 0", "Modified true"}));
}

TEST_F(ObserverViewTest, BulkPathReplacesTheListInTwoMessagesOnce) {
  Start("ABC");
  defs.at('B').SetName("renamed");
  Live("CAB");
  item->observerView.BulkVarMoves(true);
  EXPECT_EQ(Update(), (Lines{"Delete [A,B,C]", "Insert [C,A,B] before none"}));
  EXPECT_FALSE(source->IsDirty());  // the bulk path leaves the live flag alone

  Live("ABC");  // one-shot: the next pass goes by moves again
  EXPECT_EQ(Update(), (Lines{"Move 1 -> 0", "Move 2 -> 1"}));
  item->observerView.BulkVarMoves(true);
  item->observerView.BulkVarMoves(false);
  Live("CAB");
  EXPECT_EQ(Update(), (Lines{"Move 2 -> 0"}));
}

TEST_F(ObserverViewTest, EveryPropertyChangedQueuesInTheFixedOrder) {
  source->rows = 3;
  source->RowsPerImputation(4);
  Start("ABCDE");
  source->SetWeightVar(0);
  source->SetFilterVar(1);
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
  EXPECT_EQ(Update(),
            (Lines{"Imputation 0", "Label 'Survey 2026'", "Weight C", "Trends", "Filter D",
                   "Split 2 separate E C", "Extension 7", "Extension 19", "Extension 5",
                   "Extension 0", "Extension 17", "ResetClient 9", "Modified true"}));

  // The filter goes ahead of the trends when it is removed.
  source->SetFilterVar(-1);
  source->GetTrendsInfo()->SetText("monthly");
  EXPECT_EQ(Update(), (Lines{"Filter none", "Trends"}));
}

TEST_F(ObserverViewTest, PropertiesThatOnlyLookDifferentQueueNothing) {
  Start("ABC");
  source->SetWeightVar(2);
  Update();
  Live("CAB");  // the weight variable moved, it was not replaced
  EXPECT_EQ(Update(), (Lines{"Move 2 -> 0"}));
  source->SetLabel("");  // null and empty read alike
  // Rows per imputation is announced only when it drops to 0.
  source->RowsPerImputation(5);
  EXPECT_EQ(Update(), Lines{});
  source->RowsPerImputation(0);
  EXPECT_EQ(Update(), Lines{"Imputation 0"});
  // With no split variables the separate flag means nothing.
  source->SetSplit(0, nullptr, true);
  EXPECT_EQ(Update(), Lines{});
}

TEST_F(ObserverViewTest, SplitAndSetsCompareInOrderAndMRSetsGoOutTwice) {
  Start("ABC");
  int const ab[] = {0, 1};
  int const ba[] = {1, 0};
  source->SetSplit(2, ab, false);
  EXPECT_EQ(Update(), Lines{"Split 2 A B"});
  source->SetSplit(2, ba, false);
  EXPECT_EQ(Update(), Lines{"Split 2 B A"});
  source->SetSplit(2, ba, true);
  EXPECT_EQ(Update(), Lines{"Split 2 separate B A"});

  VariableSetImpl first{{Id('A')}, "one", "", "", {{0, 0, 0, 0, 0, 1}}};
  VariableSetImpl second{{Id('B'), Id('C')}, "two", "", "", {{0, 0, 0, 0, 0, 2}}};
  source->SetMRSets({first, second});
  EXPECT_EQ(Update(), (Lines{"Extension 7", "Extension 19"}));
  source->SetMRSets({second, first});
  EXPECT_EQ(Update(), (Lines{"Extension 7", "Extension 19"}));
  second.descriptor[0] = 9;  // the descriptor is compared whole
  source->SetMRSets({second, first});
  EXPECT_EQ(Update(), (Lines{"Extension 7", "Extension 19"}));
  source->SetVariableSets({first});
  EXPECT_EQ(Update(), Lines{"Extension 5"});
}

TEST_F(ObserverViewTest, FileSpecIsAnnouncedForFileRootsOnlyAndNeverForSharedNames) {
  // A head that is no file source over a file root: announced, head's text.
  auto* head = new DataFreeDataSource();
  head->SetParentSource(item->dataSource);
  item->dataSource = head;
  head->SetFileSpec("/data/a.csv");
  source->SetFileSpec("/root.csv");
  item->observerView.Update();
  EXPECT_EQ(DescribeQueue(item->notifications), (Lines{"FileSpec '/data/a.csv'", "ResetClient 0"}));
  EXPECT_EQ(item->fileName, "/data/a.csv");

  item->ClearNotifications();
  item->sharedFileName = "/data/b.csv";
  head->SetFileSpec("/data/b.csv");
  for (int pass = 0; pass < 2; ++pass) {  // the same comparison recurs, still silent
    item->observerView.Update();
    EXPECT_TRUE(item->notifications.empty());
  }
  EXPECT_EQ(std::string(item->observerView.Snapshot().GetFileSpec()), "/data/a.csv");
  EXPECT_EQ(item->fileName, "/data/a.csv");

  // A chain whose root is no file source: the view takes the spec silently.
  SvrDMItemPtr other(new SvrDMItem(Id('Y'), new DataFreeDataSource(), nullptr, 0, "", true));
  other->dataSource->SetFileSpec("/elsewhere.csv");
  other->observerView.Update();
  EXPECT_EQ(DescribeQueue(other->notifications), Lines{"ResetClient 0"});
  EXPECT_EQ(std::string(other->observerView.Snapshot().GetFileSpec()), "/elsewhere.csv");
  EXPECT_EQ(other->fileName, "");
}

TEST_F(ObserverViewTest, UpdateInterruptedByAnExceptionResumesWhereItStopped) {
  Start("AB");
  Live("BAC");
  source->rows = 6;
  source->throwOnRowCount = true;
  EXPECT_THROW(item->observerView.Update(), std::runtime_error);
  // The variable stage had finished: its messages stay queued.
  EXPECT_EQ(DescribeQueue(item->notifications), (Lines{"Move 1 -> 0", "Insert [C] before none"}));
  std::string error;
  ASSERT_TRUE(model.Apply(item->notifications, &error)) << error;
  item->ClearNotifications();
  source->throwOnRowCount = false;
  EXPECT_EQ(Update(), Lines{"ResetClient 6"});
}

TEST_F(ObserverViewTest, ItemWithoutSourceReadsAsAnEmptyDictionary) {
  Start("AB");
  item->SetDataSet(nullptr);
  item->observerView.Update();
  EXPECT_EQ(DescribeQueue(item->notifications), (Lines{"ResetUndo", "Delete [A,B]"}));
}

}  // namespace
