// Settings of Windows that must be made before a volume is protected, as far as the registry holds them.
#pragma once
#include <string>
#include <vector>
#include "tool/inject/registration.h"

namespace tool {

// `settings` are KEY=VALUE. Sets each, and reports it with what it was. Throws Error for an unknown key or
// value.
void Prepare(Installation& windows, const std::vector<std::string>& settings, Report& report);
// The keys with their values, a line for each.
std::string PrepareHelp();

}  // namespace tool
