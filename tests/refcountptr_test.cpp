// Copies and drops across threads are the soak's: it shares items between
// threads through these pointers under the thread sanitizer.
#include <utility>

#include <gtest/gtest.h>

#include "ServerDataManager.h"

namespace {

// A list node that counts how many are alive, and notes whether the node it
// was copied from was still shared at the time.
struct Node : QUOR_RefCntObject {
  explicit Node(int v) : value(v) { ++alive; }
  Node(Node const& from) : QUOR_RefCntObject(from), value(from.value), fromShared(from.IsShared()) {
    ++alive;
  }
  ~Node() override { --alive; }
  int value;
  bool fromShared = false;
  RefCountPtr<Node> next;
  inline static int alive = 0;
};

// Every way of taking a new target takes its reference before letting the
// old one go: a list head assigned its own successor holds the successor's
// only other reference, and Unshared's other holders may drop theirs at any
// moment, so either order reversed frees a node still in use.
TEST(RefCountPtrTest, NewReferenceIsTakenBeforeTheOldOneGoes) {
  for (int way = 0; way < 3; ++way) {
    RefCountPtr<Node> list(new Node(1));
    list->next = new Node(2);
    if (way == 0) list = list->next;
    if (way == 1) list = list->next.get();
    if (way == 2) list = std::move(list->next);
    EXPECT_EQ(list->value, 2);
    EXPECT_FALSE(list->IsShared());
    EXPECT_EQ(Node::alive, 1);
  }
  RefCountPtr<Node> a(new Node(5)), b(a);
  RefCountPtr<Node>& same = a;
  a = std::move(same);
  a = a.get();
  Node* const first = a.get();
  EXPECT_NE(a.Unshared(), first);
  EXPECT_TRUE(a->fromShared);
  EXPECT_EQ(a.Unshared(), a.get());  // now its own: kept
  EXPECT_EQ(b.get(), first);
  EXPECT_FALSE(a->IsShared() || b->IsShared());  // the count is not copied with the node
  EXPECT_EQ(Node::alive, 2);
}

}  // namespace
