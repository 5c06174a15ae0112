// The command line, from words to commands.
#pragma once
#include <functional>
#include <memory>
#include <string>
#include <vector>
#include "tool/kvrctl/host.h"
#include "tool/kvrctl/world.h"

namespace ctl {

// Makes the world that --machine chose (empty: not given).
using WorldMaker = std::function<std::unique_ptr<World>(const std::string& folder)>;

// Runs one command; returns the program's exit code. Every failure is one line on the terminal's `err`.
// `words`: what stands behind the program's name.
int RunCommandLine(std::vector<std::string> words, Terminal& terminal, const WorldMaker& makeWorld);

}  // namespace ctl
