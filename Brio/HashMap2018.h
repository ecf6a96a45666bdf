#pragma once

#include <bit>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>

#include "Brio/HashMap2018Generic.h"
#include "Brio/HashMap2018NodeExternalKey.h"
#include "Brio/HashMap2018NodeInternalKey.h"
#include "Brio/HashMap2018Sizing.h"
#include "Brio/StdIterator.h"

namespace Brio {

// A keyed collection of nodes of type NodeT, which is or derives from Hm2018NE or Hm2018NI. Made
// for one thread. An empty one allocates nothing. Lookups stand here, inline, and so do insertions
// and deletions that change a bucket in place; all else goes to the type-blind engine
// (HashMap2018Generic.h).
//
// A pointer to a node is valid until the next change of the collection. Iterators survive every
// change. Who writes a value through find() while an iterator stands on that bucket changes what
// the iterator shows as stale, too; a key is never changed.
//
// Hashing is the caller's, once per operation: hashed(key) goes into as many calls as that key
// needs.
template <class NodeT>
class HashMap2018 {
 public:
  using Node = NodeT;
  using Key = typename Node::Key;
  using Value = typename Node::Value;  // void for a set
  using ConstIterator = HashMap2018ConstIterator<Node>;
  using const_iterator = StdIterator<Node>;

  HashMap2018() noexcept : generic_(&vtable(), TypeSafeIndex<unsigned, 1>(1), false) {}
  ~HashMap2018() { generic_.emptyAllBuckets(&vtable(), true); }
  HashMap2018(const HashMap2018&) = delete;
  HashMap2018& operator=(const HashMap2018&) = delete;

  [[nodiscard]] unsigned size() const noexcept { return generic_.size(); }
  [[nodiscard]] bool empty() const noexcept { return generic_.size() == 0; }
  // The second size: slots that are allocated, in use or not.
  [[nodiscard]] unsigned slotCount() const noexcept { return generic_.slotCount(); }

  // The key's address and its salted hash; the key must outlive it.
  [[nodiscard]] HashHelper::KeyAndRhashSeedArg hashed(const Key& key) const {
    return {&key, HashHelper::keyHash(HashHelper::hashSeed32() ^ Node::kSalt, key)};
  }

  // The node of the key; null if absent.
  [[nodiscard]] Node* find(HashHelper::KeyAndRhashSeedArg keyAndHash) {
    return findNode(keyAndHash);
  }
  [[nodiscard]] const Node* find(HashHelper::KeyAndRhashSeedArg keyAndHash) const {
    return findNode(keyAndHash);
  }
  [[nodiscard]] const Node* operator[](const Key& key) const {
    return empty() ? nullptr : findNode(hashed(key));
  }

  // Has the processor fetch what a search for the key comes to first. Changes nothing.
  void fetchAhead(HashHelper::KeyAndRhashSeedArg keyAndHash) const noexcept {
    __builtin_prefetch(&generic_.entry(keyAndHash.hash));
  }

  // Inserts; the key must be that of the node, and absent.
  Node& newMember(HashHelper::KeyAndRhashSeedArg keyAndHash, Node&& node) {
    return emplaceMember(keyAndHash, std::move(node));
  }
  // The same with the node made in its place, which saves a large one a copy. The arguments may not
  // refer to the collection's nodes.
  template <class... Args>
  Node& emplaceMember(HashHelper::KeyAndRhashSeedArg keyAndHash, Args&&... args) {
    const std::uint32_t hash = keyAndHash.hash;
    HashMap2018DirectoryEntry& in = generic_.entryWithRoom(&vtable(), hash);
    HashMap2018BucketHdr& bucket = *in.bucket;
    const unsigned slot = bucket.used();
    if (slot >= HashMap2018DirectoryEntry::kTags) [[unlikely]] {
      return static_cast<Node&>(
          *generic_.newMemberG(&vtable(), keyAndHash, Node(std::forward<Args>(args)...)));
    }
    Node* made =
        ::new (static_cast<void*>(nodes(&bucket) + slot)) Node(std::forward<Args>(args)...);
    bucket.hashIs(slot, hash);
    bucket.usedIs(slot + 1);
    in.tagAppend(slot, hash);
    generic_.countInsert();
    return *made;
  }

