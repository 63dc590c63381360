#!/usr/bin/env bash
# Every process that has the library preloaded calls malloc, calloc, realloc
# and free through it; outside the target they only test a few flags and jump
# on to the C library. That path must not build the stack frame that the
# tracked path needs: a compiler that hoists the frame (register saves and a
# 600-byte stack) above the first test makes every call of every process pay
# for it. The first instruction of each entry point shows whether it did.
set -euo pipefail
lib=$1
status=0
for fn in malloc calloc realloc free; do
  first=$(objdump -d --no-show-raw-insn --disassemble="$fn" "$lib" |
          awk -F'\t' '/^ +[0-9a-f]+:/ && $2 != "endbr64" { print $2; exit }')
  case $first in
    "" ) echo "$fn: not found in $lib"; status=1 ;;
    push* | sub*%rsp* | call* ) echo "$fn: builds a frame before its pass-through test ($first)"; status=1 ;;
  esac
done
exit $status
