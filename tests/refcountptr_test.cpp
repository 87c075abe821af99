#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"

namespace {

// A shared record that counts how many of its kind are alive and can be
// told to refuse sharing, which makes RefCountPtr copy it.
struct Counted : QUOR_RefCntObject {
  static int alive;
  explicit Counted(int v) : value(v) { ++alive; }
  Counted(Counted const& other) : QUOR_RefCntObject(other), value(other.value) { ++alive; }
  ~Counted() override { --alive; }
  int value;
};
int Counted::alive = 0;

class RefCountPtrTest : public ::testing::Test {
 protected:
  void SetUp() override { Counted::alive = 0; }
  void TearDown() override { EXPECT_EQ(Counted::alive, 0); }
};

TEST_F(RefCountPtrTest, NullPointerIsInvalidAndEqualToOtherNulls) {
  RefCountPtr<Counted> empty;
  RefCountPtr<Counted> alsoEmpty(nullptr);
  EXPECT_FALSE(empty.IsValid());
  EXPECT_TRUE(empty == alsoEmpty);
  EXPECT_TRUE(empty == static_cast<Counted const*>(nullptr));
  EXPECT_FALSE(empty != alsoEmpty);
}

TEST_F(RefCountPtrTest, LastPointerDestroysTargetAndAssigningNullReleases) {
  {
    RefCountPtr<Counted> a(new Counted(1));
    RefCountPtr<Counted> b(a);
    EXPECT_TRUE(a->IsShared());
    a = nullptr;
    EXPECT_FALSE(a.IsValid());
    EXPECT_EQ(Counted::alive, 1);
    EXPECT_FALSE(b->IsShared());
    b = nullptr;
    EXPECT_EQ(Counted::alive, 0);
  }
  {
    RefCountPtr<Counted> scoped(new Counted(2));
  }
  EXPECT_EQ(Counted::alive, 0);
}

TEST_F(RefCountPtrTest, SelfAssignmentChangesNoCount) {
  RefCountPtr<Counted> a(new Counted(1));
  RefCountPtr<Counted> const& alias = a;
  a = alias;
  a = a.get();
  EXPECT_TRUE(a.IsValid());
  EXPECT_FALSE(a->IsShared());
  RefCountPtr<Counted> b(a);
  b = a;
  b = a.get();
  EXPECT_TRUE(a->IsShared());
  b = nullptr;
  EXPECT_FALSE(a->IsShared());
}

TEST_F(RefCountPtrTest, AssignmentFromPointerWhoseOwnerTheOldTargetHolds) {
  // The old target owns the object that holds `other`: releasing it first
  // must not leave the assignment reading freed memory.
  struct Node : QUOR_RefCntObject {
    RefCountPtr<Counted> payload;
  };
  RefCountPtr<Node> node(new Node);
  node->payload = new Counted(7);
  RefCountPtr<Counted> keep(node->payload);
  RefCountPtr<Counted> target(node->payload);
  node = nullptr;
  EXPECT_EQ(target->value, 7);
}

TEST_F(RefCountPtrTest, MoveHandsTheReferenceOverWithoutCounting) {
  RefCountPtr<Counted> a(new Counted(1));
  RefCountPtr<Counted> moved(std::move(a));
  EXPECT_FALSE(a.IsValid());  // NOLINT: the moved-from state is what is checked
  ASSERT_TRUE(moved.IsValid());
  EXPECT_FALSE(moved->IsShared());

  // Onto a pointer that holds another target: that one is released.
  RefCountPtr<Counted> other(new Counted(2));
  other = std::move(moved);
  EXPECT_EQ(Counted::alive, 1);
  EXPECT_EQ(other->value, 1);
  EXPECT_FALSE(other->IsShared());

  RefCountPtr<Counted>& alias = other;
  other = std::move(alias);
  ASSERT_TRUE(other.IsValid());
  EXPECT_FALSE(other->IsShared());

  // A vector that grows moves its handles: the counts stay as they were.
  std::vector<RefCountPtr<Counted>> handles(1, other);
  EXPECT_TRUE(other->IsShared());
  for (int i = 0; i < 100; ++i) handles.emplace_back(new Counted(i));
  handles.erase(handles.begin() + 1, handles.end());
  EXPECT_EQ(Counted::alive, 1);
  handles.clear();
  EXPECT_FALSE(other->IsShared());
}

TEST_F(RefCountPtrTest, MoveOutOfAnObjectTheOldTargetOwns) {
  // The pointer's own target holds the source: releasing it destroys the
  // source, so the source must be read and emptied first.
  struct Node : QUOR_RefCntObject {
    explicit Node(int v) : counted(new Counted(v)) {}
    RefCountPtr<Counted> counted;
    RefCountPtr<Node> next;
  };
  RefCountPtr<Node> list(new Node(1));
  list->next = new Node(2);
  list = std::move(list->next);
  ASSERT_TRUE(list.IsValid());
  EXPECT_EQ(list->counted->value, 2);
  EXPECT_FALSE(list->IsShared());
  EXPECT_EQ(Counted::alive, 1);
}

TEST_F(RefCountPtrTest, UnsharedCopiesOnlyWhenShared) {
  RefCountPtr<Counted> only(new Counted(1));
  Counted* before = only.get();
  EXPECT_EQ(only.Unshared(), before);
  EXPECT_EQ(Counted::alive, 1);

  RefCountPtr<Counted> other(only);
  Counted* copy = only.Unshared();
  EXPECT_NE(copy, before);
  EXPECT_EQ(other.get(), before);
  EXPECT_EQ(copy->value, 1);
  EXPECT_FALSE(only->IsShared());
  EXPECT_FALSE(other->IsShared());
  EXPECT_EQ(Counted::alive, 2);
}

TEST_F(RefCountPtrTest, EqualityIsByAddressNotContent) {
  RefCountPtr<Counted> a(new Counted(5));
  RefCountPtr<Counted> b(new Counted(5));
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a != b);
  RefCountPtr<Counted> c(a);
  EXPECT_TRUE(a == c);
  EXPECT_TRUE(a == a.get());
}

