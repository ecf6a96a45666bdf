#include "Brio/InspectSubscription.h"

#include <fmt/format.h>

#include <utility>

#include "Brio/InspectBox.h"
#include "Brio/InspectType.h"

namespace Brio {

InspectSubscription::InspectSubscription(Lumen::Ptr<Lumen::Node> object,
                                         const InspectAttribute& attribute, Told told)
    : Subscriber(&InspectSubscription::changed),
      object_(std::move(object)),
      attribute_(attribute),
      told_(std::move(told)) {
  Lumen::Publisher* const publisher = object_->publisher();
  if (publisher == nullptr) {
    throw InspectError(fmt::format("{}: a {} publishes no changes; read it again instead",
                                   attribute.name(), object_->typeData().className));
  }
  publisher->subscriberAdd(this);
}

InspectSubscription::~InspectSubscription() { object_->publisher()->subscriberRemove(this); }

void InspectSubscription::changed(Lumen::Publisher*, Lumen::Subscriber* self, Lumen::FieldId field,
                                  const void* key, const void*) {
  const auto& me = *static_cast<InspectSubscription*>(self);
  if (field.attribute() != me.attribute_.id()) {
    return;
  }
  InspectValue told;
  const std::int16_t keyType = me.attribute_.row().keyType;
  if (key != nullptr && keyType != Lumen::kInspectNoKey) {
    const InspectType* type = keyType >= 0
                                  ? me.attribute_.field().module->dependencyTable[keyType].value
                                  : inspectBuiltin(keyType);
    told = type->get(key);
  }
  me.told_(told);
}

}  // namespace Brio
