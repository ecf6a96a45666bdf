#include "kelp/Session.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <numeric>
#include <utility>

#include "BrioSharedMem/EntityPath.h"
#include "BrioSharedMem/StoreError.h"
#include "Lumen/Exception.h"
#include "common/Json.h"
#include "common/StoreReader.h"
#include "common/Tables.h"

namespace Kelp {
namespace {

namespace fs = std::filesystem;

constexpr const char* kStoreFolder = "orderedTable";

// Changes of single characters that lead from one text to the other, whatever their case.
std::size_t distanceOf(std::string_view a, std::string_view b) {
  const auto same = [](char x, char y) {
    return std::tolower(static_cast<unsigned char>(x)) ==
           std::tolower(static_cast<unsigned char>(y));
  };
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), 0);
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::size_t corner = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < b.size(); ++j) {
      const std::size_t changed = corner + (same(a[i], b[j]) ? 0 : 1);
      corner = row[j + 1];
      row[j + 1] = std::min({changed, row[j] + 1, row[j + 1] + 1});
    }
  }
  return row.back();
}

// The stores in a root folder, by name.
std::vector<std::string> storesIn(const std::string& root) {
  constexpr std::size_t kMost = 8;
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator at(root, error); !error && at != fs::directory_iterator();
       at.increment(error)) {
    std::error_code none;
    const auto name = BrioSharedMem::decodedPath(at->path().filename().string());
    if (name && names.size() < kMost && fs::is_directory(at->path() / kStoreFolder, none)) {
      names.push_back(*name);
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

[[noreturn]] void noStore(const Options& options, const std::string& folder, const char* what) {
  std::string others;
  for (const std::string& name : storesIn(options.root)) {
    if (name != options.name) {
      others += fmt::format("{}{}", others.empty() ? "" : ", ", name);
    }
  }
  throw CommandError(
      kFailed, fmt::format("{} {}: kelp-agent with the same --name and --root makes one{}", folder,
                           what, others.empty() ? "" : "; in this root there are: " + others));
}

}  // namespace

Session::Session(const Options& options) : options_(options) {
  BrioSharedMem::EntityManager::rootIs(options_.name, options_.root);
  memory_ = BrioSharedMem::EntityManager::getEntityManager(options_.name, false);
  folder_ = memory_->folder();
  std::error_code error;
  const fs::file_status status = fs::status(folder_, error);
  if (status.type() == fs::file_type::not_found) {
    noStore(options_, folder_, "is no store");
  }
  if (!fs::is_directory(status) || ::access(folder_.c_str(), R_OK | X_OK) != 0) {
    throw CommandError(kFailed,
                       fmt::format("{} can't be looked through: let this user read the folder, or "
                                   "name another one with --name and --root",
                                   folder_));
  }
  if (!fs::exists(fs::path(folder_) / kStoreFolder, error)) {
    noStore(options_, folder_, "holds no collections");
  }
}

std::string Session::fileOf(const Lumen::String& path) const {
  return folder_ + '/' + BrioSharedMem::encodedPath(path) + Quilt::kFileSuffix;
}

void Session::note(std::string_view text) const {
  fmt::print(stderr, "kelp: {}\n", text);
  std::fflush(stderr);
}

void Session::failed(std::string_view text) {
  status_ = std::max(status_, kFailed);
  note(text);
}

void Session::damage(std::string_view text) {
  status_ = std::max(status_, kDamage);
  if (++damages_ <= kMostTold) {
    note(text);
  }
}

void Session::damage(const Quilt::StoreFile& file, const Quilt::Damage& damage) {
  this->damage(
      fmt::format("{}: {}; what is whole is shown", fileOf(file.path()), damageText(damage)));
}

Exit Session::conclude() {
  if (damages_ > kMostTold) {
    note(fmt::format("and {} more places that are damaged; kelp check lists them",
                     damages_ - kMostTold));
    damages_ = 0;
  }
  return status_;
}

std::string damageText(const Quilt::Damage& damage) {
  return damage.slot ? fmt::format("slot {}: {}", *damage.slot, damage.cause)
                     : fmt::format("bucket {}: {}", damage.bucket, damage.cause);
}

std::vector<std::string_view> nearNames(std::string_view name,
                                        const std::vector<std::string_view>& names) {
  std::vector<std::pair<std::size_t, std::string_view>> found;
  for (const std::string_view known : names) {
    const std::size_t distance = distanceOf(name, known);
    if (distance <= 1 + known.size() / 4) {
      found.emplace_back(distance, known);
    }
  }
  std::stable_sort(found.begin(), found.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<std::string_view> near;
  for (const auto& [distance, known] : found) {
    if (near.size() < 3) {
      near.push_back(known);
    }
  }
  return near;
}

std::size_t tableOf(const std::string& name) {
  if (const auto table = Common::findTable(name)) {
    return *table;
  }
  const auto near = nearNames(name, Common::tableNames());
  throw CommandError(
      kUsage, Common::InputError(
                  fmt::format("there is no table \"{}\": {}", name,
                              near.empty() ? "write " + Common::choiceText(Common::tableNames())
                                           : "did you mean " + Common::choiceText(near) + "?"))
                  .what());
}

Reports::Reports(Session& session, Asic::SwTableId table,
                 Lumen::Ptr<BrioQuilt::CollectionControl> log)
    : session_(session), table_(table), log_(std::move(log)) {
  look();
}

void Reports::look() {
  version_.reset();
  if (!log_ || damaged_) {
    return;
  }
  try {
    if (!status_ || status_->replaced()) {
      status_ = Common::openStatus(session_.memory());
    }
    version_ = Common::reportedVersion(*status_, table_, *log_);
  } catch (const BrioSharedMem::AbsentError&) {
    status_ = nullptr;  // no hardware side has ever run
  } catch (const BrioSharedMem::StoreError& error) {
    damaged_ = true;
    session_.notOpened(error);
  } catch (const Lumen::CorruptionDetectedException& corruption) {
    damaged_ = true;
    session_.damage(corruption.msg());
  }
}

}  // namespace Kelp