TEST_F(RefCountPtrTest, CopiedObjectStartsWithNoReference) {
  RefCountPtr<Counted> a(new Counted(3));
  RefCountPtr<Counted> b(a);
  Counted copy(*a);  // copying an object never copies its count
  EXPECT_FALSE(copy.IsShared());
  RefCountPtr<Counted> owner(new Counted(copy));
  EXPECT_FALSE(owner->IsShared());
}

TEST_F(RefCountPtrTest, ConcurrentCopiesAndDropsOnOneObjectBalance) {
  RefCountPtr<Counted> root(new Counted(9));
  constexpr int kThreads = 4;
  constexpr int kRounds = 20000;
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&root, &go] {
      while (!go.load()) std::this_thread::yield();
      for (int i = 0; i < kRounds; ++i) {
        RefCountPtr<Counted> copy(root);
        RefCountPtr<Counted> second;
        second = copy;
      }
    });
  }
  go = true;
  for (std::thread& t : threads) t.join();
  EXPECT_FALSE(root->IsShared());
  EXPECT_EQ(Counted::alive, 1);
}

TEST_F(RefCountPtrTest, LastDropRacingOnManyThreadsDestroysOnce) {
  for (int round = 0; round < 200; ++round) {
    auto* shared = new RefCountPtr<Counted>(new Counted(round));
    std::vector<RefCountPtr<Counted>> copies(4, *shared);
    delete shared;
    std::vector<std::thread> threads;
    for (RefCountPtr<Counted>& copy : copies) threads.emplace_back([&copy] { copy = nullptr; });
    for (std::thread& t : threads) t.join();
    ASSERT_EQ(Counted::alive, 0);
  }
}

}  // namespace
