#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace Lumen {

namespace Impl {

template <class T>
constexpr std::string_view typeNameView() noexcept {
  constexpr std::string_view kFunction = __PRETTY_FUNCTION__;
  constexpr std::size_t kBegin = kFunction.find("T = ") + 4;
  // One compiler adds "; ALIAS = ..." behind the type, both close with a bracket.
  constexpr std::size_t kSemicolon = kFunction.find(';', kBegin);
  constexpr std::size_t kEnd =
      kSemicolon == std::string_view::npos ? kFunction.rfind(']') : kSemicolon;
  return kFunction.substr(kBegin, kEnd - kBegin);
}

template <class T>
inline constexpr auto kTypeNameText = [] {
  constexpr std::string_view kName = typeNameView<T>();
  std::array<char, kName.size() + 1> text{};
  for (std::size_t i = 0; i < kName.size(); ++i) {
    text[i] = kName[i];
  }
  return text;
}();

}  // namespace Impl

// The full name of T as the compiler spells it, zero-terminated and for ever valid. For trackers
// and diagnostics: the spelling differs between compilers.
template <class T>
[[nodiscard]] constexpr const char* typeName() noexcept {
  return Impl::kTypeNameText<T>.data();
}

// The name that a class gives itself, or else the compiler's.
template <class T>
[[nodiscard]] constexpr const char* trackerName() noexcept {
  if constexpr (requires { T::className(); }) {
    return T::className();
  } else {
    return typeName<T>();
  }
}

}  // namespace Lumen
