#include "agent/ResourceEvents.h"

#include <fmt/format.h>

#include <iterator>
#include <type_traits>
#include <utility>

namespace Agent {
namespace {

using Common::ResourceEventKind;

// Both give why it failed; empty if it did not.
template <class Table>
std::string change(Table& table, const typename Table::Key& key) {
  using CanChange = typename Table::CanChange;
  switch (table.canChange(key)) {
    case CanChange::yes:
      break;
    case CanChange::notThere:
      return "nobody has this resource";
    case CanChange::refused:
      return "this resource is refused: allow it first";
    case CanChange::noIndex:
      return fmt::format("no other index is free: all {} are taken", table.limit());
    case CanChange::noRoom:
      return "the store has no room for what its users give up: make room in its file system";
  }
  (void)table.change(key);
  return {};
}

template <class Table>
std::string applyTo(Table& table, const typename Table::Key& key, ResourceEventKind kind) {
  using Stage = typename Table::Stage;
  bool done = true;
  switch (kind) {
    case ResourceEventKind::change:
      return change(table, key);
    case ResourceEventKind::refuse:
    case ResourceEventKind::allow:
      done = table.refusedIs(key, kind == ResourceEventKind::refuse);
      break;
    case ResourceEventKind::prepare:
      done = table.prepareIs(key, Stage::preparing);
      break;
    case ResourceEventKind::confirm:
      done = table.prepareIs(key, Stage::confirming);
      break;
    case ResourceEventKind::ready:
      done = table.prepareIs(key, Stage::none);
      break;
  }
  return done ? std::string()
              : fmt::format("{} other resources are refused or prepared: allow some of them first",
                            Table::kMostOrders);
}

}  // namespace

std::string ResourceEvents::apply(const Common::AnyResourceKey& key, ResourceEventKind kind) const {
  std::string failure;
  store_.resources().forEach([&](auto& table) {
    using Table = std::decay_t<decltype(table)>;
    constexpr std::size_t number = Common::resourceNumber<typename Table::Kind>();
    if (const auto* own = std::get_if<number>(&key)) {
      failure = applyTo(table, *own, kind);
    }
  });
  return failure;
}

void ResourceEvents::take(const Common::ResourceEvent& event, Source& source, std::uint64_t line) {
  const std::string failure = apply(event.key, event.kind);
  // The entries that it has rewritten.
  store_.ringIfPublished();
  tell(event, source, line, failure);
}

void ResourceEvents::fold(const Common::ResourceEvent& event, Source& source, std::uint64_t line) {
  switch (event.kind) {
    case ResourceEventKind::change:
      break;
    case ResourceEventKind::refuse:
    case ResourceEventKind::allow:
      folded_[event.key].refusal = event.kind;
      break;
    case ResourceEventKind::prepare:
    case ResourceEventKind::confirm:
    case ResourceEventKind::ready:
      folded_[event.key].stage = event.kind;
      break;
  }
  tell(event, source, line, {});
}

void ResourceEvents::applyFolded() {
  for (const auto& [key, last] : std::exchange(folded_, {})) {
    for (const auto& kind : {last.stage, last.refusal}) {
      if (kind) {
        (void)apply(key, *kind);
      }
    }
  }
  store_.ringIfPublished();
}

void ResourceEvents::tell(const Common::ResourceEvent& event, Source& source, std::uint64_t line,
                          const std::string& failure) {
  ++(failure.empty() ? totals_.applied : totals_.failed);
  std::string text =
      fmt::format(R"({{"source":{},"line":{},"op":"resource","resource":"{}","key":)",
                  source.quotedName(), line, event.resource());
  Common::appendKey(text, event.key);
  fmt::format_to(std::back_inserter(text), R"(,"event":"{}","outcome":"{}")", name(event.kind),
                 failure.empty() ? "success" : "failed");
  if (!failure.empty()) {
    text += ",\"reason\":";
    Common::appendString(text, failure);
  }
  text += "}\n";
  source.outcomeIs(text);
}

}  // namespace Agent
