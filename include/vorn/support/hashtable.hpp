// Chained hash table with prime bucket counts: vorn::hsh::Hashtable, its key
// extractors and the hash functors.
#ifndef VORN_SUPPORT_HASHTABLE_HPP
#define VORN_SUPPORT_HASHTABLE_HPP

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>
#include <vector>

#include "vorn/support/memory_pool.hpp"

namespace vorn {
namespace hsh {

namespace {
// Bucket counts, ascending. Keys here are ids, symbol ids and node addresses: they
// come in regular strides (ids count up by one, addresses by 32). A prime modulus
// shares no factor with such a stride, so consecutive keys spread over all buckets;
// the hash functors can therefore stay trivial (identity, address, shift-and-add).
// Each entry is roughly twice the one before it.
constexpr std::uint64_t primes[28] = {
    31ul,        73ul,        151ul,        313ul,        643ul,        1291ul,       2593ul,
    5233ul,      10501ul,     21013ul,      42073ul,      84181ul,      168451ul,     337219ul,
    674701ul,    1349473ul,   2699299ul,    5398891ul,    10798093ul,   21596719ul,   43193641ul,
    86387383ul,  172775299ul, 345550609ul,  691101253ul,  1382202559ul, 2764405229ul, 4294867387ul};
constexpr std::size_t prime_count = sizeof primes / sizeof primes[0];
}  // namespace

namespace detail {

/// h % primes[k], the bucket of hash `h` among primes[k] buckets. Each case divides by a
/// constant, which the compiler turns into a multiplication and a shift instead of a 64-bit
/// division; the remainder is the same for every h.
inline std::uint64_t bucket_index(std::uint64_t h, std::size_t k) noexcept {
  switch (k) {
    case 0: return h % primes[0];
    case 1: return h % primes[1];
    case 2: return h % primes[2];
    case 3: return h % primes[3];
    case 4: return h % primes[4];
    case 5: return h % primes[5];
    case 6: return h % primes[6];
    case 7: return h % primes[7];
    case 8: return h % primes[8];
    case 9: return h % primes[9];
    case 10: return h % primes[10];
    case 11: return h % primes[11];
    case 12: return h % primes[12];
    case 13: return h % primes[13];
    case 14: return h % primes[14];
    case 15: return h % primes[15];
    case 16: return h % primes[16];
    case 17: return h % primes[17];
    case 18: return h % primes[18];
    case 19: return h % primes[19];
    case 20: return h % primes[20];
    case 21: return h % primes[21];
    case 22: return h % primes[22];
    case 23: return h % primes[23];
    case 24: return h % primes[24];
    case 25: return h % primes[25];
    case 26: return h % primes[26];
    default: return h % primes[27];
  }
}
static_assert(prime_count == 28, "bucket_index has one case per entry of primes");

/// Asks for the cache line at `p` ahead of its use; never faults, whatever `p` is. Always
/// inlined: GCC takes a function that only prefetches for one without effects and drops a
/// call to it (with the prefetch) unless it has inlined the call first; so does any
/// function that only prefetches through this one.
#if defined(__GNUC__)
__attribute__((always_inline))
#endif
inline void prefetch(const void* p) noexcept { __builtin_prefetch(p); }

/// A hash functor may offer `static void prefetch(const Key&, int stage)`: stage 0 asks
/// memory for what hashing the key reads first, stage 1 (called once stage 0 has had time
/// to arrive) for what it reads next. Rehashing calls both ahead of the hash; functors
/// without it need nothing.
template <class Hash, class Key, class = void>
struct KeyPrefetch {
  static void run(const Key&, int) noexcept {}
};
template <class Hash, class Key>
struct KeyPrefetch<Hash, Key,
                   std::void_t<decltype(Hash::prefetch(std::declval<const Key&>(), 0))>> {
  static void run(const Key& key, int stage) noexcept { Hash::prefetch(key, stage); }
};

/// Whether a table of `bucket_count` buckets holding `count` elements is loaded past 0.7,
/// the test that makes an insert grow the table: both numbers as single-precision floats,
/// divided in single precision, the quotient widened and compared with the double 0.7.
inline bool loaded(std::uint64_t count, std::uint64_t bucket_count) noexcept {
  return static_cast<double>(static_cast<float>(count) / static_cast<float>(bucket_count)) > 0.7;
}

/// The smallest count at which loaded(count, bucket_count) holds. The test can only turn
/// from false to true as the count grows (converting to float and dividing by a positive
/// number both keep order), so `count >= growth_threshold(b)` and `loaded(count, b)` agree
/// for every count. Found by bisection over that very test, rounding included.
inline std::uint64_t growth_threshold(std::uint64_t bucket_count) noexcept {
  std::uint64_t below = 0, at = bucket_count;  // loaded(at) holds (1 > 0.7), loaded(0) not
  while (at - below > 1) {
    const std::uint64_t mid = below + (at - below) / 2;
    (loaded(mid, bucket_count) ? at : below) = mid;
  }
  return at;
}

}  // namespace detail

/// Hash functors. The table reduces every hash modulo a prime, so none of them mixes.
template <class T>
struct hash;

/// h = 5h + c over the bytes before the NUL, each byte taken as a signed char
/// (bytes 0x80..0xFF add a negative amount), modulo 2^64. The empty string hashes to 0.
template <>
struct hash<char*> {
  std::uint64_t operator()(const char* s) const noexcept {
    std::size_t length;
    return of(s, length);
  }

