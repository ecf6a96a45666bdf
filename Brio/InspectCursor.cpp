#include "Brio/InspectCursor.h"

#include <new>
#include <utility>

#include "Brio/InspectBox.h"

namespace Brio {

InspectCursor::InspectCursor(Lumen::Ptr<Lumen::Node> object, const InspectField& field,
                             const void* key)
    : object_(std::move(object)), attribute_(field.attribute) {
  const void* functions = nullptr;
  void* at = const_cast<void*>(key);
  iterator_ = field.declaredBy.glue().iterator(object_.get(), key == nullptr ? nullptr : &at,
                                               attribute_.field(), &functions);
  if (iterator_ == nullptr) {
    throw std::bad_alloc();
  }
  functions_ = static_cast<const IteratorFunctions*>(functions);
}

InspectCursor::InspectCursor(InspectCursor&& other) noexcept
    : object_(std::move(other.object_)),
      attribute_(other.attribute_),
      functions_(other.functions_),
      iterator_(std::exchange(other.iterator_, nullptr)) {}

InspectCursor::~InspectCursor() {
  if (iterator_ != nullptr) {
    functions_->iterDel(attribute_.field(), iterator_);
  }
}

bool InspectCursor::atEnd() const {
  return !functions_->iterNonnull(attribute_.field(), iterator_);
}

InspectValue InspectCursor::key() const {
  const InspectBox box(*attribute_.field().module, attribute_.row().keyType, 0);
  functions_->iterKey(attribute_.field(), iterator_, box.at());
  return box.get();
}

InspectValue InspectCursor::value() const {
  const InspectBox box(*attribute_.field().module, attribute_.row().type, attribute_.row().flags);
  functions_->iterObj(attribute_.field(), iterator_, box.at());
  return box.get();
}

void InspectCursor::settle() { functions_->iterSettle(attribute_.field(), iterator_); }

void InspectCursor::advance() { functions_->iterInc(attribute_.field(), iterator_); }

}  // namespace Brio
