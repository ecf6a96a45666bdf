#include "BriskTrace/Reader.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>
#include <utility>

#include "BriskTrace/TraceFile.h"

namespace BriskTrace {
namespace {

constexpr std::size_t kMostFileBytes =
    Layout::kRingOffset + std::size_t{Layout::kMostRingSlots} * Layout::kSlotBytes;

std::size_t argumentBytes(char letter) {
  switch (letter) {
    case 's':
      return 2;
    case 'i':
      return 4;
    case 'q':
      return 8;
    default:
      return 0;
  }
}

Lumen::String printable(std::string_view text) {
  Lumen::String result;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      result += fmt::format("\\x{:02x}", byte);
    } else {
      result += c;
    }
  }
  return result;
}

// A layout that makes little text of any number: flags and a width of two digits, one
// letter.
bool isPlainLayout(std::string_view layout) {
  std::size_t at = 0;
  const auto skip = [&](std::string_view any, std::size_t most) {
    for (; most != 0 && at < layout.size() && any.find(layout[at]) != std::string_view::npos;
         --most) {
      ++at;
    }
  };
  skip("#", 1);
  skip("0123456789", 3);
  skip("dxXbo", 1);
  return at == layout.size();
}

Lumen::String number(std::string_view format, std::uint64_t argument) {
  try {
    return fmt::vformat(fmt::string_view(format.data(), format.size()),
                        fmt::make_format_args(argument));
  } catch (const fmt::format_error&) {
    return fmt::format("{}", argument);
  }
}

}  // namespace

Lumen::String timeText(std::int64_t nanoseconds) {
  constexpr std::int64_t kSecond = 1'000'000'000;
  time_t seconds = nanoseconds / kSecond;
  std::int64_t rest = nanoseconds % kSecond;
  if (rest < 0) {
    rest += kSecond;
    --seconds;
  }
  tm parts{};
  if (::gmtime_r(&seconds, &parts) == nullptr) {
    return std::to_string(nanoseconds);
  }
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:06}Z", parts.tm_year + 1900,
                     parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                     rest / 1000);
}

Lumen::String formatted(std::string_view format, const std::vector<std::uint64_t>& arguments) {
  Lumen::String text;
  std::size_t nextArgument = 0;
  while (!format.empty()) {
    const std::string_view two = format.substr(0, 2);
    if (two == "{{" || two == "}}") {
      text += format[0];
      format.remove_prefix(2);
      continue;
    }
    const auto end = format[0] == '{' ? format.find('}') : std::string_view::npos;
    if (end == std::string_view::npos || nextArgument == arguments.size()) {
      text += format[0];
      format.remove_prefix(1);
      continue;
    }
    const std::string_view inside = format.substr(1, end - 1);
    const bool hasLayout = !inside.empty() && inside[0] == ':';
    if (inside.empty() || (hasLayout && isPlainLayout(inside.substr(1)))) {
      const std::uint64_t argument = arguments[nextArgument++];
      text += number(format.substr(0, end + 1), argument);
    } else {
      text += format.substr(0, end + 1);
    }
    format.remove_prefix(end + 1);
  }
  return text;
}

Reader::Reader(Lumen::String path)
    : path_(std::move(path)), file_(::open(path_.c_str(), O_RDONLY | O_CLOEXEC)) {
  if (file_ < 0) {
    throw TraceFileError(
        fmt::format("{}: cannot open the trace file: {}; give the path of a trace file that this "
                    "user may read",
                    path_, std::strerror(errno)));
  }
  try {
    takeFront();
  } catch (...) {
    ::close(file_);
    throw;
  }
}

Reader::~Reader() { ::close(file_); }

bool Reader::replaced() const {
  struct stat mine {};
  struct stat there {};
  return ::fstat(file_, &mine) == 0 && ::stat(path_.c_str(), &there) == 0 &&
         (mine.st_ino != there.st_ino || mine.st_dev != there.st_dev);
}

