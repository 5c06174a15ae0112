#!/usr/bin/env bash
# Every source file stands as clang-format leaves it.
set -euo pipefail
git ls-files '*.cpp' '*.h' | xargs -r clang-format-14 --dry-run -Werror
