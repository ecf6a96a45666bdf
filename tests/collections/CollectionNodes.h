#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Brio/HashMap2018.h"
#include "CollectionObject.h"
#include "Lumen/Ptr.h"
#include "Lumen/String.h"

// Node types of all kinds and key widths, each with a description of how to make its n-th key and a
// node of it; and a collection over std::map with the same face, on which the suites are proved
// themselves.

namespace collections_test {

// As keys of entries are: some fields, an own hash and equality.
struct FieldsKey {
  std::uint16_t port = 0;
  std::uint16_t vlan = 0;
  std::uint32_t label = 0;
  std::uint64_t circuit = 0;

  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Brio::Hash::hashMix<2>(seed, {static_cast<std::uint64_t>(port) << 48 |
                                             static_cast<std::uint64_t>(vlan) << 32 | label,
                                         circuit});
  }
  [[nodiscard]] bool isEq(const FieldsKey& other) const noexcept {
    return (*this <=> other) == std::strong_ordering::equal;
  }
  friend auto operator<=>(const FieldsKey&, const FieldsKey&) = default;
};

struct WideKey {
  std::array<std::uint64_t, 68> words{};

  [[nodiscard]] std::uint32_t hash(std::uint32_t seed) const noexcept {
    return Brio::Hash::hashBytes(seed, words.data(), sizeof words);
  }
  [[nodiscard]] bool isEq(const WideKey& other) const noexcept { return words == other.words; }
  friend auto operator<=>(const WideKey&, const WideKey&) = default;
};
static_assert(sizeof(WideKey) == 544);

struct alignas(16) AlignedKey {
  std::uint64_t value = 0;
  std::uint64_t rest = 0;

  friend auto operator<=>(const AlignedKey&, const AlignedKey&) = default;
};

// A key whose hashes collide: `hashes` different ones in all, spread over the whole range.
template <unsigned hashes>
struct CollidingKey {
  std::uint32_t value = 0;

  [[nodiscard]] std::uint32_t hash(std::uint32_t) const noexcept {
    return value % hashes * (0xffffffffU / hashes);
  }
  [[nodiscard]] bool isEq(const CollidingKey& other) const noexcept { return value == other.value; }
  friend auto operator<=>(const CollidingKey&, const CollidingKey&) = default;
};

// An object that knows its key, as the values of maps with internal keys do.
class KeyedObject : public Object {
 public:
  KeyedObject(const FieldsKey& key, unsigned id) : Object(id), key_(key) {}
  [[nodiscard]] const FieldsKey& key() const noexcept { return key_; }

 private:
  FieldsKey key_;
};

struct Entry {
  FieldsKey key;
  std::uint32_t number = 0;
};

// The n-th key of each type; different for every n.
template <class Key>
Key makeKey(unsigned n) {
  if constexpr (std::is_same_v<Key, FieldsKey>) {
    return {static_cast<std::uint16_t>(n % 61), static_cast<std::uint16_t>(n % 4093), n, 0};
  } else if constexpr (std::is_same_v<Key, WideKey>) {
    WideKey key;
    key.words[n % 68] = 1;
    key.words[67] += static_cast<std::uint64_t>(n) << 8;
    return key;
  } else if constexpr (std::is_same_v<Key, AlignedKey>) {
    return {n, 0};
  } else if constexpr (std::is_same_v<Key, Lumen::String>) {
    return "a key that is too long for the short form, number " + std::to_string(n);
  } else if constexpr (std::is_integral_v<Key>) {
    return static_cast<Key>(n * Key{2654435761U});
  } else {
    return Key{n};
  }
}

struct HN_Set4 : Brio::Hm2018NE<3760285788, std::uint32_t, void, 1> {
  using Hm2018NE::Hm2018NE;
};
struct HN_Map4 : Brio::Hm2018NE<1564697678, std::uint32_t, std::uint64_t, 1> {
  using Hm2018NE::Hm2018NE;
};
struct HN_SetFields : Brio::Hm2018NE<4199456661, FieldsKey, void, 1> {
  using Hm2018NE::Hm2018NE;
};
struct HN_MapObject : Brio::Hm2018NE<782731820, std::uint64_t, Lumen::Ptr<Object>, 1> {
  using Hm2018NE::Hm2018NE;
};
struct HN_MapWide : Brio::Hm2018NE<1387900387, WideKey, std::uint32_t, 1> {
  using Hm2018NE::Hm2018NE;
};
struct HN_MapString : Brio::Hm2018NE<1832999693, Lumen::String, Lumen::String, 1> {
  using Hm2018NE::Hm2018NE;
};
struct HN_SetAligned : Brio::Hm2018NE<7, AlignedKey, void, 1> {
  using Hm2018NE::Hm2018NE;
};
template <unsigned hashes>
struct HN_SetColliding : Brio::Hm2018NE<8, CollidingKey<hashes>, void, 1> {
  using Brio::Hm2018NE<8, CollidingKey<hashes>, void, 1>::Hm2018NE;
};
struct HN_MapColliding : Brio::Hm2018NE<9, CollidingKey<5>, Lumen::Ptr<Object>, 1> {
  using Hm2018NE::Hm2018NE;
};

