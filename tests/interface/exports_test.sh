#!/usr/bin/env bash
# exports_test.sh LIBRARY SYMBOLS: the library has the soname and exports the symbols that the
# package's symbols file promises, and no symbol that would prevent unloading.
set -euo pipefail
expected=$(awk 'NR == 1 { print $1; next } { sub(/@.*/, "", $1); print $1 }' "$2")
provided=$(objdump -p "$1" | awk '/SONAME/ { print $2 }'; nm -D --defined-only "$1" | awk '{ print $3 }')
diff <(echo "$expected") <(echo "$provided") || { echo "another ABI than that of $2"; exit 1; }
if nm "$1" 2>/dev/null | grep ' u '; then echo "GNU-unique symbols"; exit 1; fi
