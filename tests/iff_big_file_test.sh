#!/bin/sh
# Makes a sparse IFF file of 3 GiB (a FORM holding HEAD, a BIG chunk of 3221225428 bytes and
# a TAIL chunk behind it), dumps it with `vxtool iff dump` under /usr/bin/time -v, and fails
# when the dump needs more than 32 MB. Exits 77 (skipped) without GNU time or sparse files.
set -eu
vxtool=$1
file=$2
[ -x /usr/bin/time ] || { echo "skipped: /usr/bin/time is missing (Debian: time)"; exit 77; }
trap 'rm -f "$file" "$file.time"' EXIT
printf 'FORM\277\377\377\370TESTHEAD\000\000\000\004headBIG \277\377\377\324' > "$file"
truncate -s 3221225460 "$file" 2>/dev/null || { echo "skipped: cannot make a sparse file here"; exit 77; }
printf 'TAIL\000\000\000\004tail' >> "$file"
used=$(du -k "$file" | cut -f1)
[ "$used" -lt 1024 ] || { echo "skipped: the file system does not keep the file sparse"; exit 77; }
/usr/bin/time -v "$vxtool" iff dump "$file" 2> "$file.time"
peak=$(awk -F': ' '/Maximum resident set size/ {print $2}' "$file.time")
echo "peak memory $peak kB"
[ "$peak" -lt 32768 ] || { echo "the dump took more than 32 MB"; exit 1; }
