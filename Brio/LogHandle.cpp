#include "Brio/LogHandle.h"

#include <algorithm>
#include <vector>

#include "Lumen/Assert.h"

namespace Brio {
namespace {

// Never destroyed: a section of another library may go later than this one's statics.
struct Sections {
  std::mutex mutex;
  std::vector<const LogSection*> all;
};

Sections& sections() {
  static auto* const made = new Sections;
  return *made;
}

Lumen::Duration grown(Lumen::Duration window, double growth) {
  const double wanted = static_cast<double>(window.nanoseconds()) * growth;
  // A day is long enough to be silent; it also keeps the product in range.
  const double most =
      static_cast<double>(std::max(window, Lumen::Duration::seconds(86400)).nanoseconds());
  return Lumen::Duration::nanoseconds(static_cast<std::int64_t>(std::min(wanted, most)));
}

}  // namespace

LogSection::LogSection(const char* library, const LogDescriptor* records, std::size_t count)
    : library_(library), records_(records), count_(count) {
  Sections& known = sections();
  const std::lock_guard lock(known.mutex);
  known.all.push_back(this);
}

LogSection::~LogSection() {
  Sections& known = sections();
  const std::lock_guard lock(known.mutex);
  std::erase(known.all, this);
}

void LogSection::forEach(
    const std::function<void(std::string_view library, const LogDescriptor& record)>& visit) {
  Sections& known = sections();
  const std::lock_guard lock(known.mutex);
  for (const LogSection* section : known.all) {
    for (std::size_t i = 0; i < section->count_; ++i) {
      visit(section->library_, section->records_[i]);
    }
  }
}

LogHandle::LogHandle(const LogDescriptor* descriptor, Lumen::Duration interval, double growth,
                     unsigned burst, unsigned most)
    : descriptor_(descriptor),
      interval_(interval),
      growth_(growth),
      burst_(std::max(burst, 1U)),
      most_(most),
      window_(interval) {
  Lumen::assertThat(descriptor != nullptr, "descriptor != NULL");
  Lumen::assertThat(growth >= 1.0, "growth >= 1.0");
}

std::uint64_t LogHandle::logged() const {
  const std::lock_guard lock(mutex_);
  return logged_;
}

std::uint64_t LogHandle::suppressed() const {
  const std::lock_guard lock(mutex_);
  return suppressed_;
}

LogHandle::Admission LogHandle::admit(Lumen::Duration now) {
  const std::lock_guard lock(mutex_);
  bool admitted = most_ == 0 || logged_ < most_;
  if (!interval_.isZero()) {
    if (logged_ + suppressed_ == 0) {
      windowStart_ = now;
    } else if (now - windowStart_ >= window_) {
      window_ = suppressedInWindow_ == 0 ? interval_ : grown(window_, growth_);
      windowStart_ = now;
      inWindow_ = 0;
      suppressedInWindow_ = 0;
    }
    admitted = admitted && inWindow_ < burst_;
  }
  if (!admitted) {
    ++suppressed_;
    ++suppressedInWindow_;
    return {false, 0};
  }
  ++inWindow_;
  ++logged_;
  const std::uint64_t before = suppressed_ - suppressedAtLastLogged_;
  suppressedAtLastLogged_ = suppressed_;
  return {true, before};
}

}  // namespace Brio
