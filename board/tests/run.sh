#!/bin/bash
# All tests of the board; needs root. run.sh [NAME...], such as: run.sh commands leaks
set -uo pipefail
cd "$(dirname -- "${BASH_SOURCE[0]}")" || exit 1
(($# > 0)) || set -- commands world leaks surroundings tools
# So that no test waits for a cache to be filled.
../board fetch && ../board fetch --suite trixie || exit
passed=0 failed=0
for name in "$@"; do
    echo "== $name"
    last=
    while IFS= read -r line; do
        [[ $line =~ ^([0-9]+)\ passed,\ ([0-9]+)\ failed$ ]] || { last=$line && echo "$line"; continue; }
        passed=$((passed + BASH_REMATCH[1])) failed=$((failed + BASH_REMATCH[2])) last=counted
    done < <(timeout -k 30 600 "./$name.sh" 2>&1)
    [[ $last == counted ]] || { echo "FAIL $name did not finish" && failed=$((failed + 1)); }
done
echo "$passed passed, $failed failed"
((failed == 0))