// Copied by the kernel and not mapped: a file that is cut short meanwhile is a short read and no
// bus error.
std::vector<std::uint64_t> Reader::read(std::size_t most) const {
  struct stat status {};
  if (::fstat(file_, &status) != 0 || !S_ISREG(status.st_mode)) {
    throw TraceFileError(fmt::format("{}: is no file; give the path of a trace file", path_));
  }
  const std::size_t bytes =
      std::min(static_cast<std::size_t>(std::max<off_t>(status.st_size, 0)), most) / 8 * 8;
  // Never shorter than a header: what the file does not have reads as zeroes.
  std::vector<std::uint64_t> words(std::max(bytes, sizeof(Layout::Header)) / 8);
  std::size_t done = 0;
  while (done < bytes) {
    const ssize_t count = ::pread(file_, reinterpret_cast<char*>(words.data()) + done, bytes - done,
                                  static_cast<off_t>(done));
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      throw TraceFileError(
          fmt::format("{}: cannot read the trace file: {}; copy it elsewhere and "
                      "read the copy",
                      path_, std::strerror(errno)));
    }
    if (count == 0) {
      words.resize(std::max(done, sizeof(Layout::Header)) / 8);
      break;
    }
    done += static_cast<std::size_t>(count);
  }
  return words;
}

void Reader::takeFront() {
  const std::vector<std::uint64_t> front = read(Layout::kRingOffset);
  takeHeader(front);
  takeDescriptors(front);
}

void Reader::takeHeader(const std::vector<std::uint64_t>& words) {
  Layout::FixedHeader fixed{};
  std::memcpy(&fixed, words.data(), sizeof(fixed));
  headerWhole_ = fixed.check == Layout::blockCheck(words.data(), sizeof(fixed) / 8 - 1);
  if (fixed.magic != Layout::kMagic) {
    throw TraceFileError(fmt::format("{}: is no trace file; give the path of a trace file", path_));
  }
  if (headerWhole_ && fixed.version != Layout::kVersion) {
    throw TraceFileError(fmt::format(
        "{}: the trace file has layout {}, this program knows layout {}; read it with the program "
        "that came with its writer",
        path_, fixed.version, Layout::kVersion));
  }
  pid_ = fixed.pid;
  ringSlots_ = headerWhole_ ? fixed.ringSlots : 0;
  const auto word = [&](std::size_t offset) { return words[offset / 8]; };
  closed_ = word(offsetof(Layout::Header, closed)) == 1;

  nanosecondsPerTick_ = 1e9 / static_cast<double>(std::max<std::uint64_t>(fixed.ticksPerSecond, 1));
  anchorTicks_ = fixed.startTicks;
  anchorNanoseconds_ = fixed.startNanoseconds;
  const std::uint64_t ticks = word(offsetof(Layout::Header, syncTicks));
  const std::uint64_t nanoseconds = word(offsetof(Layout::Header, syncNanoseconds));
  if (word(offsetof(Layout::Header, syncCheck)) != Layout::syncCheck(ticks, nanoseconds)) {
    return;
  }
  anchorTicks_ = ticks;
  anchorNanoseconds_ = nanoseconds;
  // A long run measures the rate better than its start did, unless somebody set the clock in
  // between.
  const double elapsedTicks = static_cast<double>(ticks) - static_cast<double>(fixed.startTicks);
  const double elapsed =
      static_cast<double>(nanoseconds) - static_cast<double>(fixed.startNanoseconds);
  if (elapsed > 1e8 && elapsedTicks > 0) {
    const double measured = elapsed / elapsedTicks;
    if (std::abs(measured / nanosecondsPerTick_ - 1.0) < 1e-3) {
      nanosecondsPerTick_ = measured;
    }
  }
}

void Reader::takeDescriptors(const std::vector<std::uint64_t>& words) {
  const std::size_t first = Layout::kHeaderBytes / 8;
  const std::size_t end = std::min(words.size(), Layout::kRingOffset / 8);
  for (std::size_t at = first; at + Layout::kDescriptorHeadBytes / 8 <= end;) {
    const std::size_t bytes = words[at] & 0xffffffffU;
    if (bytes < Layout::kDescriptorHeadBytes || bytes % 8 != 0 || bytes / 8 > end - at) {
      return;  // the end of what was written, or damage that hides what comes after it
    }
    const std::uint64_t* block = words.data() + at;
    at += bytes / 8;
    if (static_cast<std::uint32_t>(Layout::blockCheck(block + 1, bytes / 8 - 1)) !=
        block[0] >> 32) {
      continue;
    }
    std::int32_t id = 0;
    Site site;
    std::uint16_t lengths[5];
    const char* const start = reinterpret_cast<const char*>(block);
    std::memcpy(&id, start + 8, 4);
    std::memcpy(&site.line, start + 12, 4);
    std::memcpy(lengths, start + 16, sizeof(lengths));
    std::size_t offset = Layout::kDescriptorHeadBytes;
    Lumen::String* const texts[5] = {&site.file, &site.className, &site.function, &site.format,
                                     &site.letters};
    for (std::size_t i = 0; i < 5; ++i) {
      const std::size_t length = std::min<std::size_t>(lengths[i], bytes - offset);
      *texts[i] = printable(std::string_view(start + offset, length));
      offset += length;
    }
    descriptors_.insert_or_assign(id, std::move(site));
  }
}

