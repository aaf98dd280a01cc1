#!/usr/bin/env bash
# Keeps files readable: sources beyond 600 lines are named, beyond 800 refused.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

warn_lines=600
max_lines=800
failed=0
while IFS= read -r file; do
  lines=$(wc -l <"$file")
  if ((lines > max_lines)); then
    echo "$file: $lines lines, more than $max_lines" >&2
    failed=1
  elif ((lines > warn_lines)); then
    echo "$file: $lines lines, think of splitting it"
  fi
done < <(git ls-files 'src/*' 'tests/*' 'tools/*' 'bench/*' 'fuzz/*' | grep -E '\.(h|cpp|mjs|js|css)$')
((failed == 0)) && echo "check_sizes: fine"
exit $failed
