#!/bin/bash
# Compares clipweir's transfer of a 1 GiB file with curl's, from nginx on this machine: wall and
# processor time, run by run in turn, and the growth of peak memory with the size of the file.
# Prints the figures and ends with 1 when a limit is missed.
#
# usage: bench/http-download.sh [rounds]    5 by default; the best of each counts
set -euo pipefail

root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
rounds=${1:-5}
work=$root/build-bench/http
# shellcheck source=scripts/nginx.sh
. "$root/scripts/nginx.sh"

cd "$root"
scripts/setup.sh
cmake --preset bench >/dev/null
cmake --build build-bench --target httpdownload clipweir >/dev/null

rm -rf "$work"
mkdir -p "$work/files"
trap 'stop_nginx; rm -rf "$work"' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
for mib in 1 1024; do
    head -c "${mib}M" /dev/urandom >"$work/files/$mib.mp4"
    # A page that plays it: the script asks for the file as a player would.
    printf '<html><title>%s</title><script>var r = new XMLHttpRequest(); r.open("GET", "/%s.mp4"); r.send();</script></html>' \
        "$mib" "$mib" >"$work/files/$mib.html"
done

server_text() {
    echo "root \"$work/files\";"
}
start_nginx "$work" server_text /1.html

python3 "$root/bench/http/compare.py" "$address" "$work" "$root/build-bench" "$rounds"
