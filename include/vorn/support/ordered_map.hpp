// vorn/support/ordered_map.hpp - a small red-black tree map with a fixed
// tree shape and a post-order clear.
#ifndef VORN_SUPPORT_ORDERED_MAP_HPP
#define VORN_SUPPORT_ORDERED_MAP_HPP

#include <cstddef>
#include <tuple>
#include <utility>

namespace vorn {

/// Ordered map from Key to Mapped, ordered by Compare, stored as a
/// red-black tree. The pattern matcher keeps its bindings in it.
///
/// It exists because the library guarantees the order in which entries are
/// released when a map is emptied: clear() (and the destructor) destroy the
/// entries in post-order over the tree (whole left subtree, whole right
/// subtree, then the node). For that order to be well defined, the shape of
/// the tree depends only on the sequence of insertions and erasures:
///  - insertion links the new node at its unique leaf position and applies
///    the classic red-black insert fix-up;
///  - erasing a node with two children moves its in-order successor into
///    its place, where the successor takes over the erased node's colour,
///    then applies the classic delete fix-up.
/// These are the rules of libstdc++'s std::map, so after the same
/// operations both trees have the same shape and colours.
///
/// Ownership: the map owns its nodes. Each one is allocated on its own with
/// `new Node` and released with `delete`. Nodes never move, so a Node*
/// stays valid until its entry is erased or the map is cleared.
///
/// Invariants, which hold between any two public calls:
///  - an in-order walk visits keys in strictly increasing Compare order;
///  - the root is black and has a null parent, and every child's parent
///    link points back to the node that holds it;
///  - no red node has a red child;
///  - every path from a node down to a null link passes the same number of
///    black nodes.
template <class Key, class Mapped, class Compare>
class OrderedMap {
 public:
  struct Node {
    // Colour and links come first: 32 bytes on LP64, like std::map's node.
    bool red = true;
    Node* parent = nullptr;
    Node* left = nullptr;
    Node* right = nullptr;
    std::pair<const Key, Mapped> entry;

    explicit Node(const Key& key)
        : entry(std::piecewise_construct, std::forward_as_tuple(key), std::forward_as_tuple()) {}
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;
  };

  OrderedMap() noexcept {}
  ~OrderedMap() { clear(); }
  OrderedMap(const OrderedMap&) = delete;
  OrderedMap& operator=(const OrderedMap&) = delete;

  /// Returns the node holding `key`, or null.
  Node* find(const Key& key) const {
    Node* bound = nullptr;  // last node whose key is not less than `key`
    for (Node* x = root_; x != nullptr;) {
      if (!less_(x->entry.first, key)) {
        bound = x;
        x = x->left;
      } else {
        x = x->right;
      }
    }
    return bound != nullptr && !less_(key, bound->entry.first) ? bound : nullptr;
  }

  /// Returns (node, false) if `key` is present. Otherwise inserts the entry
  /// {key, Mapped()} and returns (new node, true). If allocating or
  /// constructing the node throws, the map is unchanged.
  std::pair<Node*, bool> find_or_insert(const Key& key) {
    Node* parent = nullptr;
    Node* bound = nullptr;  // as in find()
    bool go_left = false;
    for (Node* x = root_; x != nullptr;) {
      parent = x;
      go_left = !less_(x->entry.first, key);
      if (go_left) bound = x;
      x = go_left ? x->left : x->right;
    }
    if (bound != nullptr && !less_(key, bound->entry.first)) {
      return {bound, false};
    }
    Node* node = new Node(key);  // may throw; nothing is modified before this
    node->parent = parent;
    if (parent == nullptr) {
      root_ = node;
    } else {
      // Absent key: going left means key < parent's key.
      (go_left ? parent->left : parent->right) = node;
    }
    ++size_;
    fix_after_insert(node);
    return {node, true};
  }

  /// Removes the entry for `key`, if any: the node is unlinked and the tree
  /// rebalanced first, then the entry is destroyed (mapped value before
  /// key) and the node deleted. Returns whether an entry was removed.
  bool erase(const Key& key) {
    Node* z = find(key);
    if (z == nullptr) return false;
    unlink(z);
    --size_;
    delete z;
    return true;
  }

  /// Destroys every entry in post-order, then leaves the map empty. The map
  /// is detached from the nodes first, so it already reads as empty while
  /// the entries are being destroyed.
  void clear() noexcept {
    Node* n = root_;
    root_ = nullptr;
    size_ = 0;
    // Strip leaves: go down (left first) to a leaf, delete it, cut it off
    // its parent and continue from the parent. This visits in post-order.
    while (n != nullptr) {
      if (n->left != nullptr) {
        n = n->left;
      } else if (n->right != nullptr) {
        n = n->right;
      } else {
        Node* p = n->parent;
        if (p != nullptr) (p->left == n ? p->left : p->right) = nullptr;
        delete n;
        n = p;
      }
    }
  }

