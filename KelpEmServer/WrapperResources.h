#pragma once

#include <cstdint>
#include <tuple>

#include "Brio/Attributes.h"
#include "KelpTunnelNiLib/ResourceHandles.h"
#include "Lumen/Ptr.h"

// What an entry in flight holds of the resources that it names: a handle for each, null until the
// entry is resolved, and the values that come from it, 0 without a handle. One class per family of
// tables; all have the same members, which the entry wrapper calls.
//
//   attributes<Wrapper>()            the attributes of the family, for the list of the wrapper
//   setResolvedFields(logEntry)      copies the values into the log entry, first value first
//   retrieveClientData(entry, trace) copies what a resource decides besides its result into the
//                                    entry; `trace` is called with the client data

namespace KelpEmServer {

// A table that names no resource.
class NoResources {
 public:
  template <class Wrapper>
  static constexpr auto attributes() {
    return std::tuple{};
  }

  template <class LogEntry>
  void setResolvedFields(LogEntry&) const noexcept {}
  template <class Entry, class Trace>
  void retrieveClientData(Entry&, Trace) const noexcept {}
};

// A table that names an ingress logical interface. The two indexes go to the log entry's members
// that kFirst and kSecond name.
template <auto kFirst, auto kSecond>
class InLifResources {
 public:
  using ResourceHandle = KelpTunnelNiLib::InLifIndexResourceHandle;

  [[nodiscard]] const Lumen::Ptr<const ResourceHandle>& inLifIdxKeyResPtr() const noexcept {
    return inLifIdxKeyResPtr_;
  }
  void inLifIdxKeyResPtrIs(const Lumen::Ptr<const ResourceHandle>& handle) noexcept {
    inLifIdxKeyResPtr_ = handle;
  }

  template <class LogEntry>
  void setResolvedFields(LogEntry& logEntry) const noexcept {
    logEntry.*kFirst = first();
    logEntry.*kSecond = second();
  }
  template <class Entry, class Trace>
  void retrieveClientData(Entry&, Trace) const noexcept {}

 protected:
  [[nodiscard]] std::uint32_t first() const noexcept {
    return inLifIdxKeyResPtr_ ? inLifIdxKeyResPtr_->results().first : 0;
  }
  [[nodiscard]] std::uint32_t second() const noexcept {
    return inLifIdxKeyResPtr_ ? inLifIdxKeyResPtr_->results().second : 0;
  }

 private:
  Lumen::Ptr<const ResourceHandle> inLifIdxKeyResPtr_;
};

// The indexes under the names inLif0Index and inLif1Index.
template <class LogEntry>
class InLif01Resources : public InLifResources<&LogEntry::inLif0Index, &LogEntry::inLif1Index> {
 public:
  template <class Wrapper>
  static constexpr auto attributes() {
    return std::tuple{Brio::view("inLifIdxKey", &Wrapper::template inLifIdxKey<>),
                      Brio::stored("inLifIdxKeyResPtr", &Wrapper::inLifIdxKeyResPtr)
                          .writtenBy(&Wrapper::inLifIdxKeyResPtrIs),
                      Brio::operation("inLif0Index", &Wrapper::inLif0Index),
                      Brio::operation("inLif1Index", &Wrapper::inLif1Index)};
  }

  [[nodiscard]] std::uint32_t inLif0Index() const noexcept { return this->first(); }
  [[nodiscard]] std::uint32_t inLif1Index() const noexcept { return this->second(); }
};

// The indexes under the names inLif0Index and inLif23Index.
template <class LogEntry>
class InLif023Resources : public InLifResources<&LogEntry::inLif0Index, &LogEntry::inLif23Index> {
 public:
  template <class Wrapper>
  static constexpr auto attributes() {
    return std::tuple{Brio::view("inLifIdxKey", &Wrapper::template inLifIdxKey<>),
                      Brio::stored("inLifIdxKeyResPtr", &Wrapper::inLifIdxKeyResPtr)
                          .writtenBy(&Wrapper::inLifIdxKeyResPtrIs),
                      Brio::operation("inLif0Index", &Wrapper::inLif0Index),
                      Brio::operation("inLif23Index", &Wrapper::inLif23Index)};
  }

  [[nodiscard]] std::uint32_t inLif0Index() const noexcept { return this->first(); }
  [[nodiscard]] std::uint32_t inLif23Index() const noexcept { return this->second(); }
};

// A table that names a VLAN edit profile and an egress remark profile, in this order.
class VlanEditAndRemarkResources {
 public:
  using VlanEditHandle = KelpTunnelNiLib::VlanEditProfileResourceHandle;
  using RemarkHandle = KelpTunnelNiLib::RemarkProfileResourceHandle;

  template <class Wrapper>
  static constexpr auto attributes() {
    return std::tuple{Brio::view("vlanEditProfileKey", &Wrapper::template vlanEditProfileKey<>),
                      Brio::stored("vlanEditProfileKeyResPtr", &Wrapper::vlanEditProfileKeyResPtr)
                          .writtenBy(&Wrapper::vlanEditProfileKeyResPtrIs),
                      Brio::operation("vlanEditProfile", &Wrapper::vlanEditProfile),
                      Brio::view("remarkProfileType", &Wrapper::template remarkProfileType<>),
                      Brio::view("remarkProfileKey", &Wrapper::template remarkProfileKey<>),
                      Brio::stored("remarkProfileKeyResPtr", &Wrapper::remarkProfileKeyResPtr)
                          .writtenBy(&Wrapper::remarkProfileKeyResPtrIs),
                      Brio::operation("remarkProfile", &Wrapper::remarkProfile)};
  }

  [[nodiscard]] const Lumen::Ptr<const VlanEditHandle>& vlanEditProfileKeyResPtr() const noexcept {
    return vlanEditProfileKeyResPtr_;
  }
  void vlanEditProfileKeyResPtrIs(const Lumen::Ptr<const VlanEditHandle>& handle) noexcept {
    vlanEditProfileKeyResPtr_ = handle;
  }
  [[nodiscard]] std::uint8_t vlanEditProfile() const noexcept {
    return vlanEditProfileKeyResPtr_ ? vlanEditProfileKeyResPtr_->results().profile
                                     : std::uint8_t{0};
  }
  [[nodiscard]] const Lumen::Ptr<const RemarkHandle>& remarkProfileKeyResPtr() const noexcept {
    return remarkProfileKeyResPtr_;
  }
  void remarkProfileKeyResPtrIs(const Lumen::Ptr<const RemarkHandle>& handle) noexcept {
    remarkProfileKeyResPtr_ = handle;
  }
  [[nodiscard]] std::uint8_t remarkProfile() const noexcept {
    return remarkProfileKeyResPtr_ ? remarkProfileKeyResPtr_->results().profile : std::uint8_t{0};
  }

  template <class LogEntry>
  void setResolvedFields(LogEntry& logEntry) const noexcept {
    logEntry.vlanEditProfile = vlanEditProfile();
    logEntry.remarkProfile = remarkProfile();
  }
  template <class Entry, class Trace>
  void retrieveClientData(Entry& entry, Trace trace) const {
    if (!remarkProfileKeyResPtr_) {
      return;
    }
    const std::uint16_t clientData = remarkProfileKeyResPtr_->results().clientData.value;
    trace(clientData);
    entry.rsrcKeys.remarkProfileType = clientData;
  }

 private:
  Lumen::Ptr<const VlanEditHandle> vlanEditProfileKeyResPtr_;
  Lumen::Ptr<const RemarkHandle> remarkProfileKeyResPtr_;
};

}  // namespace KelpEmServer
