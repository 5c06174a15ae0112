// The command line of `kvrhost prove`.
#pragma once
#include <CLI/CLI.hpp>
#include "tool/prove/prove.h"

namespace tool {

// Adds the command to `app`; its options are parsed into `options`, which outlives it.
CLI::App* AddProveCommand(CLI::App& app, ProveOptions& options);

}  // namespace tool
