#pragma once

#include <utility>

#include "Brio/Entity.h"
#include "BrioQuilt/CollectionControl.h"
#include "BrioQuilt/MountInfo.h"
#include "Lumen/Ptr.h"
#include "Lumen/String.h"
#include "Quilt/QuiltMapBase.h"
#include "Quilt/StoreFile.h"

namespace BrioQuilt {

// What an entity is opened with. Made by BrioSharedMem; entity classes hand it on.
struct Opening {
  enum class Mode { write, read };

  Mode mode;
  Quilt::FilePlace place;
  Lumen::String typeName;
  // The collection to be mounted; for a reader, empty.
  Lumen::String collectionName;
  std::uint32_t capacity = 0;
  // For a reader of private memory: the writer's file.
  Lumen::Ptr<Quilt::StoreFile> local;
};

// An entity of shared memory that holds one collection, whatever its records are. Its entityName()
// is its path.
class QuiltEntity : public Brio::Entity {
 public:
  ~QuiltEntity() override;

  [[nodiscard]] const Lumen::String& typeName() const noexcept { return typeName_; }
  [[nodiscard]] virtual const Quilt::QuiltMapBase& mapBase() const noexcept = 0;
  [[nodiscard]] bool readOnly() const noexcept { return mapBase().readOnly(); }
  // The collection's control block, which stays good when the entity is gone.
  [[nodiscard]] Lumen::Ptr<CollectionControl> collectionControl() const { return control_; }
  // See CollectionControl::replaced.
  [[nodiscard]] bool replaced() const noexcept { return mapBase().file()->replaced(); }

 protected:
  explicit QuiltEntity(const Opening& opening);
  void controlIs(Lumen::Ptr<CollectionControl> control) { control_ = std::move(control); }

 private:
  Lumen::String typeName_;
  Lumen::Ptr<CollectionControl> control_;
};

}  // namespace BrioQuilt
