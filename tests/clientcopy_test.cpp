#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"

namespace {

LocallyUniqueID Id(char letter) { return LocallyUniqueID(0, static_cast<uint32_t>(letter - '@')); }
QUOR_Variable Var(char letter) { return QUOR_Variable(Id(letter), std::string(1, letter)); }

// A data-file source whose row count a test sets.
struct Source : SystemFileDataSource {
  long long RowCount() const override { return rows; }
  long long rows = 0;
};

// A client: applies each pass to its copy; may be told to throw instead.
struct Client : SvrDMDataSetObserver {
  void DataSetChanged(SvrDMWriteableDataSource const* access) override {
    if (fail) throw std::runtime_error("client gone");
    EXPECT_EQ(copy.Apply(access->GetNotifications()), "");
  }
  // Joins late: seeds and registers under one read access.
  void Join(SvrDMItemPtr& item) {
    SvrDMInputDataSource reader(item, false);
    copy.Seed(*item);
    EXPECT_EQ(copy.CaseSequence(), item->caseSequence);
    item->Register(*this);
  }
  SvrDMClientCopy copy;
  bool fail = false;
};

using Edit = std::function<void(SvrDMWriteableDataSource&)>;

class ClientCopyTest : public ::testing::Test {
 protected:
  ClientCopyTest() { item->Register(early); }
  void Write(Edit const& edit) {
    SvrDMWriteableDataSource writer(item, false, nullptr);
    edit(writer);
  }