struct ObjectKeyFunktor {
  FieldsKey operator()(const Lumen::Ptr<KeyedObject>& object) const {
    return object ? object->key() : FieldsKey();
  }
};
struct HN_InternalObject
    : Brio::Hm2018NI<1931543687, FieldsKey, Lumen::Ptr<KeyedObject>, ObjectKeyFunktor, 1> {
  using Hm2018NI::Hm2018NI;
};
struct EntryKeyFunktor {
  const FieldsKey& operator()(const Entry& entry) const { return entry.key; }
};
struct HN_InternalEntry : Brio::Hm2018NI<20677251, FieldsKey, Entry, EntryKeyFunktor, 1> {
  using Hm2018NI::Hm2018NI;
};

// The node of the n-th key with a value that holds `number`; sets hold none.
template <class Node>
Node makeNode(unsigned n, unsigned number) {
  using Value = typename Node::Value;
  const auto key = makeKey<typename Node::Key>(n);
  if constexpr (std::is_same_v<Node, HN_InternalObject>) {
    return Node(Lumen::makeNode<KeyedObject>(key, number));
  } else if constexpr (std::is_same_v<Node, HN_InternalEntry>) {
    return Node(Entry{key, number});
  } else if constexpr (std::is_void_v<Value>) {
    return Node(key);
  } else if constexpr (std::is_same_v<Value, Lumen::Ptr<Object>>) {
    return Node(key, Object::make(number));
  } else if constexpr (std::is_same_v<Value, Lumen::String>) {
    return Node(key, "the value of this key is the number " + std::to_string(number));
  } else {
    return Node(key, number);
  }
}

// True if the node's value holds `number`; always so for a set.
template <class Node>
bool holds(const Node& node, unsigned number) {
  using Value = typename Node::Value;
  if constexpr (std::is_void_v<Value>) {
    return true;
  } else if constexpr (std::is_same_v<Value, Entry>) {
    return node.value().number == number;
  } else if constexpr (std::is_same_v<Value, Lumen::Ptr<Object>> ||
                       std::is_same_v<Value, Lumen::Ptr<KeyedObject>>) {
    return node.value()->id() == number;
  } else if constexpr (std::is_same_v<Value, Lumen::String>) {
    return node.value() == "the value of this key is the number " + std::to_string(number);
  } else {
    return node.value() == number;
  }
}

// The contract of a keyed collection in the simplest form there is.
template <class NodeT>
class ReferenceCollection {
 public:
  using Node = NodeT;
  using Key = typename Node::Key;
  using Arg = Brio::HashHelper::KeyAndRhashSeedArg;

  class ConstIterator {
   public:
    ConstIterator() = default;
    ConstIterator(const ReferenceCollection* owner, typename std::map<Key, Node>::const_iterator at)
        : owner_(owner) {
      stand(at);
    }
    explicit operator bool() const { return seen_ != nullptr; }
    const Node* currNodeMaybeStale() const { return seen_.get(); }
    const Node* currNodeNonStale() const { return seen_ ? (*owner_)[seen_->key()] : nullptr; }
    void advance() {
      if (seen_) {
        stand(owner_->nodes_.upper_bound(seen_->key()));
      }
    }
    bool operator==(const ConstIterator& other) const {
      return seen_ && other.seen_ ? seen_->key() == other.seen_->key() : !seen_ && !other.seen_;
    }

   private:
    void stand(typename std::map<Key, Node>::const_iterator at) {
      seen_ = at == owner_->nodes_.end() ? nullptr : std::make_shared<Node>(at->second);
    }
    const ReferenceCollection* owner_ = nullptr;
    std::shared_ptr<const Node> seen_;
  };

  unsigned size() const { return static_cast<unsigned>(nodes_.size()); }
  bool empty() const { return nodes_.empty(); }
  Arg hashed(const Key& key) const { return {&key, 0}; }
  Node* find(Arg arg) {
    const auto found = nodes_.find(keyOf(arg));
    return found == nodes_.end() ? nullptr : &found->second;
  }
  const Node* find(Arg arg) const { return (*this)[keyOf(arg)]; }
  const Node* operator[](const Key& key) const {
    const auto found = nodes_.find(key);
    return found == nodes_.end() ? nullptr : &found->second;
  }
  Node& newMember(Arg arg, Node&& node) {
    return nodes_.emplace(keyOf(arg), std::move(node)).first->second;
  }
  bool del(Arg arg, Node* out) {
    const auto found = nodes_.find(keyOf(arg));
    if (found == nodes_.end()) {
      return false;
    }
    if (out != nullptr) {
      *out = std::move(found->second);
    }
    nodes_.erase(found);
    return true;
  }
  bool del(const Key& key) { return nodes_.erase(key) != 0; }
  void delAll() { nodes_.clear(); }
  ConstIterator iterator() const { return {this, nodes_.begin()}; }
  ConstIterator iterator(const Key& key) const { return {this, nodes_.find(key)}; }

 private:
  static const Key& keyOf(Arg arg) { return *static_cast<const Key*>(arg.key); }

  std::map<Key, Node> nodes_;
};

// Inserts the n-th key, which must be absent.
template <class Collection>
void insert(Collection& collection, unsigned n, unsigned number = 0) {
  using Node = typename Collection::Node;
  const auto key = makeKey<typename Node::Key>(n);
  collection.newMember(collection.hashed(key), makeNode<Node>(n, number));
}
template <class Collection>
bool has(const Collection& collection, unsigned n) {
  return collection[makeKey<typename Collection::Node::Key>(n)] != nullptr;
}
template <class Collection>
bool erase(Collection& collection, unsigned n) {
  return collection.del(makeKey<typename Collection::Node::Key>(n));
}

}  // namespace collections_test
