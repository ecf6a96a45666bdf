#pragma once

#include "Lumen/Node.h"
#include "Lumen/Ptr.h"
#include "Lumen/String.h"

namespace Brio {

// A node that lives in a tree of named entities, or stands alone as a process-wide singleton.
class Entity : public Lumen::Node {
 public:
  Entity() = default;
  explicit Entity(Lumen::String entityName) : entityName_(std::move(entityName)) {}
  ~Entity() override;

  // Called when the entity gets a parent, and with null when it loses it.
  virtual void handleParent(const Lumen::Ptr<Entity>& parent);

  [[nodiscard]] const Lumen::String& entityName() const noexcept { return entityName_; }

  // The singleton of a type, by the type's name: null if there is none yet.
  [[nodiscard]] static Lumen::Ptr<Entity> singletonExists(const Lumen::String& typeName);
  // Enters `entity` as the singleton of `typeName` and gives it back. One that is there already is
  // replaced. A null entity removes the singleton.
  static Lumen::Ptr<Entity> singletonIs(const Lumen::String& typeName,
                                        const Lumen::Ptr<Entity>& entity);

 private:
  Lumen::String entityName_;
};

}  // namespace Brio