  // True if the key was there. The removed node is moved to *out if `out` is not null. Both the
  // node that goes and what *out held are destroyed after the collection has changed.
  bool del(HashHelper::KeyAndRhashSeedArg keyAndHash, Node* out) {
    Node* node = findNode(keyAndHash);
    if (node == nullptr) {
      return false;
    }
    if constexpr (Impl::kPlainValue) {
      if (out != nullptr) {
        *out = *node;
      }
      erase(keyAndHash.hash, node);
    } else {
      const bool shared = generic_.entry(keyAndHash.hash).bucket->shared();
      Node removed = shared ? Node(std::as_const(*node)) : Node(std::move(*node));
      erase(keyAndHash.hash, node);
      if (out != nullptr) {
        *out = std::move(removed);
      }
    }
    return true;
  }
  bool del(const Key& key) { return !empty() && del(hashed(key), nullptr); }

  void delAll() { generic_._memberDelAll(&vtable()); }

  // At the first node.
  [[nodiscard]] ConstIterator iterator() const {
    return ConstIterator(HashMap2018IteratorGeneric(generic_, &vtable()));
  }
  // At the key; at the end if it is absent.
  [[nodiscard]] ConstIterator iterator(const Key& key) const {
    return ConstIterator(HashMap2018IteratorGeneric(generic_, &vtable(), hashed(key)));
  }
  [[nodiscard]] const_iterator begin() const { return const_iterator(iterator()); }
  [[nodiscard]] const_iterator end() const {
    return const_iterator(ConstIterator(HashMap2018IteratorGeneric(
        generic_, &vtable(), HashMap2018IteratorGeneric::EndOfCollection{})));
  }

  [[nodiscard]] const HashMap2018Generic& generic() const noexcept { return generic_; }
  [[nodiscard]] static const HashMap2018VTable& vtable() noexcept { return Impl::record; }

 private:
  using Impl = HashMap2018VTable::Impl<Node, Key>;

  // A key in the slot that is no longer than two stored hashes is compared at once: its comparison
  // costs less than that of the stored hash, after the tag has matched.
  static constexpr bool kStoredHashFirst = !Node::kStoresKey || sizeof(Key) > 8;

  [[nodiscard]] Node* findNode(HashHelper::KeyAndRhashSeedArg keyAndHash) const {
    const HashMap2018DirectoryEntry& entry = generic_.entry(keyAndHash.hash);
    const Key& key = *static_cast<const Key*>(keyAndHash.key);
    for (unsigned matches = entry.matches(keyAndHash.hash); matches != 0; matches &= matches - 1) {
      const auto slot = static_cast<unsigned>(std::countr_zero(matches));
      if (kStoredHashFirst && entry.bucket->hash(slot) != keyAndHash.hash) {
        continue;
      }
      Node* node = nodes(entry.bucket) + slot;
      if (HashHelper::keyIsEq<Key>(key, node->key())) [[likely]] {
        return node;
      }
    }
    if (entry.reachesBeyondTags()) [[unlikely]] {
      return static_cast<Node*>(
          HashMap2018Generic::lookupBeyondTags(&vtable(), entry.bucket, keyAndHash));
    }
    return nullptr;
  }

  // Removes the member whose node has been moved away, or copied if its bucket is shared.
  void erase(std::uint32_t hash, Node* node) {
    HashMap2018DirectoryEntry& in = generic_.entryOf(hash);
    HashMap2018BucketHdr& bucket = *in.bucket;
    Node* slots = nodes(&bucket);
    const auto slot = static_cast<unsigned>(node - slots);
    const unsigned left = bucket.used() - 1;
    if (left == 0 || left >= HashMap2018DirectoryEntry::kTags || bucket.shared() ||
        HashMap2018Sizing::wasteful(sizeof(Node), bucket.capacity(), left)) [[unlikely]] {
      generic_.memberErase(&vtable(), hash, slot);
      return;
    }
    std::destroy_at(node);
    if (slot != left) {
      Impl::relocate(node, &slots[left]);
      bucket.hashIs(slot, bucket.hash(left));
    }
    bucket.usedIs(left);
    in.tagReplace(slot, left);
    generic_.countErase(&vtable());
  }

  [[nodiscard]] static Node* nodes(HashMap2018BucketHdr* bucket) noexcept {
    return reinterpret_cast<Node*>(bucket->slots());
  }

  HashMap2018Generic generic_;
};

}  // namespace Brio
