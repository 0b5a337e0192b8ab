#include "vorn/support/ordered_map.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace vorn {
namespace {

// Preorder serialisation with "." for null links; it determines the shape.
template <class N, class Kids, class Label>
std::string Serialize(const N* root, Kids kids, Label label) {
  std::string out;
  std::vector<const N*> stack{root};
  while (!stack.empty()) {
    const N* n = stack.back();
    stack.pop_back();
    if (n == nullptr) {
      out += ". ";
      continue;
    }
    out += label(n) + ' ';
    const auto lr = kids(n);
    stack.push_back(lr.second);
    stack.push_back(lr.first);
  }
  return out;
}

template <class Map>
std::string Shape(const Map& m) {
  using N = typename Map::Node;
  return Serialize(
      m.root(), [](const N* n) { return std::make_pair(n->left, n->right); },
      [](const N* n) { return std::to_string(n->entry.first) + (n->red ? "r" : "b"); });
}

#ifdef __GLIBCXX__
static_assert(sizeof(OrderedMap<int, int, std::less<int>>::Node) ==
                  sizeof(std::_Rb_tree_node<std::pair<const int, int>>),
              "node layout differs from std::map's");

template <class Compare>
std::string StdShape(const std::map<int, int, Compare>& m) {
  using Base = std::_Rb_tree_node_base;
  using Leaf = std::_Rb_tree_node<std::pair<const int, int>>;
  const Base* header = m.end()._M_node;
  return Serialize(
      static_cast<const Base*>(header->_M_parent),
      [](const Base* n) {
        return std::make_pair(static_cast<const Base*>(n->_M_left),
                              static_cast<const Base*>(n->_M_right));
      },
      [](const Base* n) {
        return std::to_string(static_cast<const Leaf*>(n)->_M_valptr()->first) +
               (n->_M_color == std::_S_red ? "r" : "b");
      });
}
#endif

// Checks the red-black invariants and that the contents equal `model`.
template <class Map, class Model>
testing::AssertionResult Consistent(const Map& m, const Model& model) {
  using N = typename Map::Node;
  if (m.root() != nullptr && m.root()->red) {
    return testing::AssertionFailure() << "red root";
  }
  std::vector<std::pair<int, int>> items;
  std::vector<std::pair<const N*, int>> stack;  // node, blacks down to it
  int leaf_blacks = -1;
  std::string error;
  auto descend = [&](const N* n, const N* parent, int blacks) {
    for (; n != nullptr; parent = n, n = n->left) {
      if (n->parent != parent) error = "bad parent link";
      if (n->red && parent != nullptr && parent->red) error = "red-red";
      blacks += n->red ? 0 : 1;
      stack.emplace_back(n, blacks);
    }
    if (leaf_blacks != -1 && leaf_blacks != blacks) error = "black height";
    leaf_blacks = blacks;
  };
  descend(m.root(), nullptr, 0);
  while (!stack.empty() && error.empty()) {
    const auto [n, blacks] = stack.back();
    stack.pop_back();
    items.emplace_back(n->entry.first, n->entry.second);
    descend(n->right, n, blacks);
  }
  if (!error.empty()) return testing::AssertionFailure() << error;
  const std::vector<std::pair<int, int>> expected(model.begin(), model.end());
  if (items != expected) return testing::AssertionFailure() << "contents";
  if (m.size() != model.size() || m.empty() != model.empty()) {
    return testing::AssertionFailure() << "size " << m.size();
  }
  return testing::AssertionSuccess();
}

struct Workload {
  const char* name;
  unsigned seed;
  int key_range;
  int steps;
  int insert_percent_first_half;
  int insert_percent_second_half;
  int order;  // 0: random keys, 1: ascending, -1: descending
};

void PrintTo(const Workload& w, std::ostream* os) { *os << w.name; }

class OrderedMapModel : public testing::TestWithParam<Workload> {
 protected:
  template <class Compare>
  void Run() {
    const Workload& w = GetParam();
    std::mt19937 rng(w.seed);
    OrderedMap<int, int, Compare> m;
    std::map<int, int, Compare> model;
    for (int step = 0; step < w.steps; ++step) {
      const int i = step % w.key_range;
      const int key = w.order > 0   ? i
                      : w.order < 0 ? w.key_range - 1 - i
                                    : static_cast<int>(rng() % w.key_range);
      const int percent =
          step < w.steps / 2 ? w.insert_percent_first_half : w.insert_percent_second_half;
      if (static_cast<int>(rng() % 100) < percent) {
        const auto [node, inserted] = m.find_or_insert(key);
        ASSERT_EQ(inserted, model.count(key) == 0) << "step " << step;
        ASSERT_EQ(node->entry.first, key);
        ASSERT_TRUE(!inserted || node->entry.second == 0);
        node->entry.second = step;
        model[key] = step;
      } else {
        ASSERT_EQ(m.erase(key), model.erase(key) == 1) << "step " << step;
      }
      const int probe = static_cast<int>(rng() % w.key_range);
      const auto* hit = m.find(probe);
      const auto it = model.find(probe);
      ASSERT_EQ(hit != nullptr, it != model.end()) << "step " << step;
      ASSERT_TRUE(hit == nullptr || hit->entry.second == it->second);
      ASSERT_TRUE(Consistent(m, model)) << "step " << step;
#ifdef __GLIBCXX__
      ASSERT_EQ(Shape(m), StdShape(model)) << "step " << step;
#endif
    }
  }
};

TEST_P(OrderedMapModel, MatchesStdMapInContentsInvariantsAndShape) {
  Run<std::less<int>>();
  Run<std::greater<int>>();
}

INSTANTIATE_TEST_SUITE_P(Workloads, OrderedMapModel,
                         testing::Values(Workload{"churn", 1, 16, 4000, 60, 40, 0},
                                         Workload{"grow_then_drain", 2, 200, 1200, 90, 10, 0},
                                         Workload{"wide", 3, 600, 1500, 60, 40, 0},
                                         Workload{"ascending", 4, 300, 600, 100, 0, 1},
                                         Workload{"descending", 5, 300, 600, 100, 0, -1}),
                         [](const testing::TestParamInfo<Workload>& info) {
                           return std::string(info.param.name);
                         });

// Destruction log: ('v', id) for a mapped value, ('k', id) for a key.
std::vector<std::pair<char, int>> g_log;

struct LoggedKey {
  int id;
  ~LoggedKey() { g_log.emplace_back('k', id); }
};
struct LoggedValue {
  int id = -1;
  ~LoggedValue() { g_log.emplace_back('v', id); }
};
struct KeyLess {
  bool operator()(const LoggedKey& a, const LoggedKey& b) const { return a.id < b.id; }
};
using LoggedMap = OrderedMap<LoggedKey, LoggedValue, KeyLess>;

void Fill(LoggedMap& m) {
  std::vector<int> ids(64);
  for (int i = 0; i < 64; ++i) ids[i] = i;
  std::shuffle(ids.begin(), ids.end(), std::mt19937(7));
  for (int id : ids) m.find_or_insert(LoggedKey{id}).first->entry.second.id = id;
  for (int id = 0; id < 64; id += 5) m.erase(LoggedKey{id});
}

// Post-order (left, right, node) as the reverse of a (node, right, left) walk.
std::vector<std::pair<char, int>> ExpectedPostOrderLog(const LoggedMap& m) {
  std::vector<std::pair<char, int>> log;
  std::vector<const LoggedMap::Node*> stack{m.root()};
  while (!stack.empty()) {
    const LoggedMap::Node* n = stack.back();
    stack.pop_back();
    if (n == nullptr) continue;
    log.emplace_back('k', n->entry.first.id);  // reversed below
    log.emplace_back('v', n->entry.first.id);
    stack.push_back(n->left);
    stack.push_back(n->right);
  }
  return {log.rbegin(), log.rend()};
}

TEST(OrderedMapRelease, ClearAndDestructorDestroyInPostOrderValueBeforeKey) {
  for (const bool via_destructor : {false, true}) {
    std::optional<LoggedMap> m(std::in_place);
    Fill(*m);
    ASSERT_EQ(m->size(), 51u);
    const auto expected = ExpectedPostOrderLog(*m);
    g_log.clear();
    if (via_destructor) {
      m.reset();
    } else {
      m->clear();
      EXPECT_TRUE(m->empty());
      EXPECT_EQ(m->root(), nullptr);
    }
    EXPECT_EQ(g_log, expected) << "via_destructor=" << via_destructor;
  }
}

TEST(OrderedMapRelease, EraseDestroysValueThenKey) {
  LoggedMap m;
  Fill(m);
  const LoggedKey present{33};
  g_log.clear();
  EXPECT_TRUE(m.erase(present));
  EXPECT_EQ(g_log, (std::vector<std::pair<char, int>>{{'v', 33}, {'k', 33}}));
  EXPECT_EQ(m.find(present), nullptr);
}

using IntMap = OrderedMap<int, int, std::less<int>>;

TEST(OrderedMapEdge, EmptyMapAndMissingKeys) {
  IntMap m;
  EXPECT_EQ(m.find(0), nullptr);
  EXPECT_FALSE(m.erase(0));
  EXPECT_TRUE(m.empty());
  EXPECT_EQ(m.root(), nullptr);
  for (int k = 0; k < 40; k += 2) m.find_or_insert(k).first->entry.second = k;
  const std::string before = Shape(m);
  for (int k : {-1, 1, 17, 39, 40}) {
    EXPECT_FALSE(m.erase(k)) << k;
    EXPECT_EQ(m.find(k), nullptr) << k;
  }
  EXPECT_EQ(Shape(m), before);
  EXPECT_EQ(m.size(), 20u);
}

struct Fragile {
  static inline bool fail = false;
  int v = 0;
  Fragile() {
    if (fail) throw std::runtime_error("construction failed");
  }
};

TEST(OrderedMapEdge, ThrowingConstructionLeavesMapUnchanged) {
  OrderedMap<int, Fragile, std::less<int>> m;
  for (int k = 0; k < 10; ++k) m.find_or_insert(k * 10);
  const std::string before = Shape(m);
  Fragile::fail = true;
  EXPECT_THROW(m.find_or_insert(45), std::runtime_error);
  EXPECT_FALSE(m.find_or_insert(50).second);  // present: nothing constructed
  Fragile::fail = false;
  EXPECT_EQ(Shape(m), before);
  EXPECT_EQ(m.find(45), nullptr);
  EXPECT_EQ(m.size(), 10u);
  EXPECT_TRUE(m.find_or_insert(45).second);
}

}  // namespace
}  // namespace vorn
