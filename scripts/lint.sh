#!/bin/sh
# Checks the format of the sources and runs clang-tidy over them, and shellcheck over the scripts.
# usage: scripts/lint.sh [name ...]   only sources whose path contains one of the names
# Needs clang-format-14, clang-tidy-14 and shellcheck, and a configured build folder.
set -eu

cd "$(dirname "$0")/.."
for tool in clang-format-14 run-clang-tidy-14 shellcheck; do
    command -v "$tool" >/dev/null 2>&1 || {
        echo "lint: $tool is missing: apt-get install clang-format-14 clang-tidy-14 shellcheck" >&2
        exit 1
    }
done
[ -f build/compile_commands.json ] || cmake --preset ci

names=$(IFS='|'; printf '%s' "$*")
status=0
git ls-files '*.h' '*.cpp' | grep -E "$names" | xargs -r clang-format-14 --dry-run --Werror || status=1
git ls-files 'scripts/*.sh' 'tests/*.sh' 'bench/*.sh' .ci/run | xargs shellcheck -x || status=1
# The toolkit's generated sources are nobody's to correct. Their headers are read by every check of
# a source that includes them, so the build has to be up to date.
run-clang-tidy-14 -quiet -p build "/(src|tests|bench|examples|fuzz)/(?!.*_autogen).*($names)" \
    2>/dev/null || status=1
exit "$status"
