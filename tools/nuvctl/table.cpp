#include "table.h"

#include <algorithm>
#include <cstdio>

namespace nuvctl {

void PrintTable(const std::vector<std::vector<std::string>>& rows, const std::vector<bool>& right,
                const std::vector<std::string>& notes) {
  std::vector<size_t> width;
  for (const auto& row : rows) {
    if (width.size() < row.size()) width.resize(row.size(), 0);
    for (size_t c = 0; c < row.size(); ++c) width[c] = std::max(width[c], row[c].size());
  }
  for (size_t r = 0; r < rows.size(); ++r) {
    std::string line;
    for (size_t c = 0; c < rows[r].size(); ++c) {
      const std::string& cell = rows[r][c];
      const std::string pad(width[c] - cell.size(), ' ');
      const bool last = c + 1 == rows[r].size();
      if (c != 0) line += "  ";
      line += c < right.size() && right[c] ? pad + cell : (last ? cell : cell + pad);
    }
    std::printf("%s\n", line.c_str());
    if (r > 0 && r - 1 < notes.size() && !notes[r - 1].empty())
      std::printf("  %s\n", notes[r - 1].c_str());
  }
}

}  // namespace nuvctl
