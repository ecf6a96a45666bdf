#pragma once

#include <cstdint>

#include "Asic/InspectClasses.h"
#include "Brio/Attributes.h"
#include "Lumen/Node.h"
#include "PoolSlab/Slabbed.h"

namespace Asic {

// The counters of one software table. They start at 0 and only rise.
class SwTableStats final : public Lumen::Node, public PoolSlab::Slabbed<SwTableStats> {
 public:
  static constexpr const char* className() { return "SwTableStats"; }
  static constexpr auto attributes() {
    return Brio::attributeList(
        130, Brio::stored("entryWriteCnt", &SwTableStats::entryWriteCnt_),
        Brio::stored("entryRemoveCnt", &SwTableStats::entryRemoveCnt_),
        Brio::stored("commitCnt", &SwTableStats::commitCnt_),
        Brio::stored("resolveFailCnt", &SwTableStats::resolveFailCnt_),
        Brio::stored("updateCnt", &SwTableStats::updateCnt_),
        Brio::stored("updateWithFailedResourceCnt", &SwTableStats::updateWithFailedResourceCnt_),
        Brio::stored("suppressedWriteCnt", &SwTableStats::suppressedWriteCnt_),
        Brio::stored("suppressCheckDiffCnt", &SwTableStats::suppressCheckDiffCnt_),
        Brio::stored("tableClearCnt", &SwTableStats::tableClearCnt_));
  }
  static constexpr const Lumen::TypeData& classData() { return kInspectClass<2, "SwTableStats">; }

  SwTableStats() = default;
  ~SwTableStats() override;

  [[nodiscard]] const Lumen::TypeData& typeData() const override { return classData(); }

  // Writes accepted.
  void entryWriteCntInc(unsigned long by) noexcept { entryWriteCnt_ += by; }
  [[nodiscard]] std::uint64_t entryWriteCnt() const noexcept { return entryWriteCnt_; }
  // Removes of one key accepted.
  void entryRemoveCntInc(unsigned long by) noexcept { entryRemoveCnt_ += by; }
  [[nodiscard]] std::uint64_t entryRemoveCnt() const noexcept { return entryRemoveCnt_; }
  // Operations that went through a commit, failed or not.
  void commitCntInc(unsigned long by) noexcept { commitCnt_ += by; }
  [[nodiscard]] std::uint64_t commitCnt() const noexcept { return commitCnt_; }
  // Writes whose resource had failed at commit.
  void resolveFailCntInc(unsigned long by) noexcept { resolveFailCnt_ += by; }
  [[nodiscard]] std::uint64_t resolveFailCnt() const noexcept { return resolveFailCnt_; }
  // Log records rewritten for a changed resource.
  void updateCntInc(unsigned long by) noexcept { updateCnt_ += by; }
  [[nodiscard]] std::uint64_t updateCnt() const noexcept { return updateCnt_; }
  // Rewrites for a changed resource that met a failed one.
  void updateWithFailedResourceCntInc(unsigned long by) noexcept {
    updateWithFailedResourceCnt_ += by;
  }
  [[nodiscard]] std::uint64_t updateWithFailedResourceCnt() const noexcept {
    return updateWithFailedResourceCnt_;
  }
  // Writes that the log dropped as identical.
  void suppressedWriteCntInc(unsigned long by) noexcept { suppressedWriteCnt_ += by; }
  [[nodiscard]] std::uint64_t suppressedWriteCnt() const noexcept { return suppressedWriteCnt_; }
  // Suppressible writes in which the log found a difference.
  void suppressCheckDiffCntInc(unsigned long by) noexcept { suppressCheckDiffCnt_ += by; }
  [[nodiscard]] std::uint64_t suppressCheckDiffCnt() const noexcept {
    return suppressCheckDiffCnt_;
  }
  // Table deletes that reached the log.
  void tableClearCntInc(unsigned long by) noexcept { tableClearCnt_ += by; }
  [[nodiscard]] std::uint64_t tableClearCnt() const noexcept { return tableClearCnt_; }

  // UTC seconds of the last commit; 0 before the first.
  void lastCommitTimeIs(double utc) noexcept { lastCommitTime_ = utc; }
  [[nodiscard]] double lastCommitTime() const noexcept { return lastCommitTime_; }

 private:
  std::uint64_t entryWriteCnt_ = 0;
  std::uint64_t entryRemoveCnt_ = 0;
  std::uint64_t commitCnt_ = 0;
  std::uint64_t resolveFailCnt_ = 0;
  std::uint64_t updateCnt_ = 0;
  std::uint64_t updateWithFailedResourceCnt_ = 0;
  std::uint64_t suppressedWriteCnt_ = 0;
  std::uint64_t suppressCheckDiffCnt_ = 0;
  std::uint64_t tableClearCnt_ = 0;
  double lastCommitTime_ = 0;
};

}  // namespace Asic
