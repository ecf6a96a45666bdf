#pragma once

#include <functional>

#include "Brio/InspectRegistry.h"
#include "Brio/InspectValue.h"
#include "Lumen/Publisher.h"

namespace Brio {

// Listens to the changes of one attribute of an object, from its making to its end. Keeps the
// object alive.
class InspectSubscription final : private Lumen::Subscriber {
 public:
  // `key` is that of the member or the index of the element that changed; nothing for a plain
  // attribute.
  using Told = std::function<void(const InspectValue& key)>;

  // Throws InspectError if the object publishes nothing.
  InspectSubscription(Lumen::Ptr<Lumen::Node> object, const InspectAttribute& attribute, Told told);
  ~InspectSubscription();

 private:
  static void changed(Lumen::Publisher* publisher, Lumen::Subscriber* self, Lumen::FieldId field,
                      const void* key, const void* oldValue);

  Lumen::Ptr<Lumen::Node> object_;
  InspectAttribute attribute_;
  Told told_;
};

}  // namespace Brio