  /// Hashing reads the bytes of `s`: ask for the first of them.
  static void prefetch(const char* s, int stage) noexcept {
    if (stage == 0) detail::prefetch(s);
  }

  /// The hash of `s`, also giving its length (the pass that hashes finds the NUL).
  static std::uint64_t of(const char* s, std::size_t& length) noexcept {
    std::uint64_t h = 0;
    const char* p = s;
    for (; *p != '\0'; ++p) {
      h = 5 * h + static_cast<std::uint64_t>(static_cast<std::int64_t>(static_cast<signed char>(*p)));
    }
    length = static_cast<std::size_t>(p - s);
    return h;
  }

  /// The hash of the `len` bytes at `s`, none of them NUL: what of() gives once they are
  /// terminated.
  static std::uint64_t of_bytes(const char* s, std::size_t len) noexcept {
    std::uint64_t h = 0;
    for (std::size_t i = 0; i < len; ++i) {
      h = 5 * h + static_cast<std::uint64_t>(static_cast<std::int64_t>(static_cast<signed char>(s[i])));
    }
    return h;
  }
};

/// The number itself.
template <>
struct hash<unsigned long> {
  std::uint64_t operator()(unsigned long v) const noexcept { return v; }
};

/// Gives the element itself as its key.
template <class T>
struct GetKey_identity {
  const T& operator()(const T& v) const noexcept { return v; }
};

/// Gives the `first` of a pair as its key.
template <class K, class M>
struct GetKey_pair {
  const K& operator()(const std::pair<K, M>& v) const noexcept { return v.first; }
};

/// A set of `Value`s found by the key `GetKey` extracts, in singly linked chains
/// hanging from a bucket array.
///
/// Ownership: chain nodes come from the table's own pool (first chunk 16 slots,
/// doubling up to 8192); elements are copied in and never destroyed, so whatever an
/// element points to stays its owner's business.
///
/// Growth: at the start of every `insert`, when count / bucket_count (in single
/// precision) exceeds 0.7, the table grows to the next entry of `primes`, also when
/// the key then turns out to be present. It never shrinks. Elements leave all at once
/// (`clear`) or by a sweep over the whole table (`remove_if`).
///
/// `Eq` is always called with the stored key first. Not thread-safe.
template <class Value, class GetKey, class Key, class Hash, class Eq>
class Hashtable {
 public:
  /// Chain node. No cached hash: growth hashes every key again.
  struct Bucket {
    Bucket* next;
    Value item;
  };

  /// A position: a node and where it was found. The end position has a null node and
  /// bucket_index == bucket_count. Positions compare by node.
  struct iterator {
    std::vector<Bucket*>* table_buckets;
    std::uint64_t bucket_count;  // as when the position was made
    std::uint64_t bucket_index;
    Bucket* node;

