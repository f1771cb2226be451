#pragma once
// Kelp::HashMap2018: the framework's hash map, keyed by framework values.
//
// A thin front on absl::flat_hash_map that hashes keys with the framework's 32-bit hash (Kelp::Hash)
// seeded per collection, so that two collections of the same keys probe differently and the
// layout of one tells nothing about another. Each owner picks its seed, usually the process's
// hash seed mixed with a constant of its own:
//
//   Kelp::HashMap2018<U32, Kelp::Ptr<Vrf>> vrfs(Kelp::processHashSeed() ^ 0x5f1);
//   vrfs.tryEmplace(7, vrf);
//   if (Kelp::Ptr<Vrf>* v = vrfs.find(7)) ...
//
// Keys are hashed by KeyHash<K>: a key type with a member `U32 hash(U32 seed) const` uses it;
// integers and enumerations are mixed by width; strings by their bytes. A key type may also name a
// hasher of its own (a callable taking the key and the seed) as the third template argument.
//
// Pointers to values stay valid until the next insertion; iteration order is the table's.

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

#include <absl/container/flat_hash_map.h>

#include "platform/Kelp/Hash.h"

namespace Kelp {

// The process's hash seed: drawn at random once per process (or read from the environment
// variable BGPCOMMON_HASH_SEED, a decimal or 0x-prefixed number, for reproducible runs) and fixed
// for the life of the process.
std::uint32_t processHashSeed();

template <typename K>
struct KeyHash {
  std::uint32_t operator()(const K& k, std::uint32_t seed) const {
    if constexpr (requires { { k.hash(seed) } -> std::convertible_to<std::uint32_t>; }) {
      return k.hash(seed);
    } else {
      Hash h(seed);
      if constexpr (std::is_enum_v<K>) {
        h.hashMix(static_cast<std::make_unsigned_t<std::underlying_type_t<K>>>(k));
      } else if constexpr (std::is_integral_v<K>) {
        h.hashMix(static_cast<std::make_unsigned_t<K>>(k));
      } else {
        static_assert(std::is_convertible_v<const K&, std::string_view>, "no Kelp hash for this key type");
        h.hashMix(std::string_view(k));
      }
      return h.result();
    }
  }
};

template <typename K, typename V, typename KH = KeyHash<K>>
class HashMap2018 {
  struct Hasher {
    std::uint32_t seed = 0;
    KH keyHash{};
    std::size_t operator()(const K& k) const { return keyHash(k, seed); }
  };
  using Map = absl::flat_hash_map<K, V, Hasher, std::equal_to<K>>;

 public:
  using key_type = K;
  using mapped_type = V;
  using iterator = typename Map::iterator;
  using const_iterator = typename Map::const_iterator;

  explicit HashMap2018(std::uint32_t seed) : map_(0, Hasher{seed}) {}

  std::uint32_t seed() const { return map_.hash_function().seed; }
  // The hash the collection files `k` under.
  std::uint32_t hash(const K& k) const { return static_cast<std::uint32_t>(map_.hash_function()(k)); }

  std::size_t size() const { return map_.size(); }
  bool empty() const { return map_.empty(); }

  V* find(const K& k) {
    auto it = map_.find(k);
    return it == map_.end() ? nullptr : &it->second;
  }
  const V* find(const K& k) const {
    auto it = map_.find(k);
    return it == map_.end() ? nullptr : &it->second;
  }
  bool contains(const K& k) const { return map_.contains(k); }

  // Adds k with a value made from args unless k is present; returns the value and whether it was
  // added.
  template <typename... Args>
  std::pair<V*, bool> tryEmplace(const K& k, Args&&... args) {
    auto [it, added] = map_.try_emplace(k, std::forward<Args>(args)...);
    return {&it->second, added};
  }
  template <typename M>
  V& insertOrAssign(const K& k, M&& v) {
    return map_.insert_or_assign(k, std::forward<M>(v)).first->second;
  }
  // Removes k and returns the value it held, or nothing when k is absent.
  std::optional<V> take(const K& k) {
    auto it = map_.find(k);
    if (it == map_.end()) return std::nullopt;
    std::optional<V> v(std::move(it->second));
    map_.erase(it);
    return v;
  }
  bool erase(const K& k) { return map_.erase(k) != 0; }
  void clear() { map_.clear(); }

  iterator begin() { return map_.begin(); }
  iterator end() { return map_.end(); }
  const_iterator begin() const { return map_.begin(); }
  const_iterator end() const { return map_.end(); }

 private:
  Map map_;
};

}  // namespace Kelp
