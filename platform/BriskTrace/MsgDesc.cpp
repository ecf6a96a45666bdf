#include "BriskTrace/MsgDesc.h"

#include <array>
#include <atomic>
#include <cstring>
#include <vector>

#include "BriskTrace/Layout.h"
#include "Lumen/Assert.h"

namespace BriskTrace {
namespace {

constexpr std::size_t kMostTextBytes = 4096;

std::int32_t idOf(std::int32_t* id) {
  std::atomic_ref<std::int32_t> shared(*id);
  std::int32_t found = shared.load(std::memory_order_relaxed);
  if (found == 0) {
    const std::int32_t fresh = TraceFile::newId();
    if (shared.compare_exchange_strong(found, fresh, std::memory_order_relaxed)) {
      found = fresh;
    }
  }
  return found;
}

}  // namespace

void MsgFormatString::put(std::string_view letter) {
  Lumen::assertThat(letter == "s" || letter == "i" || letter == "q",
                    "letter == \"s\" || letter == \"i\" || letter == \"q\"");
  letters_ += letter;
}

MsgDesc::MsgDesc(TraceFile& traceFile, std::int32_t* id, const char* file, int line)
    : traceFile_(traceFile), msgId_(idOf(id)), file_(file), line_(line) {
  Lumen::assertThat(msgId_ >= 0, "msgId_ >= 0");
}

void msgDesc(MsgDesc& desc, std::string_view className, std::string_view function,
             std::string_view format) {
  desc.className_ = className;
  desc.function_ = function;
  desc.format_ = format;
}

void MsgDesc::finish() {
  const std::array<std::string_view, 5> texts = {file_, className_, function_, format_,
                                                 formatString_.letters()};
  Lumen::String bytes(Layout::kDescriptorHeadBytes, '\0');
  std::array<std::uint16_t, 8> lengths{};
  for (std::size_t i = 0; i < texts.size(); ++i) {
    const std::string_view text = texts[i].substr(0, kMostTextBytes);
    lengths[i] = static_cast<std::uint16_t>(text.size());
    bytes += text;
  }
  bytes.resize((bytes.size() + 7) / 8 * 8, '\0');
  std::memcpy(bytes.data() + 8, &msgId_, 4);
  std::memcpy(bytes.data() + 12, &line_, 4);
  std::memcpy(bytes.data() + 16, lengths.data(), 16);

  std::vector<std::uint64_t> block(bytes.size() / 8);
  std::memcpy(block.data(), bytes.data(), bytes.size());
  const auto check =
      static_cast<std::uint32_t>(Layout::blockCheck(block.data() + 1, block.size() - 1));
  block[0] = bytes.size() | static_cast<std::uint64_t>(check) << 32;
  traceFile_.descriptorIs(msgId_, block);
}

}  // namespace BriskTrace