    /// From a bucket index and a null node, moves on to the first node of the next
    /// non-empty bucket after that index, or becomes the end position.
    iterator(std::vector<Bucket*>* buckets, std::uint64_t count, std::uint64_t index,
             Bucket* n) noexcept
        : table_buckets(buckets), bucket_count(count), bucket_index(index), node(n) {
      if (node != nullptr) return;
      while (++bucket_index < bucket_count) {
        node = (*table_buckets)[bucket_index];
        if (node != nullptr) return;
      }
      bucket_index = bucket_count;
    }

    Value& operator*() const noexcept { return node->item; }
    Value* operator->() const noexcept { return &node->item; }
    bool operator==(const iterator& o) const noexcept { return node == o.node; }
    bool operator!=(const iterator& o) const noexcept { return node != o.node; }
  };

  /// 31 empty buckets, count 0, a pool that holds no memory yet.
  Hashtable() : buckets(primes[0], nullptr), grow_at(detail::growth_threshold(primes[0])) {}

  Hashtable(const Hashtable&) = delete;
  Hashtable& operator=(const Hashtable&) = delete;

  // Destruction frees the bucket array and then the pool's chunks. Chain nodes are
  // not handed back to the pool one by one first: the pool frees them all at once,
  // and nothing can observe the difference.
  ~Hashtable() = default;

  /// The element whose key equals `key`, or end(). An empty table answers without hashing.
  iterator find(const Key& key) {
    if (count == 0) return end();
    const std::uint64_t index = bucket_of(Hash()(key));
    Bucket* b = walk(index, equal_key(key));
    return b != nullptr ? iterator(&buckets, buckets.size(), index, b) : end();
  }

  /// Inserts `v` unless an element with an equal key is stored: (new position, true)
  /// or (existing position, false). Grows first when the load exceeds 0.7.
  /// On `std::bad_alloc` the table is as before, but for a growth already completed.
  std::pair<iterator, bool> insert(const Value& v) {
    grow_if_loaded();
    const Key& key = GetKey()(v);
    const std::uint64_t index = bucket_of(Hash()(key));
    if (Bucket* b = walk(index, equal_key(key))) {
      return {iterator(&buckets, buckets.size(), index, b), false};
    }
    return {link_new(index, v), true};
  }

  /// Whether an element with key `key` is stored: find(key) != end() without positions.
  bool contains(const Key& key) const {
    return count != 0 && walk(bucket_of(Hash()(key)), equal_key(key)) != nullptr;
  }

  /// For owners that can hash and compare a key they have not built as a `Key`: the stored
  /// element that `matches`, or null. `h` must be the hash `Hash` gives that key, and
  /// `matches(item)` must say what `Eq` would. Like find(), an empty table answers at once.
  template <class Matches>
  Value* find_item(std::uint64_t h, Matches matches) {
    if (count == 0) return nullptr;
    Bucket* b = walk(bucket_of(h), matches);
    return b != nullptr ? &b->item : nullptr;
  }

  /// A hint for owners that know a look-up of hash `h` ahead; changes nothing. Stage 0 asks
  /// memory for its bucket; stage 1, once that has had time to arrive, for the first node
  /// of the chain there; stage 2, later still, for what hashing that node's key reads first.
  /// Always inlined, as detail::prefetch is.
#if defined(__GNUC__)
  __attribute__((always_inline))
#endif
  void prefetch(std::uint64_t h, int stage) const noexcept {
    const std::uint64_t i = bucket_of(h);
    if (stage == 0) {
      detail::prefetch(&buckets[i]);
    } else if (const Bucket* b = buckets[i]) {
      if (stage == 1) {
        detail::prefetch(b);
      } else {
        detail::KeyPrefetch<Hash, Key>::run(GetKey()(b->item), 0);
      }
    }
  }

  /// insert() of an element whose key is known to be absent and whose hash is `h`:
  /// the same growth check, the same chain-head linking, no second walk of the chain.
  iterator insert_absent(std::uint64_t h, const Value& v) {
    assert(h == Hash()(GetKey()(v)) && "insert_absent given another hash than the key's");
    grow_if_loaded();
    return link_new(bucket_of(h), v);
  }

  /// The bucket array a growth leaves behind (see rehash_counting), for return_to().
  using BucketArray = std::vector<Bucket*>;

