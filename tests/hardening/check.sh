#!/usr/bin/env bash
# Checks the hardening of built programs: position-independent, read-only
# relocations bound at start, stack protector, control-flow protection
# (endbr64 landing pads: the CET note itself needs a CET-built libc, which
# Debian 12 lacks), and, with --fortify, FORTIFY's checked libc calls in
# the build.
# Prints what is missing, per program.
set -uo pipefail
fortify=0
if [[ ${1:-} == --fortify ]]; then fortify=1; shift; fi
status=0
fortified=0
for bin in "$@"; do
    missing=()
    # Whole outputs first: grep -q would close the pipe early under pipefail.
    header=$(readelf -h "$bin") segments=$(readelf -lW "$bin") dynamic=$(readelf -dW "$bin")
    symbols=$(readelf -sW --dyn-syms "$bin") code=$(objdump -d --no-show-raw-insn "$bin")
    grep -q 'Type:.*DYN' <<<"$header" || missing+=(PIE)
    grep -q GNU_RELRO <<<"$segments" || missing+=(RELRO)
    grep -Eq 'BIND_NOW|FLAGS.*NOW' <<<"$dynamic" || missing+=(BIND_NOW)
    grep -q '__stack_chk_fail' <<<"$symbols" || missing+=(stack-protector)
    grep -q endbr64 <<<"$code" || missing+=(cf-protection)
    grep -Eq '__[a-z_]+_chk@' <<<"$symbols" && fortified=1
    if ((${#missing[@]})); then
        echo "$(basename "$bin"): missing ${missing[*]}"
        status=1
    else
        echo "$(basename "$bin"): hardened"
    fi
done
# A program may have no call FORTIFY can check; the build as a whole must.
if ((fortify && !fortified)); then
    echo "no program has FORTIFY's checked calls"
    status=1
fi
exit $status
