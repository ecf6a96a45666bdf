#include "Quilt/QuiltMapBase.h"

#include <fmt/format.h>

#include <algorithm>

#include "Brio/Log.h"
#include "Lumen/Assert.h"
#include "Lumen/Exception.h"
#include "Quilt/Seam.h"

namespace Quilt {
namespace {

// A reader that meets a changing bucket this often in a row is not unlucky.
constexpr std::uint32_t kMostTries = 1'000'000;

constexpr Brio::LogDescriptor kMessages[] = {
    {"QUILT_CORRUPTION_DETECTED", "%s",
     "Bytes of a shared-memory collection do not add up. Work goes on without the records "
     "concerned.",
     "Restart the process that writes the collection: it saves what is whole.", 3}};
const Brio::LogSection section("Quilt", kMessages);

// Never destroyed: collections may be read while statics are torn down.
Brio::LogHandle& corruptionLog() {
  static auto* const made = new Brio::LogHandle(&kMessages[0], Lumen::Duration(), 1.0, 0, 0);
  return *made;
}

std::uint64_t nextSerial() {
  static std::atomic<std::uint64_t> last{0};
  return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace

QuiltMapBase::QuiltMapBase(Lumen::Ptr<StoreFile> file)
    : file_(std::move(file)),
      header_(&file_->header()),
      readOnly_(file_->readOnly()),
      serial_(nextSerial()) {}

std::uint64_t QuiltMapBase::sharedSize() const noexcept {
  return std::min<std::uint64_t>(header_->records.load(std::memory_order_acquire), limit());
}

bool QuiltMapBase::damaged() const noexcept {
  return reported_.load(std::memory_order_relaxed) ||
         header_->damaged.load(std::memory_order_acquire) != 0;
}

void QuiltMapBase::doCorruptionDetected(const Lumen::String& text) const {
  if (!readOnly_ && header_->damaged.load(std::memory_order_relaxed) == 0) {
    Seam::store(header_->damaged, std::uint64_t{1}, std::memory_order_release);
  }
  if (reported_.exchange(true, std::memory_order_relaxed)) {
    return;
  }
  Brio::log(corruptionLog(), text);
}

void QuiltMapBase::corrupt(const char* what, std::uint64_t link) const {
  throw Lumen::CorruptionDetectedException(
      fmt::format("{}: corruption in collection {}: {} (slot {}, generation {}); the next start of "
                  "its writer saves "
                  "what is whole",
                  path(), collectionName(), what, Link::slot(link), Link::generation(link)));
}

void QuiltMapBase::reportCut() const {
  doCorruptionDetected(
      fmt::format("{}: corruption in collection {}: a change met a chain that does not add up, and "
                  "cut it there; the "
                  "next start of its writer saves what is whole",
                  path(), collectionName()));
}

void QuiltMapBase::noRoom(const char* what) const {
  Lumen::assertFailed(
      fmt::format("{}: no record can be stored in collection {} ({} of {} records): {}", path(),
                  collectionName(), size(), limit(), what)
          .c_str(),
      __FILE__, __LINE__, static_cast<const char*>(__func__));
}

void QuiltMapBase::Restarts::again(const QuiltMapBase& map, std::uint64_t link) {
  // A slot takes another generation only after the link to it is gone. An attempt that began after
  // the other generation was seen does not come upon that link again, unless nobody is changing
  // anything.
  if (!map.readOnly_ || link == suspect_) {
    map.corrupt("a link leads to a slot of another generation", link);
  }
  if (++tries_ == kMostTries) {
    map.corrupt("a bucket does not come to rest", link);
  }
  suspect_ = link;
}

}  // namespace Quilt
