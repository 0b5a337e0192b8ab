#include "vorn/support/ordered_map.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

namespace {

// Destruction log: "v<id> " for a mapped value, "k<id> " for a key.
std::string g_log;

// Logs its destruction; default construction throws while `fail` is set.
struct Logged {
  static inline bool fail = false;
  char kind = 'v';
  int id = fail ? throw 1 : 0;
  ~Logged() { g_log += kind + std::to_string(id) + ' '; }
  bool operator<(const Logged& other) const { return id < other.id; }
};

#ifdef __GLIBCXX__  // reads the nodes of libstdc++'s std::map
// Walks both trees in step: same shape, keys, values and colours; every parent link holds.
template <class Map, class Std>
bool SameTree(const Map& m, const Std& model) {
  using N = const typename Map::Node*;
  using B = const std::_Rb_tree_node_base*;
  std::vector<std::tuple<N, B, N>> stack{{m.root(), model.end()._M_node->_M_parent, nullptr}};
  while (!stack.empty()) {
    const auto [n, s, parent] = stack.back();
    stack.pop_back();
    if (!n != !s) return false;
    if (!n) continue;
    const auto& e = *typename Std::const_iterator(s);
    if (std::make_tuple(n->parent, n->entry.first, n->entry.second.id, n->red) !=
        std::make_tuple(parent, e.first, e.second, s->_M_color == std::_S_red))
      return false;
    stack.insert(stack.end(), {{n->left, s->_M_left, n}, {n->right, s->_M_right, n}});
  }
  return true;
}
#endif

// Same operations on both maps; after each, same results, sizes and trees (equal shapes and
// colours imply the red-black invariants). Keys are even; before each insert, one of an odd key
// fails in construction.
TEST(OrderedMap, MatchesStdMapStepByStep) {
#ifndef __GLIBCXX__
  GTEST_SKIP() << "compares tree shapes with the nodes of libstdc++'s std::map; this build "
                  "uses another standard library";
#else
  const auto run = [](const int(&workload)[4], auto compare) {
    const auto& [seed, key_range, steps, insert_percent] = workload;
    std::mt19937 rng(seed);
    vorn::OrderedMap<int, Logged, decltype(compare)> m;
    std::map<int, int, decltype(compare)> model;
    for (int step = 0; step < steps; ++step) {
      SCOPED_TRACE(testing::Message() << "seed " << seed << " step " << step);
      const int key = 2 * static_cast<int>(seed == 0 ? step % key_range : rng() % key_range);
      const int percent = step < steps / 2 ? insert_percent : 100 - insert_percent;
      if (static_cast<int>(rng() % 100) < percent) {
        Logged::fail = true;  // odd keys are never present: the insert throws and changes nothing
        EXPECT_THROW(m.find_or_insert(key + 1), int);
        ASSERT_TRUE(SameTree(m, model));
        Logged::fail = model.count(key) == 1;  // a present key must construct nothing
        const auto [node, inserted] = m.find_or_insert(key);
        Logged::fail = false;
        ASSERT_EQ(inserted, model.count(key) == 0);
        ASSERT_EQ(node->entry.second.id, model[key]);
        node->entry.second.id = model[key] = step;
      } else {
        ASSERT_EQ(m.erase(key), model.erase(key) == 1);
      }
      const int probe = static_cast<int>(rng() % (2 * key_range));
      ASSERT_EQ(m.find(probe) ? m.find(probe)->entry.first : -1, model.count(probe) ? probe : -1);
      ASSERT_EQ(m.size(), model.size());
      ASSERT_TRUE(SameTree(m, model));
    }
  };
  // Seed (0: keys ascend), key range, steps, insert % in the first half (100 - it after).
  const int workloads[][4] = {
      {1, 16, 4000, 60}, {2, 200, 1200, 90}, {3, 600, 1500, 60}, {0, 300, 600, 100}};
  for (const auto& w : workloads) run(w, std::less<int>()), run(w, std::greater<int>());
#endif
}

// erase() destroys the value, then the key. Inserting 0..9 in order and erasing 4 leaves 3 over
// 1 (0, 2) and 7 (5 (., 6), 8 (., 9)); clear() and the destructor release it in post-order.
TEST(OrderedMap, EraseClearAndDestructorDestroyValueBeforeKeyInPostOrder) {
  const Logged erased{'k', 4};
  for (const bool via_destructor : {false, true}) {
    std::optional<vorn::OrderedMap<Logged, Logged, std::less<Logged>>> m(std::in_place);
    for (int id = 0; id < 10; ++id) m->find_or_insert({'k', id}).first->entry.second.id = id;
    g_log.clear();
    EXPECT_TRUE(m->erase(erased));
    via_destructor ? m.reset() : m->clear();
    EXPECT_EQ(g_log, "v4 k4 v0 k0 v2 k2 v1 k1 v6 k6 v5 k5 v9 k9 v8 k8 v7 k7 v3 k3 ")
        << via_destructor;
    EXPECT_TRUE(via_destructor || m->empty());
  }
}

}  // namespace
