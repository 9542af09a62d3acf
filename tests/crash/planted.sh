#!/bin/sh
# Shows that crash_steps can fail: copies the tree, plants one fault after the other, and demands that each is caught.
# A sound copy must pass first.
#   tests/crash/planted.sh [WORK-DIRECTORY]
set -eu
tree=$(cd "$(dirname "$0")/../.." && pwd)
work=${1:-$(mktemp -d)}
trap '[ $# -gt 0 ] || rm -rf "$work"' EXIT
mkdir -p "$work/tree"
(cd "$tree" && tar cf - --exclude=./build --exclude=./.git .) | tar xf - -C "$work/tree"

steps() {
    cmake --build "$work/build" --target crash_steps > "$work/build.log" 2>&1 || { cat "$work/build.log"; exit 2; }
    LTRACE=off OXA_ERRMSG=off "$work/build/bin/crash_steps" --no-second > "$work/steps.log" 2>&1
}

cmake -S "$work/tree" -B "$work/build" -G Ninja -DCMAKE_BUILD_TYPE=Release > "$work/build.log"
if ! steps; then
    echo "without any fault planted, crash_steps fails:"
    cat "$work/steps.log"
    exit 1
fi
echo "no fault planted: passes"
status=0
for patch in "$tree"/tests/crash/planted/*.patch; do
    name=$(basename "$patch" .patch)
    patch -s -d "$work/tree" -p1 < "$patch"
    if steps; then
        echo "$name: NOT CAUGHT"
        status=1
    else
        echo "$name: caught by $(grep -c ^FAILED "$work/steps.log") scenarios, first: $(grep -m1 ^FAILED "$work/steps.log")"
    fi
    patch -s -R -d "$work/tree" -p1 < "$patch"
done
exit $status
