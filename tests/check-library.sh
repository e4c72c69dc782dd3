#!/usr/bin/env bash
# Reads the library's dynamic section: it must export the native methods and nothing else, and need
# nothing at run time but the C library, of which the loader is a part.
set -euo pipefail
library=$1

exported=$(readelf --wide --dyn-syms "$library" |
    awk '$7 != "UND" && $8 != "" && $1 ~ /^[0-9]+:$/ { print $8 }' | sort)
count=$(grep -c '^Java_stor_device_skiplist_JniSkipListNative_[A-Za-z]*$' <<<"$exported")
others=$(grep -v '^Java_stor_device_skiplist_JniSkipListNative_' <<<"$exported" || true)
needed=$(readelf --wide --dynamic "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort)

echo "exported native methods: $count; others: ${others:-none}"
echo "needed at run time: ${needed//$'\n'/ }"
[[ $count -eq 26 && -z $others ]]
! grep -vxE 'libc\.so\.6|libm\.so\.6|ld-linux-x86-64\.so\.2' <<<"$needed"
