#!/usr/bin/env bash
# Checks that includes follow the layers: a folder of src/ may use what its line names, and each
# third-party library is wrapped by one folder.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

declare -A may_use=(
  [platform]="platform"
  [api]="api platform"
  [net]="net platform"
  [store]="store platform"
)
# A feature library: everything below it and the other features, never api.
features="ai auth cluster config events hub identity image inference metrics models net orchestration \
orchestrator pipeline platform store worker"

failures=0
complain() {
  echo "$1" >&2
  failures=$((failures + 1))
}

# The folders of src/ that files of $1 include from, as "file: folder" lines.
includes_of() {
  grep -rnoE --include='*.h' --include='*.cpp' '^#include "[a-z_]+/' "src/$1" |
    sed -E 's/#include "([a-z_]+)\//\1/' || true
}

for path in src/*/; do
  folder=$(basename "$path")
  [[ $folder == controller ]] && continue  # the top: may use everything
  allowed=${may_use[$folder]:-$features}
  while IFS=: read -r file line used; do
    [[ -z $used || " $allowed " == *" $used "* ]] ||
      complain "$file:$line: $folder must not use $used"
  done < <(includes_of "$folder")
done

# only_in PATTERN FOLDER WHAT
only_in() {
  while IFS= read -r hit; do
    complain "$hit: only $2 may include $3"
  done < <(grep -rnE --include='*.h' --include='*.cpp' "^#include <$1" src tools | grep -v "^$2/" |
    cut -d: -f1,2 || true)
}
only_in 'httplib\.h>' src/api "the HTTP server library"
only_in 'curl/' src/net "the HTTP client library"
only_in 'sqlite3\.h>' src/store "the database library"

# Headers of net keep its library to themselves.
while IFS= read -r hit; do
  complain "$hit: a header must not include the HTTP client library"
done < <(grep -rnE --include='*.h' '^#include <curl/' src/net | cut -d: -f1,2 || true)

((failures == 0)) || { echo "check_layers: $failures wrong includes" >&2; exit 1; }
echo "check_layers: fine"
