#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Lumen/Ptr.h"
#include "Lumen/String.h"
#include "Quilt/Layout.h"

namespace Fuzz {

// One file of a store, as its writer left it, and a copy of its bytes that may be spoilt.
struct ImageFile {
  std::string name;
  std::string sound;
  std::string bytes;
  // Of a collection.
  Quilt::Geometry geometry;
  // Gives slot `slot` of the copy the checksum that its bytes have, where there is one such.
  std::function<void(std::string& bytes, std::uint32_t slot)> seal;

  [[nodiscard]] bool collection() const noexcept { return geometry.slots != 0; }
  // Writes the copy, or the sound bytes, into the file.
  void put(const std::string& content) const;
};

// Gives the constants of a header the checksum that they have.
void sealConstants(Quilt::HeaderConstants& constants);

// A small store of two tables and of what they ask for, written by the same classes as an agent's
// and a hardware side's. With `used` it holds entries, a log of which a part is reported, a
// dependency and resources; otherwise what an agent makes when it starts.
class StoreImage {
 public:
  // Makes the files in ROOT/NAME.
  StoreImage(const std::string& root, const std::string& name, bool used);
  StoreImage(const StoreImage&) = delete;
  StoreImage& operator=(const StoreImage&) = delete;

  [[nodiscard]] const std::string& name() const noexcept { return name_; }
  [[nodiscard]] std::vector<ImageFile>& files() noexcept { return files_; }

 private:
  template <class Entity>
  Lumen::Ptr<Entity> mount(const Lumen::String& path, const char* typeName, const char* collection);
  template <class T>
  void makeTable(bool used);
  template <class Kind>
  void makeResources(bool used);

  std::string root_;
  std::string name_;
  std::vector<ImageFile> files_;
};

}  // namespace Fuzz