  std::size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  const Node* root() const noexcept { return root_; }

 private:
  using Link = Node* Node::*;  // &Node::left or &Node::right

  static bool is_red(const Node* n) noexcept { return n != nullptr && n->red; }

  // Puts `repl` (possibly null) where `old` hangs in the tree.
  void replace_in_parent(Node* old, Node* repl) noexcept {
    Node* p = old->parent;
    if (p == nullptr) {
      root_ = repl;
    } else {
      (p->left == old ? p->left : p->right) = repl;
    }
    if (repl != nullptr) repl->parent = p;
  }

  // Rotates x down to the `down` side; its child on the other side (`up`)
  // takes its place. rotate(x, &Node::left, &Node::right) is a left rotation.
  void rotate(Node* x, Link down, Link up) noexcept {
    Node* y = x->*up;
    x->*up = y->*down;
    if (y->*down != nullptr) (y->*down)->parent = x;
    replace_in_parent(x, y);
    y->*down = x;
    x->parent = y;
  }

  // Classic insert fix-up; `side` is the side of the grandparent on which
  // the parent hangs, `other` the opposite side.
  void fix_after_insert(Node* x) noexcept {
    while (x != root_ && x->parent->red) {
      Node* p = x->parent;
      Node* g = p->parent;  // exists: a red node is never the root
      const bool p_is_left = p == g->left;
      const Link side = p_is_left ? &Node::left : &Node::right;
      const Link other = p_is_left ? &Node::right : &Node::left;
      Node* uncle = g->*other;
      if (is_red(uncle)) {
        p->red = false;
        uncle->red = false;
        g->red = true;
        x = g;
      } else {
        if (x == p->*other) {
          x = p;
          rotate(x, side, other);
          p = x->parent;
        }
        p->red = false;
        g->red = true;
        rotate(g, other, side);
      }
    }
    root_->red = false;
  }

  // Unlinks z from the tree and restores the invariants. z's links are
  // left dangling; the caller deletes it.
  void unlink(Node* z) noexcept {
    Node* x;         // node moving into the vacated position (may be null)
    Node* x_parent;  // x's parent afterwards
    bool removed_red;
    if (z->left == nullptr || z->right == nullptr) {
      x = z->left != nullptr ? z->left : z->right;
      x_parent = z->parent;
      removed_red = z->red;
      replace_in_parent(z, x);
    } else {
      Node* y = z->right;  // in-order successor; it has no left child
      while (y->left != nullptr) y = y->left;
      x = y->right;
      removed_red = y->red;  // y takes z's colour, so y's colour goes away
      if (y == z->right) {
        x_parent = y;
      } else {
        x_parent = y->parent;
        replace_in_parent(y, x);
        y->right = z->right;
        y->right->parent = y;
      }
      y->left = z->left;
      y->left->parent = y;
      replace_in_parent(z, y);
      y->red = z->red;
    }
    if (!removed_red) fix_after_erase(x, x_parent);
  }

  // Classic delete fix-up: the subtree at x (below `parent`) is one black
  // node short. `side` is x's side of its parent, w its sibling.
  void fix_after_erase(Node* x, Node* parent) noexcept {
    while (x != root_ && !is_red(x)) {
      const bool x_is_left = x == parent->left;
      const Link side = x_is_left ? &Node::left : &Node::right;
      const Link other = x_is_left ? &Node::right : &Node::left;
      Node* w = parent->*other;  // non-null: its side has a black to spare
      if (w->red) {
        w->red = false;
        parent->red = true;
        rotate(parent, side, other);
        w = parent->*other;
      }
      if (!is_red(w->left) && !is_red(w->right)) {
        w->red = true;
        x = parent;
        parent = x->parent;
      } else {
        if (!is_red(w->*other)) {
          (w->*side)->red = false;
          w->red = true;
          rotate(w, other, side);
          w = parent->*other;
        }
        w->red = parent->red;
        parent->red = false;
        if (w->*other != nullptr) (w->*other)->red = false;
        rotate(parent, side, other);
        return;  // balanced; the root stays black
      }
    }
    if (x != nullptr) x->red = false;
  }

  Node* root_ = nullptr;
  std::size_t size_ = 0;
  Compare less_{};
};

}  // namespace vorn

#endif  // VORN_SUPPORT_ORDERED_MAP_HPP
