#include "Asic/GenId.h"

#include <fmt/format.h>

#include <charconv>

#include "Vault/EntityType.h"

namespace Asic {
namespace {

const Vault::EntityTypeRegistrar<GenId> registrar;

std::uint64_t parse(const GenId& entity, const Lumen::String& file, const Lumen::String& text) {
  std::uint64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end) {
    throw Vault::VaultError(fmt::format(
        "{}: \"{}\" holds \"{}\", which is no generation; set its value to a decimal number", file,
        entity.path(), text));
  }
  return number;
}

}  // namespace

GenId::~GenId() = default;

std::uint64_t GenId::majorId() const {
  const auto row = store().row(path());
  return row ? parse(*this, store().file(), row->value) : 0;
}

void GenId::majorIdInc(unsigned short step) {
  const auto raised = store().valueChange(path(), [&](const Lumen::String& value) {
    return std::to_string(parse(*this, store().file(), value) + step);
  });
  if (!raised) {
    throw Vault::VaultError(
        fmt::format("{}: \"{}\" is gone; make it again before raising it", store().file(), path()));
  }
}

}  // namespace Asic
