#!/usr/bin/env bash
# The library exports kv_Stream and nothing else, and has no symbol that would
# keep it from unloading.
set -euo pipefail
exported=$(nm -D --defined-only "$1" | awk '{print $3}')
[ "$exported" = _Z9kv_StreamiPvi ] || { echo "exported: $exported"; exit 1; }
if nm "$1" 2>/dev/null | grep ' u '; then echo "GNU-unique symbols"; exit 1; fi
