// The platform services the library calls, the data file source and the
// counted pointer. Copies and drops across threads are the soak's, which
// shares items through these pointers under the thread sanitizer.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ServerDataManager.h"
#include "support/scratchdir.h"

namespace {

TEST(PlatformTest, DatesAndFilesClosedOnExec) {
  double value = -1;
  EXPECT_EQ(iDMY2Quor(29, 2, 2000, 23, 59, 59.5, &value), 0);
  // Impossible dates are refused and leave the value alone.
  EXPECT_EQ(iDMY2Quor(29, 2, 1900, 0, 0, 0, &value) + iDMY2Quor(1, 1, 2000, 0, 0, 61, &value), 2);
  EXPECT_EQ(value, 951868799.5);
  ExtNameStr name;
  name.SetGeneric(SDM_EXAMPLES_DATA_DIR "/survey.csv");
  FILE* file = name.fsopen("r", 32);
  EXPECT_NE(fcntl(fileno(file), F_GETFD) & FD_CLOEXEC, 0);  // not inherited by child processes
  std::fclose(file);
}

// A column is numeric (type 0) only when each of its values reads as a
// number, blanks being no evidence of text; else its type is the widest
// value's width. A copy takes the whole dictionary. A malformed file is
// refused naming the file, the line and the fault.
TEST(SystemFileTest, TypesFollowTheValuesTheCopyIsWholeAndMalformedFilesAreRefused) {
  ScratchDir dir;
  SystemFileDataSource source(dir.Write(
      "q.csv", "\xEF\xBB\xBFname,n,blank,plus\r\n\"a,b\",-2e3,,+3\r\n\r\n\"1\",1.5, ,x\n,,,\n\n"));
  source.SetWeightVar(1);
  source.SetLabel("L");
  DataFreeDataSource copy;
  copy.CopyDictionary(source);
  std::string seen = std::to_string(copy.GetWeightVarIndex()) + copy.GetLabel();
  for (int i = 0; i < 4; ++i)
    seen +=
        " " + copy.GetVariable(i).GetName() + "/" + std::to_string(copy.GetVariable(i).GetType());
  EXPECT_EQ(seen, "1L name/3 n/0 blank/0 plus/2");
  std::pair<std::string, std::string> const malformed[] = {
      {"", ", line 1: the file is empty"},
      {"a,b\n1,\"open\n2,3\n", ", line 2: the quoted field 2 that starts here is not closed"},
      {"a,b\r\n1,\"one\r\ntwo\nthree\"\r\n4\r\n",
       ", line 5: the row has 1 field but the header has 2"},
      {"missing", ": cannot open the file"},  // not written: no such file
  };
  for (auto const& [text, fault] : malformed) {
    std::string const path = text == "missing" ? dir.PathOf(text) : dir.Write("bad.csv", text);
    EXPECT_THAT([&path] { SystemFileDataSource source(path); },
                testing::ThrowsMessage<std::runtime_error>(testing::HasSubstr(path + fault)));
  }
}

// Counts the nodes alive, and notes whether the node copied from was still
// shared at the time.
struct Node : QUOR_RefCntObject {
  Node() { ++alive; }
  Node(Node const& from) : QUOR_RefCntObject(from), fromShared(from.IsShared()) { ++alive; }
  ~Node() override { --alive; }
  bool fromShared = false;
  RefCountPtr<Node> next;
  inline static int alive = 0;
};

// Both ways of taking a new target (the copy assignment takes the raw pointer's) takes its
// reference before letting the old one go: a list head assigned its own successor holds the
// successor's only other reference, and Unshared's other holders may drop theirs at any moment, so
// either order reversed frees a node still in use.
TEST(RefCountPtrTest, NewReferenceIsTakenBeforeTheOldOneGoes) {
  for (int way = 1; way < 3; ++way) {
    RefCountPtr<Node> list(new Node);
    Node* const second = (list->next = new Node).get();
    if (way == 1) list = list->next.get();
    if (way == 2) list = std::move(list->next);
    EXPECT_TRUE(list == second && Node::alive == 1 && !list->IsShared()) << way;
  }
  RefCountPtr<Node> a(new Node), b(a);
  EXPECT_NE(a.Unshared(), b.get());
  EXPECT_TRUE(a->fromShared);
  EXPECT_FALSE(a->IsShared() || b->IsShared());  // the count is not copied with the node
}

}  // namespace
