#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <utility>

#include "Brio/HashMap2018.h"
#include "Lumen/RQueue.h"

namespace Brio {

// What inspection asks of a collection. Value is void for a set. An iterator survives every change
// of the collection; present() is null once the member is gone, key() is the key as the iterator
// sees it. letGo(), where there is one, drops what the iterator keeps of members that have left;
// its own must be there.
template <class Collection>
struct InspectCollection;

template <class Node>
struct InspectCollection<HashMap2018<Node>> {
  using Collection = HashMap2018<Node>;
  using Key = typename Node::Key;
  using Value = typename Node::Value;

  static std::uint32_t size(const Collection& in) { return in.size(); }
  static std::uint32_t secondSize(const Collection& in) { return in.slotCount(); }
  static const auto* find(const Collection& in, const Key& key) { return in[key]; }
  // Of what find() gave.
  static const auto& valueOf(const Node& node) { return node.value(); }

  class Iterator {
   public:
    explicit Iterator(const Collection& in) : in_(&in), iter_(in.iterator()) {}
    Iterator(const Collection& in, const Key& key) : in_(&in), iter_(in.iterator(key)) {}

    [[nodiscard]] bool nonnull() const { return static_cast<bool>(iter_); }
    [[nodiscard]] const Node* present() const { return iter_.currNodeNonStale(); }
    [[nodiscard]] Key key() const {
      const Node* node = iter_.currNodeMaybeStale();
      return node == nullptr ? Key{} : node->key();
    }
    void advance() { iter_.advance(); }
    // A bucket that has changed since has the members that it had then.
    void letGo() { iter_ = in_->iterator(key()); }

   private:
    const Collection* in_;
    typename Collection::ConstIterator iter_;
  };
};

// A map in the order of its keys. Its iterator stands on a key, so that it goes on from there
// whatever has come and gone.
template <class K, class V>
struct InspectCollection<std::map<K, V>> {
  using Collection = std::map<K, V>;
  using Key = K;
  using Value = V;

  static std::uint32_t size(const Collection& in) { return static_cast<std::uint32_t>(in.size()); }
  static std::uint32_t secondSize(const Collection& in) { return size(in); }
  static const V* find(const Collection& in, const Key& key) {
    const auto found = in.find(key);
    return found == in.end() ? nullptr : &found->second;
  }
  static const V& valueOf(const V& value) { return value; }

  class Iterator {
   public:
    explicit Iterator(const Collection& in) : in_(&in) { stand(in.begin()); }
    Iterator(const Collection& in, const Key& key) : in_(&in) { stand(in.find(key)); }

    [[nodiscard]] bool nonnull() const { return key_.has_value(); }
    [[nodiscard]] const V* present() const { return key_ ? find(*in_, *key_) : nullptr; }
    [[nodiscard]] Key key() const { return key_.value_or(Key{}); }
    void advance() {
      if (key_) {
        stand(in_->upper_bound(*key_));
      }
    }

   private:
    void stand(typename Collection::const_iterator at) {
      key_ = at == in_->end() ? std::nullopt : std::optional<Key>(at->first);
    }

    const Collection* in_;
    std::optional<Key> key_;
  };
};

// A queue is a map from an element's index, which it keeps for life.
template <class T, bool flag, class Tag>
struct InspectCollection<Lumen::RQueue<T, flag, Tag>> {
  using Collection = Lumen::RQueue<T, flag, Tag>;
  using Key = std::uint32_t;
  using Value = T;

  static std::uint32_t size(const Collection& in) { return in.size(); }
  static std::uint32_t secondSize(const Collection& in) { return in.size(); }
  static const T* find(const Collection& in, Key index) { return in.at(index); }
  static const T& valueOf(const T& element) { return element; }

  class Iterator {
   public:
    explicit Iterator(const Collection& in) : Iterator(in, in.frontIndex()) {}
    Iterator(const Collection& in, Key index) : in_(&in), index_(index), stands_(in.has(index)) {}

    [[nodiscard]] bool nonnull() const { return stands_; }
    [[nodiscard]] const T* present() const { return stands_ ? in_->at(index_) : nullptr; }
    [[nodiscard]] Key key() const { return index_; }
    // Elements leave at the front only.
    void advance() {
      if (!stands_) {
        return;
      }
      const Key front = in_->frontIndex();
      index_ = Lumen::RQueueIndex::isAfter(front, index_) ? front : index_ + 1;
      stands_ = in_->has(index_);
    }

   private:
    const Collection* in_;
    Key index_;
    bool stands_;
  };
};

}  // namespace Brio