  Source* source = new Source;  // owned by the item
  SvrDMItemPtr item{new SvrDMItem(Id('Z'), source, nullptr, 5, "", true)};
  Client early;  // registered before the first write access
};

// The copy names every piece that differs before the pass, in one line, and
// none after it: first as the pieces are set, then as they are taken away
// (a role's variable deleted, the label null, no split), then as a role's
// variable comes back under its identifier with its weight and split.
TEST_F(ClientCopyTest, EveryPieceDiffersUntilItsPassAndAgreesAfter) {
  VariableSetImpl const set{{Id('C')}, "s", "", "", {{1, 0, 0, 0, 0, 0}}};
  DatasourceAttributes attributes;
  attributes.Set("owner", "lab");
  int const c[] = {0};
  std::vector<std::pair<Edit, std::string>> const rows = {
      {[](auto& w) { w->InsertVariable(0, Var('A')), w->InsertVariable(1, Var('B')); },
       "variables from position 0: copy [], live [0:1 A, 0:2 B]; row count: copy -1, live 0"},
      {[&](auto& w) {
         w->DeleteVariables(0, 0), w->InsertVariable(1, Var('C')), w->GetVariable(0).SetName("b");
         w->SetWeightVar(1), w->SetFilterVar(0), w->SetSplit(1, c, true), w->SetLabel("L");
         w->SetFileSpec("/d/s.csv"), w->GetTrendsInfo()->SetText("q");
         w->SetMRSets({set}), w->SetVariableSets({set}), w->SetAttributes(attributes);
         w->SetExtension(QUOR_DataSource::Extension(0, "r")), source->rows = 7;
       },
       "variables from position 0: copy [0:1 A, 0:2 B], live [0:2 b, 0:3 C]; weight: copy none, "
       "live 0:3; filter: copy none, live 0:2; split: copy [], live [0:2]; label: copy \"\", live "
       "\"L\"; file path: copy \"\", live \"/d/s.csv\"; trends: copy \"\", live \"q\"; row count: "
       "copy 0, live 7; extension 0 differs; extension 5 "
       "differs; extension 7 differs; extension 17 differs; extension 19 differs"},
      {[&c](auto& w) { w->SetSplit(1, c, false); }, "separate flag: copy true, live false"},
      {[](auto& w) {
         w->DeleteVariables(0, 0), w->SetLabel(nullptr), w->SetFilterVar(-1);
         w->SetExtension(QUOR_DataSource::Extension(DataFreeDataSource(), 0));
       },
       "variables from position 0: copy [0:2 b, 0:3 C], live [0:3 C]; filter: copy 0:2, live "
       "none; split: copy [0:2], live []; label: copy \"L\", live \"\"; extension 0 differs"},
      {[](auto& w) { w->InsertVariable(0, QUOR_Variable(Id('B'), "b")); },
       "variables from position 0: copy [0:3 C], live [0:2 b, 0:3 C]; split: copy [], live [0:2]"},
      {[](auto& w) { w.BulkVarMoves(), w.IncrementCaseSequence(), w->DeleteVariables(1, 1); },
       "variables from position 1: copy [0:3 C], live []; weight: copy 0:3, live none"},
      {[](auto& w) { w->SetSplit(0, nullptr, true), w->SetDirty(false); },
       "split: copy [0:2], live []; dirty flag: copy true, live false"},
      {[](auto& w) { w->SetSplit(0, nullptr, false); }, ""},  // the flag alone means nothing
  };
  for (auto const& [edit, differences] : rows) {
    SCOPED_TRACE(differences);
    {
      SvrDMWriteableDataSource writer(item, false, nullptr);
      edit(writer);
      EXPECT_EQ(early.copy.Differences(*writer), differences);
    }
    EXPECT_EQ(early.copy.Differences(*source), "");
  }
  EXPECT_EQ(early.copy.CaseSequence(), 6u);
}

// Clients that join late, before the first write access, while a role's
// variable is gone, and between a pass that failed in an observer and the
// next, continue the stream exactly, as the client that watched from the
// start does.
TEST_F(ClientCopyTest, ClientsJoiningLateContinueTheStreamExactly) {
  Client thrower, beforeFirst, roleGone, afterFailure;
  item->Unregister(early);
  item->Register(thrower);  // heard first, so no other client hears the failed pass
  item->Register(early);
  source->InsertVariable(0, Var('A'));  // not yet told to anyone
  beforeFirst.Join(item);
  VariableSetImpl const set{{Id('A')}, "s", "", "", {{1, 0, 0, 0, 0, 0}}};
  DatasourceAttributes attributes;
  attributes.Set("owner", "lab");
  Write([&](auto& w) {
    w->InsertVariable(1, Var('B')), w->SetWeightVar(1), w->SetMRSets({set});
    w->SetVariableSets({set}), w->SetAttributes(attributes), w->RowsPerImputation(4);
    w->SetExtension(QUOR_DataSource::Extension(0, "r")), w->SetFileSpec("/d/a.csv");
    w->GetTrendsInfo()->SetText("t");
  });
  Write([this](auto& w) { w->DeleteVariables(1, 1), source->rows = 3; });
  roleGone.Join(item);
  thrower.fail = true;
  EXPECT_THROW(Write([](auto& w) { w->InsertVariable(0, Var('C')); }), std::runtime_error);
  ASSERT_EQ(item->notifications.size(), 1u);
  ASSERT_NE(afterFailure.copy.Apply(WeightVarMsg(0, Id('Z'), 0, Id('Q'))), "");
  afterFailure.Join(item);  // a seed also ends a refusal
  thrower.fail = false;
  Write([](auto&) {});  // delivers only what the failed pass left queued
  Write([](auto& w) { w->InsertVariable(2, Var('B')), w->SetLabel("L"); });
  for (Client const* client : {&thrower, &early, &beforeFirst, &roleGone, &afterFailure}) {
    EXPECT_EQ(client->copy.Differences(*source), "");
    EXPECT_EQ(client->copy.Dictionary().GetWeightVariableID(), Id('B'));
  }
  // What the messages carry as payloads, or not at all, a seed leaves out.
  QUOR_DataSource const& seeded = roleGone.copy.Dictionary();
  EXPECT_TRUE(seeded.GetMRSets().empty() && seeded.GetVariableSets().empty() &&
              seeded.GetAttributes().Size() == 0 && seeded.RowsPerImputation() == 0 &&
              QUOR_DataSource::Extension(seeded, 0).IsEmpty());

  // A source on no data file takes its file path unannounced; a late copy
  // holds none either. Over a data file, the path is announced and kept.
  for (bool onFile : {false, true}) {
    auto* plain = new DataFreeDataSource;
    if (onFile) plain->SetParentSource(new SystemFileDataSource);
    plain->SetFileSpec("/nowhere.csv");
    SvrDMItemPtr other(new SvrDMItem(Id('Y'), plain, nullptr, 0, "", true));
    Client watcher, late;
    other->Register(watcher);
    { SvrDMWriteableDataSource writer(other, false, nullptr); }
    late.Join(other);
    EXPECT_EQ(late.copy.Differences(watcher.copy.Dictionary()), "");
  }
}

// A procedure's own message, which a client passes over.
struct OwnMsg : DataSetMsg {
  OwnMsg* Clone() const override { return new OwnMsg(*this); }
  char const* GetClassName() const override { return "OwnMsg"; }
};

// Every message that cannot apply to a copy holding A B of dataset Z is
// refused by name and reason, changes nothing, and keeps the copy out of
// step until a seed.
TEST(ClientCopyRefusalTest, MessagesThatCannotApplyAreRefusedWithTheirReason) {
  LocallyUniqueID const z = Id('Z'), q = Id('Q'), none;
  auto vars = [](std::string const& letters) {
    std::vector<QUOR_Variable> list;
    for (char letter : letters) list.push_back(Var(letter));
    return list;
  };
  auto insert = [&](std::string const& letters, LocallyUniqueID before) {
    std::vector<QUOR_Variable> list = vars(letters);
    return std::make_shared<InsertVarsMsg>(0, z, 1, list, before);
  };
  auto move = [&](std::vector<unsigned int> from, unsigned int to) {
    return std::make_shared<MoveVarsMsg>(0, z, 1, from, to);
  };
  auto split = [&](std::vector<LocallyUniqueID> ids) {
    return std::make_shared<SplitFileMsg>(0, z, 1, static_cast<int>(ids.size()), ids.data(), false);
  };
  QUOR_Variable unknown = Var('Q');
  std::vector<std::pair<std::shared_ptr<DataSetMsg>, std::string>> const cases = {
      {insert("C", q), "InsertVarsMsg: it inserts before 0:17, which the copy does not hold"},
      {insert("A", none), "InsertVarsMsg: it inserts 0:1, which the copy holds already"},
      {insert("CC", none), "InsertVarsMsg: it inserts 0:3, which the copy holds already"},
      {std::make_shared<DeleteVarsMsg>(0, z, 1, vars("AQ")),
       "DeleteVarsMsg: it deletes 0:17, which the copy does not hold"},
      {std::make_shared<DeleteVarsMsg>(0, z, 1, vars("BAB")),
       "DeleteVarsMsg: it deletes 0:2 twice"},
      {move({2}, 0), "MoveVarsMsg: position 2 is outside a list of 2 variables"},
      {move({1}, 1), "MoveVarsMsg: target 1 is not below position 1"},
      {move({1, 0}, 0), "MoveVarsMsg: it moves 2 positions; a move carries one"},
      {std::make_shared<ModifyVarMsg>(0, z, 1, unknown),
       "ModifyVarMsg: it modifies 0:17, which the copy does not hold"},
      {std::make_shared<WeightVarMsg>(0, z, 1, q),
       "WeightVarMsg: the weight 0:17 is a variable the copy does not hold"},
      {std::make_shared<FilterVarMsg>(0, z, 1, q),
       "FilterVarMsg: the filter 0:17 is a variable the copy does not hold"},
      {split({Id('A'), q}),
       "SplitFileMsg: the split variable 0:17 is a variable the copy does not hold"},
      {split({none}), "SplitFileMsg: it names no variable for a split"},
      {std::make_shared<FileLabelChangeMsg>(0, Id('Y'), 1, "x"),
       "FileLabelChangeMsg: it is for dataset 0:25, the copy is of dataset 0:26"},
  };
  for (auto const& [message, why] : cases) {
    SCOPED_TRACE(why);
    SvrDMClientCopy copy;
    OwnMsg own;
    ImputationInfoMsg imputation;  // carries no dataset, as ResetUndoMsg
    ResetUndoMsg undo;
    FileLabelChangeMsg label(0, z, 1, "applied");
    ASSERT_EQ(copy.Apply({insert("AB", none).get(), nullptr, &own, &imputation, &undo}), "");
    EXPECT_EQ(copy.Apply({&label, message.get()}), "message 2 of 2, " + why);
    EXPECT_EQ(copy.Refusal(), "message 2 of 2, " + why);
    EXPECT_STREQ(copy.Dictionary().GetLabel(), "applied");
    EXPECT_EQ(copy.Apply(label),
              "the copy is out of step since message 2 of 2, " + why + "; seed it again");
    DataFreeDataSource ab;
    ab.InsertVariable(0, Var('A')), ab.InsertVariable(1, Var('B')), ab.SetLabel("applied");
    EXPECT_EQ(copy.Differences(ab, false), "row count: copy -1, live 0");
  }
}

}  // namespace
