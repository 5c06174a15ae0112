// Columns of text as wide as their widest cell.
#pragma once
#include <string>
#include <vector>

namespace ctl {

using Row = std::vector<std::string>;
// Every line ended; no blanks at the end of one.
std::string TableText(const std::vector<Row>& rows);

}  // namespace ctl
