// Completion of the command line.
#pragma once
#include <string>

namespace CLI {
class App;
}

namespace ctl {

// A script for bash that knows the commands, the options and what goes with them, as `app` has them, and asks
// the program itself for the volumes' names.
std::string CompletionScript(const CLI::App& app);

}  // namespace ctl
