#pragma once

#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

namespace console {

using Row = std::vector<std::string>;

/// Prints a row for each item, in columns as wide as they must be. `row_of` is called twice for each item,
/// so that the texts of all are never in memory. `right` is the column of numbers.
template <class Items, class RowOf>
void print_columns(const Row& head, const Items& items, RowOf row_of,
                   std::size_t right = Row().max_size()) {
  std::vector<std::size_t> widths;
  const auto widen = [&widths](const Row& row) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  };
  const auto print = [&widths, right](const Row& row) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      const bool last = i + 1 == row.size();
      const std::string blanks(widths[i] - row[i].size(), ' ');
      std::cout << (i == right ? blanks + row[i] : last ? row[i] : row[i] + blanks) << (last ? "\n" : "  ");
    }
  };
  if (!head.empty()) widen(head);
  for (const auto& item : items) widen(row_of(item));
  if (!head.empty()) print(head);
  for (const auto& item : items) print(row_of(item));
}

}  // namespace console