  /// Grows to the first prime not below `n` (the largest prime if none is), unless the
  /// table already has `n` buckets or more. Nodes are relinked, not copied. When the new
  /// bucket array cannot be allocated, `std::bad_alloc` leaves the table unchanged.
  void rehash(std::size_t n) {
    BucketArray old;
    rehash_counting(n, [](const Value&) { return false; }, old);
  }

  /// rehash(n) that also returns how many elements satisfy `test(item)`, testing each one
  /// right after hashing it, so the test may read what hashing has just brought into the
  /// cache at almost no cost. The old bucket array is left in `old` rather than freed
  /// (its contents mean nothing), so that return_to(old) can undo the growth without
  /// allocating. Returns 0 when the table does not grow.
  template <class Test>
  std::size_t rehash_counting(std::size_t n, Test test, BucketArray& old) {
    if (buckets.size() >= n) return 0;
    const std::uint64_t* p = std::lower_bound(std::begin(primes), std::end(primes),
                                              static_cast<std::uint64_t>(n));
    if (p == std::end(primes)) --p;
    BucketArray(*p, nullptr).swap(old);
    old.swap(buckets);
    return relink_all(old, static_cast<std::size_t>(p - std::begin(primes)), test);
  }

  /// Moves every element back into `array`, a bucket array that rehash_counting() left
  /// behind, restoring the bucket count it had; the current array takes its place in
  /// `array`. Allocates nothing. The chains end as a rehash to that count would leave them.
  void return_to(BucketArray& array) noexcept {
    const std::uint64_t* p =
        std::lower_bound(std::begin(primes), std::end(primes), static_cast<std::uint64_t>(array.size()));
    assert(p != std::end(primes) && *p == array.size() && "not a bucket array of this table");
    std::fill(array.begin(), array.end(), nullptr);
    array.swap(buckets);
    relink_all(array, static_cast<std::size_t>(p - std::begin(primes)),
               [](const Value&) { return false; });
  }

  /// Removes every element: each chain, head to tail and bucket by bucket, goes back to
  /// the pool (so later inserts reuse those nodes). The bucket count stays.
  void clear() noexcept {
    if (count != 0) {
      for (Bucket*& head : buckets) {
        while (head != nullptr) {
          Bucket* next = head->next;
          pool.deallocate(head);
          head = next;
        }
      }
    }
    count = 0;
  }

  /// Calls `visit(item)` for every element in sweep order: bucket by bucket in index order,
  /// each chain head to tail. `visit` may change what elements point to, not the table.
  template <class Visit>
  void for_each(Visit visit) {
    for (Bucket* head : buckets) {
      for (Bucket* b = head; b != nullptr; b = b->next) visit(b->item);
    }
  }

  /// Whether `test(item)` holds for some element; stops at the first, in sweep order.
  template <class Test>
  bool any_of(Test test) const {
    for (Bucket* head : buckets) {
      for (Bucket* b = head; b != nullptr; b = b->next) {
        if (test(b->item)) return true;
      }
    }
    return false;
  }

  /// Removes every element for which `dead(item)` holds, calling it once per element in
  /// sweep order (see for_each). The chain nodes go back to the pool in that order, so the
  /// last one removed is the next one reused. Returns the number removed. No hashing.
  template <class Dead>
  std::size_t remove_if(Dead dead) {
    const std::uint64_t before = count;
    for (Bucket*& head : buckets) {
      for (Bucket** link = &head; *link != nullptr;) {
        Bucket* b = *link;
        if (dead(b->item)) {
          *link = b->next;
          pool.deallocate(b);
          --count;
        } else {
          link = &b->next;
        }
      }
    }
    return static_cast<std::size_t>(before - count);
  }

  /// Whether the next insert grows the table (the load test insert() starts with).
  bool grows_on_next_insert() const noexcept { return count >= grow_at; }
  /// The element count at which inserts start growing the table.
  std::uint64_t growth_point() const noexcept { return grow_at; }

  iterator end() noexcept { return iterator(&buckets, buckets.size(), buckets.size(), nullptr); }

  /// Number of elements stored.
  std::size_t size() const noexcept { return count; }
  /// Number of buckets: always an entry of `primes`.
  std::size_t bucket_count() const noexcept { return buckets.size(); }

