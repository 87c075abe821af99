// Copies and drops across threads are the soak's: it shares items between
// threads through these pointers under the thread sanitizer.
#include <utility>

#include <gtest/gtest.h>

#include "ServerDataManager.h"

namespace {

// A shared record that counts how many of its kind are alive.
struct Counted : QUOR_RefCntObject {
  explicit Counted(int v) : value(v) { ++alive; }
  Counted(Counted const& other) : QUOR_RefCntObject(other), value(other.value) { ++alive; }
  ~Counted() override { --alive; }
  int value;
  inline static int alive = 0;
};

class RefCountPtrTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(Counted::alive, 0); }
};

TEST_F(RefCountPtrTest, CountsByAddressAndUnsharedCopiesOnlyWhenShared) {
  RefCountPtr<Counted> a(new Counted(5));
  a = a.get();  // self-assignment in both forms changes no count
  a = static_cast<RefCountPtr<Counted> const&>(a);
  EXPECT_FALSE(a->IsShared());
  Counted* const only = a.get();
  EXPECT_EQ(a.Unshared(), only);
  RefCountPtr<Counted> b(a);
  EXPECT_FALSE(a == RefCountPtr<Counted>(new Counted(5)));  // equal content, other object
  EXPECT_NE(a.Unshared(), only);
  EXPECT_EQ(b.get(), only);
  EXPECT_FALSE(a->IsShared() || b->IsShared());
  EXPECT_EQ(Counted::alive, 2);
  b = std::move(a);
  EXPECT_FALSE(a.IsValid());  // NOLINT: the moved-from state is what is checked
  EXPECT_EQ(Counted::alive, 1);
}

TEST_F(RefCountPtrTest, TakingATargetThatTheOldTargetOwnsKeepsItAlive) {
  // Releasing the old target first would destroy the source and, with the
  // source's last reference, the new target.
  struct Node : QUOR_RefCntObject {
    explicit Node(int v) : counted(new Counted(v)) {}
    RefCountPtr<Counted> counted;
    RefCountPtr<Node> next;
  };
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

}  // namespace
