#!/usr/bin/env bash
# Reads the library's dynamic section: it must export the native methods and nothing else, need
# nothing at run time but the C library, of which the loader is a part, and of that nothing newer
# than the oldest C library that is promised, nor anything that an older one has in another file. And
# it must be small: what nothing calls is left out.
#   check-library.sh LIBRARY OLDEST_GLIBC
set -euo pipefail
library=$1
oldest_glibc=$2
export LC_ALL=C

exported=$(readelf --wide --dyn-syms "$library" |
    awk '$4 != "SECTION" && $7 != "UND" && $8 != "" && $1 ~ /^[0-9]+:$/ { print $8 }' | sort)
count=$(grep -c '^Java_stor_device_skiplist_JniSkipListNative_[A-Za-z]*$' <<<"$exported")
others=$(grep -v '^Java_stor_device_skiplist_JniSkipListNative_' <<<"$exported" || true)
needed=$(readelf --wide --dynamic "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort)
# Lines "VERSION NAME", the newest last: of names, and of what linkers do by themselves.
imported=$({
    readelf --wide --dyn-syms "$library" | sed -nE 's/.* UND ([^@ ]+)@GLIBC_([0-9.]+).*/\2 \1/p'
    readelf --wide --version-info "$library" | sed -nE 's/.*Name: GLIBC_(ABI\w+).*/\1 \1/p'
} | sort --version-sort)
newest=${imported##*$'\n'}
too_new=$(awk -v oldest="$oldest_glibc" '
    { split($1, version, "."); split(oldest, bound, ".") }
    version[1] > bound[1] || version[1] == bound[1] && version[2] + 0 > bound[2] + 0' <<<"$imported")
# Of libpthread, libdl and librt, a part of libc.so.6 since 2.34, these few were there before.
moved=$(awk '{ print $2 }' <<<"$imported" |
    grep -E '^_*(pthread_|sem_|dl(addr|close|error|open|sym)|shm_|timer_|mq_|aio_)' |
    grep -vxE 'pthread_(self|mutex_(lock|unlock)|cond_(broadcast|signal|wait))' || true)

echo "exported native methods: $count; others: ${others:-none}"
echo "needed at run time: ${needed//$'\n'/ }"
echo "glibc needed: ${newest% *}, by ${newest#* }; newer than $oldest_glibc: ${too_new:-none}"
echo "in another file of older C libraries: ${moved:-none}"
size=$(stat --format=%s "$library")
echo "size: $size, at most 300000"
[[ $size -le 300000 && $count -eq 26 && -z $others && -n $imported && -z $too_new && -z $moved ]]
! grep -vxE 'libc\.so\.6|libm\.so\.6|libpthread\.so\.0|ld-linux-(x86-64|aarch64)\.so\.[12]' <<<"$needed"
