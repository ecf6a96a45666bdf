#pragma once

#include "Brio/GenericIterator.h"
#include "Brio/InspectRegistry.h"
#include "Brio/InspectValue.h"

namespace Brio {

// A place in a collection of an object. It survives every change of the collection, and keeps the
// object alive. A later walk may begin at its key.
class InspectCursor {
 public:
  // At the first member, or at the one under `key`, a value of the collection's key type (null: the
  // first); at the end if that is absent. The field is a collection.
  InspectCursor(Lumen::Ptr<Lumen::Node> object, const InspectField& field, const void* key);
  ~InspectCursor();
  InspectCursor(InspectCursor&& other) noexcept;
  InspectCursor(const InspectCursor&) = delete;
  InspectCursor& operator=(const InspectCursor&) = delete;

  [[nodiscard]] bool atEnd() const;
  // If the member is gone: to the next one that is there, or to the end. Members that have left the
  // collection are not kept any longer.
  void settle();
  // Neither may be asked at the end. A member that is gone has its key, and null or the default for
  // a value.
  [[nodiscard]] InspectValue key() const;
  [[nodiscard]] InspectValue value() const;
  // To the next member or to the end; nothing at the end.
  void advance();

 private:
  Lumen::Ptr<Lumen::Node> object_;
  InspectAttribute attribute_;
  const IteratorFunctions* functions_ = nullptr;
  void* iterator_ = nullptr;
};

}  // namespace Brio
