#include "platform/Kelp/LinkQueue.h"

#include <tuple>
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
// first out, and an entry reused after a dequeue comes back with its payload reset.
TEST(LinkQueue, IndexBookkeeping) {
  Queue q;
  using Indices = std::tuple<std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t>;  // head, next, taken, size
  const std::pair<char, Indices> rows[] = {  // 'e' enqueue, 'd' dequeue, and the indices after it
      {'e', {0, 0, 0, 1}},  // first entry takes nextIndex
      {'e', {0, 1, 0, 2}},  // then tail + 1
      {'e', {0, 2, 0, 3}},
      {'d', {1, 3, 1, 2}},  // dequeue raises nextIndex past the tail
      {'e', {1, 3, 1, 3}},  // max(tail + 1, nextIndex) = 3
      {'d', {2, 4, 2, 2}},
      {'d', {3, 4, 3, 1}},
      {'d', {4, 4, 4, 0}},  // the last entry out: headIndex = nextIndex
      {'d', {4, 4, 4, 0}},  // empty: nothing changes
      {'e', {4, 4, 4, 1}},
  };
  std::uint32_t v = 100;
  std::vector<std::uint32_t> out;
  for (const auto& [op, after] : rows) {
    if (op == 'e') {
      Item& e = q.enq();
      EXPECT_EQ(e.value, 0u);
      e.value = v++;
    } else {
      const bool had = !q.empty();
      EXPECT_EQ(q.deq([&](const Item& e) { out.push_back(e.value); }), had);
    }
    EXPECT_EQ(Indices(q.headIndex(), q.nextIndex(), q.taken(), q.size()), after) << "after " << op << " size " << q.size();
    EXPECT_EQ(q.empty(), q.head() == nullptr && q.tail() == nullptr);
    if (!q.empty()) EXPECT_EQ(q.head()->index(), q.headIndex());
  }
  EXPECT_EQ(out, (std::vector<std::uint32_t>{100, 101, 102, 103}));
  EXPECT_EQ(values(q), std::vector<std::uint32_t>{104});
}

// entryAt finds by index or links a new entry in at its place; del removes by index or iterator,
// and removing the tail moves the tail's index back with it.
TEST(LinkQueue, KeyedAccess) {
  Queue q;
  for (std::uint32_t v : {10u, 11u, 12u}) q.enq().value = v;  // indices 0 1 2
  q.entryAt(1).value = 21;                                     // existing: changed in place
  q.entryAt(7).value = 17;                                     // behind the tail
  EXPECT_EQ(q.nextIndex(), 7u);
  q.entryAt(5).value = 15;  // between
  EXPECT_EQ(indices(q), (std::vector<std::uint32_t>{0, 1, 2, 5, 7}));
  EXPECT_EQ(values(q), (std::vector<std::uint32_t>{10, 21, 12, 15, 17}));
  EXPECT_EQ(q.find(5)->value, 15u);
  EXPECT_EQ(q.find(6), nullptr);
  EXPECT_TRUE(q.del(0));  // the head: headIndex follows
  EXPECT_EQ(q.headIndex(), 1u);
  EXPECT_TRUE(q.del(7));
  EXPECT_FALSE(q.del(7));
  EXPECT_EQ(q.tail()->index(), 5u);
  EXPECT_EQ(q.find(7), nullptr);
  EXPECT_EQ(q.enq().index(), 7u);  // max(5 + 1, nextIndex 7)
  EXPECT_EQ(q.del(q.begin())->index(), 2u);  // through an iterator: answers the next entry
  q.entryAt(0).value = 1;                    // before the head
  EXPECT_EQ(q.headIndex(), 0u);
  EXPECT_EQ(indices(q), (std::vector<std::uint32_t>{0, 2, 5, 7}));
  q.delAll();
  EXPECT_TRUE(q.empty());
  EXPECT_EQ(q.headIndex(), q.nextIndex());
  EXPECT_EQ(q.begin(), q.end());
}

}  // namespace
