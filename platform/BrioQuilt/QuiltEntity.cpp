#include "BrioQuilt/QuiltEntity.h"

namespace BrioQuilt {

QuiltEntity::QuiltEntity(const Opening& opening)
    : Brio::Entity(opening.place.path), typeName_(opening.typeName) {}

QuiltEntity::~QuiltEntity() = default;

}  // namespace BrioQuilt