std::int64_t Reader::timeOf(std::uint64_t ticks) const noexcept {
  // The distance first, in whole ticks: a double holds no time since 1970 to the nanosecond.
  const bool after = ticks >= anchorTicks_;
  const std::uint64_t distance = after ? ticks - anchorTicks_ : anchorTicks_ - ticks;
  const double span = std::min(static_cast<double>(distance) * nanosecondsPerTick_, 1e18);
  const auto step = static_cast<std::uint64_t>(span);
  return static_cast<std::int64_t>(after ? anchorNanoseconds_ + step : anchorNanoseconds_ - step);
}

Message Reader::decode(const std::uint64_t* slot) const {
  Message message;
  message.number = slot[0];
  message.nanoseconds = timeOf(slot[1]);
  message.id = static_cast<std::int32_t>(slot[2] & 0xffffffffU);
  const std::size_t bytes = (slot[2] >> 32) & 0xffU;
  const char* const raw = reinterpret_cast<const char*>(slot + 3);

  const auto found = descriptors_.find(message.id);
  const Lumen::String letters =
      found == descriptors_.end() ? Lumen::String(bytes / 4, 'i') : found->second.letters;
  std::size_t at = 0;
  for (const char letter : letters) {
    const std::size_t size = argumentBytes(letter);
    if (size == 0 || at + size > bytes) {
      break;
    }
    std::uint64_t argument = 0;
    std::memcpy(&argument, raw + at, size);
    message.arguments.push_back(argument);
    at += size;
  }
  if (found == descriptors_.end()) {
    message.text = fmt::format("message {} of an unknown place:", message.id);
    for (const std::uint64_t argument : message.arguments) {
      message.text += fmt::format(" {}", argument);
    }
    return message;
  }
  const Site& site = found->second;
  message.className = site.className;
  message.function = site.function;
  message.file = site.file;
  message.line = site.line;
  message.text = formatted(site.format, message.arguments);
  return message;
}

std::vector<const std::uint64_t*> Reader::wholeSlots(const std::vector<std::uint64_t>& words) {
  damagedSlots_ = 0;
  constexpr std::size_t kRing = Layout::kRingOffset / 8;
  const std::size_t slots = words.size() < kRing ? 0 : (words.size() - kRing) / Layout::kSlotWords;
  const std::uint64_t ringSlots = ringSlots_ != 0 ? ringSlots_ : slots;
  std::vector<const std::uint64_t*> whole;
  for (std::size_t i = 0; i < slots; ++i) {
    const std::uint64_t* slot = words.data() + kRing + i * Layout::kSlotWords;
    if (slot[0] == 0 && slot[1] == 0 && slot[2] == 0) {
      continue;  // never used
    }
    const std::size_t bytes = (slot[2] >> 32) & 0xffU;
    const auto id = static_cast<std::int32_t>(slot[2] & 0xffffffffU);
    if (slot[0] == 0 || (slot[0] - 1) % ringSlots != i || bytes > Layout::kMostArgumentBytes ||
        slot[2] != Layout::slotTag(slot[0], slot[1], id, bytes, slot + 3)) {
      ++damagedSlots_;
    } else if (slot[0] >= next_) {
      whole.push_back(slot);
    }
  }
  std::sort(whole.begin(), whole.end(),
            [](const std::uint64_t* a, const std::uint64_t* b) { return a[0] < b[0]; });
  return whole;
}

std::vector<Message> Reader::newMessages() {
  // A writer at full speed may overtake the copying, which then has a gap: messages that were
  // written behind the place that it had reached. They are there for the next copy.
  constexpr int kMostCopies = 4;
  std::vector<std::uint64_t> words;
  std::vector<const std::uint64_t*> whole;
  for (int copies = 0; copies < kMostCopies; ++copies) {
    words = read(kMostFileBytes);
    whole = wholeSlots(words);
    if (whole.empty() || whole.back()[0] - whole.front()[0] + 1 == whole.size()) {
      break;
    }
  }
  takeFront();  // after the messages, so that every one of them has its descriptor

  std::vector<Message> messages;
  messages.reserve(whole.size());
  for (const std::uint64_t* slot : whole) {
    if (next_ != 0) {
      overwritten_ += slot[0] - next_;
    }
    next_ = slot[0] + 1;
    messages.push_back(decode(slot));
  }
  return messages;
}

}  // namespace BriskTrace
