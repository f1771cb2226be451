#include "platform/Kelp/LinkQueue.h"

#include <vector>

#include <gtest/gtest.h>

namespace {

struct Item : Kelp::LinkQueueEntry<Item> {
  std::uint32_t value = 0;
};
using Queue = Kelp::LinkQueue<Item>;

std::vector<std::uint32_t> indices(const Queue& q) {
  std::vector<std::uint32_t> out;
  for (const Item& e : q) out.push_back(e.index());
  return out;
}
std::vector<std::uint32_t> values(const Queue& q) {
  std::vector<std::uint32_t> out;
  for (const Item& e : q) out.push_back(e.value);
  return out;
}

// The queue's bookkeeping after each step of a fill-and-drain sequence; entries leave first in,
// first out.
TEST(LinkQueue, IndexBookkeeping) {
  Queue q;
  struct Row {
    char op;  // 'e' enqueue, 'd' dequeue
    std::uint32_t headIndex, nextIndex, taken, size;
  };
  const Row rows[] = {
      {'e', 0, 0, 0, 1},  // first entry takes nextIndex
      {'e', 0, 1, 0, 2},  // then tail + 1
      {'e', 0, 2, 0, 3},
      {'d', 1, 3, 1, 2},  // dequeue raises nextIndex past the tail
      {'e', 1, 3, 1, 3},  // max(tail + 1, nextIndex) = 3
      {'d', 2, 4, 2, 2},
      {'d', 3, 4, 3, 1},
      {'d', 4, 4, 4, 0},  // the last entry out: headIndex = nextIndex
      {'d', 4, 4, 4, 0},  // empty: nothing changes
      {'e', 4, 4, 4, 1},
  };
  std::uint32_t v = 100;
  std::vector<std::uint32_t> out;
  for (const Row& row : rows) {
    if (row.op == 'e') {
      q.enq().value = v++;
    } else {
      const bool had = !q.empty();
      EXPECT_EQ(q.deq([&](const Item& e) { out.push_back(e.value); }), had);
    }
    SCOPED_TRACE(testing::Message() << "after " << row.op << " size " << row.size);
    EXPECT_EQ(q.headIndex(), row.headIndex);
    EXPECT_EQ(q.nextIndex(), row.nextIndex);
    EXPECT_EQ(q.taken(), row.taken);
    EXPECT_EQ(q.size(), row.size);
    EXPECT_EQ(q.empty(), q.head() == nullptr);
    EXPECT_EQ(q.empty(), q.tail() == nullptr);
    if (!q.empty()) EXPECT_EQ(q.head()->index(), q.headIndex());
  }
  EXPECT_EQ(out, (std::vector<std::uint32_t>{100, 101, 102, 103}));
  EXPECT_EQ(values(q), std::vector<std::uint32_t>{104});
}

// entryAt finds by index or links a new entry in at its place; del removes by index or iterator.
TEST(LinkQueue, KeyedAccess) {
  Queue q;
  for (std::uint32_t v : {10u, 11u, 12u}) q.enq().value = v;  // indices 0 1 2
  q.entryAt(1).value = 21;                                     // existing: changed in place
  q.entryAt(2).value = 22;
  EXPECT_EQ(q.size(), 3u);
  q.entryAt(7).value = 17;  // behind the tail
  EXPECT_EQ(q.nextIndex(), 7u);
  EXPECT_EQ(q.tail()->value, 17u);
  q.entryAt(5).value = 15;  // between
  EXPECT_EQ(indices(q), (std::vector<std::uint32_t>{0, 1, 2, 5, 7}));
  EXPECT_EQ(values(q), (std::vector<std::uint32_t>{10, 21, 22, 15, 17}));
  EXPECT_EQ(q.find(5)->value, 15u);
  EXPECT_EQ(q.find(6), nullptr);

  EXPECT_TRUE(q.del(0));  // the head: headIndex follows
  EXPECT_EQ(q.headIndex(), 1u);
  EXPECT_TRUE(q.del(7));  // the tail: the tail link moves back
  EXPECT_EQ(q.tail()->index(), 5u);
  EXPECT_FALSE(q.del(7));
  EXPECT_EQ(q.enq().index(), 7u);  // max(5 + 1, nextIndex 7)

  // Delete through an iterator, then link an entry in before the head.
  EXPECT_EQ(q.del(q.begin())->index(), 2u);
  q.entryAt(0).value = 1;
  EXPECT_EQ(q.headIndex(), 0u);
  EXPECT_EQ(indices(q), (std::vector<std::uint32_t>{0, 2, 5, 7}));

  q.delAll();
  EXPECT_TRUE(q.empty());
  EXPECT_EQ(q.headIndex(), q.nextIndex());
  EXPECT_EQ(q.begin(), q.end());
}

// An entry someone else still refers to outlives its removal and is never handed out again, while
// entries nobody holds are reused without changing what the queue shows.
TEST(LinkQueue, EntriesHeldElsewhereSurviveRemoval) {
  Queue q;
  q.enq().value = 1;
  q.enq().value = 2;
  Kelp::Ptr<Item> held(const_cast<Item*>(q.head()));
  EXPECT_EQ(held->references(), 2u);
  q.deq([](const Item&) {});
  EXPECT_EQ(held->references(), 1u);
  for (int i = 0; i < 1000; ++i) {
    Item& e = q.enq();
    EXPECT_NE(&e, held.get());
    EXPECT_EQ(e.value, 0u);  // a reused entry comes back reset
    e.value = 3;
    q.deq([](const Item&) {});
  }
  EXPECT_EQ(held->value, 1u);
  EXPECT_EQ(values(q), (std::vector<std::uint32_t>{3}));

  q.enq().value = 4;
  Kelp::Ptr<Item> kept(const_cast<Item*>(q.tail()));
  q.delAll();
  EXPECT_EQ(kept->value, 4u);
  EXPECT_EQ(kept->references(), 1u);
}

}  // namespace
