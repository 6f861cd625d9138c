#!/usr/bin/env bash
# Fails when a tracked C or C++ file differs from what clang-format makes of it.
set -euo pipefail
cd "$(dirname "$0")/.."
command -v clang-format >/dev/null || scripts/install-deps.sh
bad=0
while IFS= read -r file; do
    if ! clang-format --dry-run --Werror "$file" >/dev/null 2>&1; then
        echo "not clang-formatted: $file"
        bad=1
    fi
done < <(git ls-files '*.cpp' '*.cc' '*.h' '*.hpp')
[ "$bad" -eq 0 ] && echo "formatting: every C++ file is clang-formatted"
exit "$bad"
