// The difference of two texts, line by line.
#pragma once
#include <string>

namespace ctl {

// Changed lines with '-' and '+' before them and two unchanged ones around; empty when nothing changed. Lines
// are shown without their line ends; a line of which only the end changed counts as changed.
std::string DiffText(const std::string& before, const std::string& after, bool colour);

}  // namespace ctl
