#include "kelp/TextTable.h"

#include <algorithm>

namespace Kelp {
namespace {

// Or what stands in the place of one.
bool isNumber(const std::string& cell) {
  return cell.empty() || cell == "never" || cell == "none" ||
         cell.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

void appendCell(std::string& line, const std::string& cell, std::size_t width, bool right) {
  const std::size_t blanks = width > cell.size() ? width - cell.size() : 0;
  line.append(right ? blanks : 0, ' ');
  line += cell;
  line.append(right ? 0 : blanks, ' ');
}

void TextTable::print(Output& out) const {
  const std::size_t columns = rows_.front().size();
  std::vector<std::size_t> widths(columns);
  std::vector<bool> right(columns, true);
  for (std::size_t r = 0; r < rows_.size(); ++r) {
    for (std::size_t c = 0; c < columns; ++c) {
      widths[c] = std::max(widths[c], rows_[r][c].size());
      right[c] = right[c] && (r == 0 || isNumber(rows_[r][c]));
    }
  }
  for (const auto& row : rows_) {
    std::string line;
    for (std::size_t c = 0; c < columns; ++c) {
      line += c == 0 ? "" : "  ";
      appendCell(line, row[c], widths[c], right[c]);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out.line(line);
  }
}

}  // namespace Kelp
