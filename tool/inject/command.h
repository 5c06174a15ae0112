// The command line of `kvrhost inject`.
#pragma once
#include <CLI/CLI.hpp>
#include "tool/inject/inject.h"

namespace tool {

// Adds the command to `app`; its options are parsed into `options`, which outlives it.
CLI::App* AddInjectCommand(CLI::App& app, InjectOptions& options);
// Carries it out and prints what was done; the exit code. Throws Error.
int RunInject(const InjectOptions& options);

}  // namespace tool
