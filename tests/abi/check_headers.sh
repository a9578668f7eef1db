#!/bin/sh
# Compiles every public header alone, with nothing before it: check_headers.sh C|CXX STANDARD FOLDER COMPILER...
set -u
language=$1 standard=$2 include=$3
shift 3
strict="-Wall -Wextra -Wpedantic -Wundef -Werror -fsyntax-only"
case $language in
C) strict="$strict -Wstrict-prototypes -Wmissing-prototypes -x c" ;;
CXX) strict="$strict -Wold-style-cast -x c++" ;;
esac
failed=0 seen=0
for header in "$include"/kiv/*.h; do
    seen=$((seen + 1))
    # shellcheck disable=SC2086
    if ! printf '#include "kiv/%s"\nextern int nothing;\n' "${header##*/}" |
        "$@" "-std=$standard" $strict -I "$include" -; then
        echo "${header##*/} does not compile alone as $standard"
        failed=1
    fi
done
echo "$seen headers"
[ "$failed" -eq 0 ] && [ "$seen" -gt 0 ]
