#!/usr/bin/env bash
# Fails when a tracked C++ or CUDA source differs from the project's .clang-format; lists the
# files. `bash scripts/check-format.sh --fix` rewrites them instead.
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files '*.h' '*.hpp' '*.cpp' '*.cu' '*.cuh')
if [[ "${1:-}" == "--fix" ]]; then
  clang-format -i "${files[@]}"
  exit 0
fi
mapfile -t bad < <(for f in "${files[@]}"; do
  clang-format --dry-run --Werror "$f" >/dev/null 2>&1 || echo "$f"
done)
if ((${#bad[@]})); then
  echo "check-format: ${#bad[@]} file(s) differ from .clang-format (fix: bash scripts/check-format.sh --fix):" >&2
  printf '  %s\n' "${bad[@]}" >&2
  exit 1
fi
echo "check-format: ${#files[@]} files formatted"
