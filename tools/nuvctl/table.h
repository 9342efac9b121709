// Text tables whose columns are as wide as their longest entry.
#ifndef NUV_TOOLS_NUVCTL_TABLE_H
#define NUV_TOOLS_NUVCTL_TABLE_H

#include <string>
#include <vector>

namespace nuvctl {

// rows[0] is the header. Columns listed in `right` are right-aligned (numbers); two blanks
// between columns; no trailing blanks. After a data row r, notes[r - 1] (when not empty) is
// printed on a line of its own, indented by two.
void PrintTable(const std::vector<std::vector<std::string>>& rows, const std::vector<bool>& right,
                const std::vector<std::string>& notes = {});

}  // namespace nuvctl

#endif
