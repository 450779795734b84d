#!/bin/sh
# Passes when clang-format would change none of the tree's sources; names those that it would.
# usage: test_format.sh <top of the tree>
set -eu

cd "$1"
command -v clang-format-14 >/dev/null || {
    echo 'format: clang-format-14 is missing: run scripts/setup.sh' >&2
    exit 1
}

# Not only what git knows: a source that is new, or a tree without git, is checked alike.
sources=$(find AdobeDownloader bench examples fuzz src tests -name '*.cpp' -o -name '*.h')
status=0
# shellcheck disable=SC2086 # a list of names without spaces
printf '%s\n' $sources | xargs -P 2 -n 40 clang-format-14 --dry-run --Werror || status=1
[ "$status" -eq 0 ] || echo 'format: put these in order with clang-format-14 -i <file>' >&2
exit "$status"
