#pragma once

#include <cstdint>

#include "Lumen/Assert.h"
#include "Lumen/Node.h"
#include "Lumen/Ptr.h"
#include "Quilt/Seam.h"
#include "Quilt/StoreFile.h"

namespace BrioQuilt {

// The control block of a collection: words in the header of its file, which live as long as it
// does. Each is one atomic, stored with release and loaded with acquire order: who reads a value
// sees all that its writer had stored before. Setters assert that this process is the writer.
class CollectionControl final : public Lumen::Node {
 public:
  explicit CollectionControl(Lumen::Ptr<Quilt::StoreFile> file) : file_(std::move(file)) {}

  // A word for the owner's use; 0 in a new collection.
  [[nodiscard]] std::uint64_t scratchpad() const noexcept { return load(header().scratchpad); }
  void scratchpadIs(std::uint64_t value) { store(header().scratchpad, value); }

  // The collection's former contents are lost, or what was damaged of them. Stays true until
  // clearWiped(), over any number of restarts.
  [[nodiscard]] bool wiped() const noexcept { return load(header().wiped) != 0; }
  void clearWiped() { store(header().wiped, 0); }

  // The operation that has begun: the version that it will have. 0 in a new collection.
  [[nodiscard]] std::uint64_t announced() const noexcept { return load(header().announced); }
  void announcedIs(std::uint64_t value) { store(header().announced, value); }

  // The version up to which other processes may act. 0 in a new collection.
  [[nodiscard]] std::uint64_t published() const noexcept { return load(header().published); }
  void publishedIs(std::uint64_t value) { store(header().published, value); }

  // A number that a file gets when it is made, which no other file has; never 0. It changes when
  // the collection is made anew, and only then.
  [[nodiscard]] std::uint64_t incarnation() const noexcept { return file_->incarnation(); }

  // For readers: the collection has been made anew since this one was opened, or is gone. What is
  // mapped here stays readable and does not change any more. A system call.
  [[nodiscard]] bool replaced() const noexcept { return file_->replaced(); }

 private:
  [[nodiscard]] Quilt::Header& header() const noexcept { return file_->header(); }
  [[nodiscard]] static std::uint64_t load(const Quilt::Word64& word) noexcept {
    return word.load(std::memory_order_acquire);
  }
  void store(Quilt::Word64& word, std::uint64_t value) {
    Lumen::assertThat(!file_->readOnly(), "!file_->readOnly()");
    Quilt::Seam::store(word, value, std::memory_order_release);
  }

  Lumen::Ptr<Quilt::StoreFile> file_;
};

}  // namespace BrioQuilt
