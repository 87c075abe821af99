#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "ServerDataManager.h"

namespace {

// A shared record that counts how many of its kind are alive.
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

TEST_F(RefCountPtrTest, AssignmentsCountByAddressAndTheLastDropDestroys) {
  RefCountPtr<Counted> empty;
  EXPECT_FALSE(empty.IsValid());
  EXPECT_TRUE(empty == static_cast<Counted const*>(nullptr));

  RefCountPtr<Counted> a(new Counted(5));
  a = a.get();  // self-assignment in both forms changes no count
  a = static_cast<RefCountPtr<Counted> const&>(a);
  EXPECT_FALSE(a->IsShared());
  RefCountPtr<Counted> b(a);
  b = a;
  EXPECT_TRUE(a->IsShared());
  EXPECT_FALSE(a == RefCountPtr<Counted>(new Counted(5)));  // equal content, other object
  b = nullptr;
  EXPECT_FALSE(a->IsShared());
  a = nullptr;
  EXPECT_EQ(Counted::alive, 0);
}

TEST_F(RefCountPtrTest, CopyOrMoveOutOfAnObjectTheOldTargetOwns) {
  // The pointer's own target holds the source: releasing it first would
  // destroy the source and, with the source's last reference, the new target.
  struct Node : QUOR_RefCntObject {
    explicit Node(int v) : counted(new Counted(v)) {}
    RefCountPtr<Counted> counted;
    RefCountPtr<Node> next;
  };
  RefCountPtr<Counted> plain(new Counted(3));
  RefCountPtr<Counted> moved(std::move(plain));
  EXPECT_FALSE(plain.IsValid());  // NOLINT: the moved-from state is what is checked
  EXPECT_FALSE(moved->IsShared());
  moved = nullptr;
  for (int way = 0; way < 3; ++way) {
    RefCountPtr<Node> list(new Node(1));
    list->next = new Node(2);
    if (way == 0) list = list->next;
    if (way == 1) list = list->next.get();
    if (way == 2) list = std::move(list->next);
    ASSERT_TRUE(list.IsValid());
    EXPECT_EQ(list->counted->value, 2);
    EXPECT_FALSE(list->IsShared());
    EXPECT_EQ(Counted::alive, 1);
  }
}

TEST_F(RefCountPtrTest, UnsharedCopiesOnlyWhenSharedAndCopiesStartUncounted) {
  RefCountPtr<Counted> only(new Counted(1));
  Counted* before = only.get();
  EXPECT_EQ(only.Unshared(), before);
  RefCountPtr<Counted> other(only);
  Counted* copy = only.Unshared();
  EXPECT_NE(copy, before);
  EXPECT_EQ(other.get(), before);
  EXPECT_FALSE(only->IsShared());
  EXPECT_FALSE(other->IsShared());
  EXPECT_EQ(Counted::alive, 2);
}

TEST_F(RefCountPtrTest, UnsharedCopiesWhileItStillHoldsTheOldTarget) {
  // Another holder may drop its pointer on another thread right after the
  // check; this record drops it from inside the check, at that very moment.
  struct Racy : Counted {
    using Counted::Counted;
    int IsShared() const {
      int shared = Counted::IsShared();
      if (other != nullptr) *std::exchange(other, nullptr) = nullptr;
      return shared;
    }
    mutable RefCountPtr<Racy>* other = nullptr;
  };
  RefCountPtr<Racy> mine(new Racy(4));
  RefCountPtr<Racy> theirs(mine);
  mine->other = &theirs;
  EXPECT_EQ(mine.Unshared()->value, 4);
  EXPECT_EQ(Counted::alive, 1);
}

TEST_F(RefCountPtrTest, ConcurrentCopiesAndLastDropsBalance) {
  RefCountPtr<Counted> root(new Counted(9));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&root] {
      for (int i = 0; i < 20000; ++i) {
        RefCountPtr<Counted> copy(root);
        RefCountPtr<Counted> second;
        second = copy;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_FALSE(root->IsShared());
  root = nullptr;
  for (int round = 0; round < 200; ++round) {
    std::vector<RefCountPtr<Counted>> copies(4, RefCountPtr<Counted>(new Counted(round)));
    std::vector<std::thread> droppers;
    for (RefCountPtr<Counted>& copy : copies) droppers.emplace_back([&copy] { copy = nullptr; });
    for (std::thread& t : droppers) t.join();
    ASSERT_EQ(Counted::alive, 0);
  }
}

}  // namespace