 private:
  // The first node of chain `index` whose item `matches`, or null.
  template <class Matches>
  Bucket* walk(std::uint64_t index, Matches matches) const {
    for (Bucket* b = buckets[index]; b != nullptr; b = b->next) {
      if (matches(b->item)) return b;
    }
    return nullptr;
  }
  static auto equal_key(const Key& key) {
    return [&key](const Value& item) { return Eq()(GetKey()(item), key); };
  }

  static constexpr std::size_t rehash_batch = 16;  // nodes gathered before they are linked

  // Links every node of the chains of `old` into the (empty) current bucket array, which
  // has primes[new_prime_at] buckets; returns how many items satisfy `test`.
  //
  // Every element goes to the front of its new chain, in the order of a walk of the old
  // chains. The walk gathers a batch, asking memory for what the batch's hashes will read,
  // then hashes and links the batch: the cache misses of a batch overlap instead of
  // following one another, and the chains end exactly as one-by-one relinking leaves them.
  template <class Test>
  std::size_t relink_all(const BucketArray& old, std::size_t new_prime_at, Test test) noexcept {
    prime_at = new_prime_at;
    grow_at = detail::growth_threshold(primes[new_prime_at]);
    Bucket* gathered[rehash_batch];
    std::size_t k = 0, counted = 0;
    for (std::size_t b = 0; b < old.size(); ++b) {
      if (b + rehash_batch < old.size()) detail::prefetch(old[b + rehash_batch]);
      for (Bucket* head = old[b]; head != nullptr;) {
        gathered[k] = head;
        head = head->next;  // read before the batch is linked
        detail::KeyPrefetch<Hash, Key>::run(GetKey()(gathered[k]->item), 0);
        if (++k == rehash_batch) counted += relink(gathered, k, test);
      }
    }
    return counted + relink(gathered, k, test);
  }

  // Puts the `k` gathered nodes, in order, at the front of their chains; empties the batch.
  // Returns how many of their items satisfy `test`, each tested just after it is hashed.
  template <class Test>
  std::size_t relink(Bucket* const* gathered, std::size_t& k, Test test) noexcept {
    std::uint64_t index[rehash_batch];
    std::size_t counted = 0;
    for (std::size_t i = 0; i < k; ++i) {
      detail::KeyPrefetch<Hash, Key>::run(GetKey()(gathered[i]->item), 1);
    }
    for (std::size_t i = 0; i < k; ++i) {
      index[i] = bucket_of(Hash()(GetKey()(gathered[i]->item)));
      counted += test(gathered[i]->item) ? 1 : 0;
      detail::prefetch(&buckets[index[i]]);
    }
    for (std::size_t i = 0; i < k; ++i) {
      gathered[i]->next = buckets[index[i]];
      buckets[index[i]] = gathered[i];
    }
    k = 0;
    return counted;
  }

  // h modulo the bucket count.
  std::uint64_t bucket_of(std::uint64_t h) const noexcept {
    return detail::bucket_index(h, prime_at);
  }

  // The load test of every insert, detail::loaded(count, bucket count), as one comparison
  // with its precomputed threshold (same outcome for every count).
  void grow_if_loaded() {
    if (count >= grow_at) rehash(buckets.size() + 1);
  }

  iterator link_new(std::uint64_t index, const Value& v) {
    Bucket* b = pool.alloc(Bucket{nullptr, v});
    b->next = buckets[index];
    buckets[index] = b;
    ++count;
    return iterator(&buckets, buckets.size(), index, b);
  }

  ObjectPool<Bucket, false> pool{16, 2.0f, 8192};  // source of every chain node
  BucketArray buckets;  // chain heads; size() is always an entry of primes
  std::uint64_t count = 0;       // elements stored == nodes in all chains
  // Derived from the bucket count, kept beside it so that no operation divides:
  std::size_t prime_at = 0;  // buckets.size() == primes[prime_at]
  std::uint64_t grow_at;     // == detail::growth_threshold(buckets.size())
};

}  // namespace hsh
}  // namespace vorn

#endif  // VORN_SUPPORT_HASHTABLE_HPP
