#pragma once

#include <string>
#include <vector>

#include "kelp/Output.h"

namespace Kelp {

// A small table for people: columns as wide as their widest cell, numbers to the right.
class TextTable {
 public:
  explicit TextTable(std::vector<std::string> header) : rows_{std::move(header)} {}

  // As many cells as the header has.
  void row(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
  void print(Output& out) const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

// Adds `cell` to a line that is filled up with blanks to `width`, on the left if `right`.
void appendCell(std::string& line, const std::string& cell, std::size_t width, bool right);

}  // namespace Kelp
