#pragma once

#include "BrioQuilt/QuiltEntity.h"
#include "Quilt/Layout.h"
#include "Quilt/Mount.h"
#include "Quilt/QuiltMap.h"

namespace BrioQuilt {

// An entity with one collection of `Record`. A class that gives its operations names of its own
// derives from it and says `using CollectionEntity::CollectionEntity;`.
template <class Record>
class CollectionEntity : public QuiltEntity {
 public:
  // Opens the collection. Throws BrioSharedMem::StoreError, and nothing has been done then.
  explicit CollectionEntity(const Opening& opening) : QuiltEntity(opening), map_(open(opening)) {
    controlIs(Lumen::makeNode<CollectionControl>(map_.file()));
  }

  // The collection. Changes of it, through a reader's entity, end the process.
  [[nodiscard]] Quilt::QuiltMap<Record>& map() noexcept { return map_; }
  [[nodiscard]] const Quilt::QuiltMap<Record>& map() const noexcept { return map_; }
  [[nodiscard]] const Quilt::QuiltMapBase& mapBase() const noexcept override { return map_; }

 private:
  [[nodiscard]] static Quilt::QuiltMap<Record> open(const Opening& opening) {
    const Quilt::Shape shape = Quilt::RecordTraits<Record>::shape(
        opening.typeName, opening.collectionName, opening.capacity);
    if (opening.mode == Opening::Mode::read) {
      return Quilt::QuiltMap<Record>(opening.local
                                         ? opening.local->mapAgain()
                                         : Quilt::StoreFile::openReader(opening.place, shape));
    }
    Quilt::Mounted mounted = Quilt::mountForWriting<Record>(opening.place, shape);
    return Quilt::QuiltMap<Record>(std::move(mounted.file), mounted.found);
  }

  Quilt::QuiltMap<Record> map_;
};

}  // namespace BrioQuilt
