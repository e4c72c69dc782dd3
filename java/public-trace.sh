#!/bin/sh
# Rewrites the first COUNT reads and writes of a recorded trace in the public format, at odd offsets,
# every seventh on a second disk: public-trace.sh TRACE COUNT RESULT
set -eu
gzip -dc "$1" | awk -v count="$2" '
    /^#/ || $2 == "D" || n == count { next }
    { n++; printf "128166372%09d,host,%d,%s,%.0f,%d,1331\n", 3061629 + n, n % 7 == 6,
            $2 == "R" ? "Read" : "Write", $3 + 17, $4 - 8 }' >"$3"
