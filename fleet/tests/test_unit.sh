#!/bin/bash
# Starts the unit of a worker under a systemd of its own, in a container of the distribution's packages, and
# has it capture a page, outlive a kill and stop in order. Skipped (77) without root's rights, systemd-nspawn
# or mmdebstrap.
# usage: test_unit.sh cpack build-folder source-folder
set -euo pipefail

cpack=$1
build_folder=$2
source=$3
if [ "$(id -u)" -ne 0 ] || ! command -v systemd-nspawn >/dev/null || ! command -v mmdebstrap >/dev/null; then
    echo 'no rights, or no systemd-nspawn and mmdebstrap'
    exit 77
fi
base=$(sed -n 's/^FROM .*:\(.*\)-slim$/\1/p' "$source/fleet/deploy/Containerfile")
work=$(mktemp -d)
root=$work/root
machine=clipweir-fleet-$$
container=
leader=
trap clean_up EXIT

clean_up() {
    [ -z "$leader" ] || kill -KILL "$leader" 2>/dev/null || true # takes all of the container with it
    [ -z "$container" ] || wait "$container" || true
    rmdir "/run/systemd/nspawn/propagate/$machine" 2>/dev/null || true
    rm -rf "$work"
}

fail() {
    echo "test_unit: $1" >&2
    inside journalctl --no-pager -n 100 >&2 || true
    exit 1
}

make_root() {
    mmdebstrap --quiet --variant=minbase --include=systemd,dbus,redis-server,python3,ca-certificates "$base" "$root"
    "$cpack" --config "$build_folder/CPackConfig.cmake" -B "$work/package"
    rm -f "$root/etc/resolv.conf"
    cp /etc/resolv.conf "$root/etc/"
    mkdir "$root/packages"
    cp "$work"/package/*.deb "$root/packages/"
    chroot "$root" apt-get update
    DEBIAN_FRONTEND=noninteractive chroot "$root" bash -c \
        'apt-get install -y --no-install-recommends /packages/*.deb && apt-get clean && rm -r /packages'
    cp "$source/fleet/tests/page_server.py" "$root/opt/"
    echo CLIPWEIR_FLEET_LEASE=6 >"$root/etc/default/clipweir-fleet"
}

boot() {
    # The container has a cgroup tree of its own whatever that of the machine is.
    SYSTEMD_NSPAWN_UNIFIED_HIERARCHY=1 systemd-nspawn --quiet --register=no --keep-unit --machine "$machine" \
        --directory "$root" --private-network --boot --console=pipe </dev/null >"$work/console" 2>&1 &
    container=$!
    wait_for 'the container runs' find_leader
    wait_for 'systemd is up' inside systemctl is-active --quiet multi-user.target
}

find_leader() {
    kill -0 "$container" && leader=$(pgrep -P "$container" -f systemd)
}

inside() {
    nsenter --target "$leader" --mount --uts --ipc --net --pid --cgroup --root --wd \
        env PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"
}

wait_for() { # what command...
    for _ in {1..300}; do
        if "${@:2}" >/dev/null 2>&1; then return; fi
        sleep 0.3
    done
    fail "in vain: $1"
}

is_done() { # address
    inside clipweir-fleet results --json | grep -F "\"$1\"" | grep -q '"class": "complete"'
}

is_restarted() {
    [ "$(inside systemctl show --value -p NRestarts clipweir-fleet@1)" = 1 ] &&
        inside systemctl is-active --quiet clipweir-fleet@1
}

runs() {
    inside clipweir-fleet status --json | grep -q '"running": [1-9]'
}

is_empty() {
    [ -z "$(inside ls /var/lib/private/clipweir-fleet/work)" ]
}

make_root >"$work/log" 2>&1 || { tail -n 50 "$work/log" >&2 && exit 1; }
boot
inside python3 /opt/page_server.py >"$work/address" &
until [ -s "$work/address" ]; do sleep 0.1; done
address=$(<"$work/address")
inside systemctl start clipweir-fleet@1

inside clipweir-fleet submit --timeout 5 "$address/page/plain/1"
wait_for 'a page is captured' is_done "$address/page/plain/1"

inside clipweir-fleet submit --timeout 5 "$address/page/slow/2"
wait_for 'a page runs' runs
inside systemctl kill -s KILL clipweir-fleet@1
wait_for 'the worker is started again' is_restarted
wait_for 'its page is captured' is_done "$address/page/slow/2"

inside clipweir-fleet submit --timeout 5 "$address/page/slow/3"
wait_for 'a page runs' runs
inside systemctl stop clipweir-fleet@1
[ "$(inside systemctl show --value -p Result clipweir-fleet@1)" = success ] || fail 'it does not stop in order'
! runs || fail 'the page was not given back'
inside systemctl start clipweir-fleet@1
wait_for 'it goes on' is_done "$address/page/slow/3"
is_empty || fail 'something is left'
echo 'the unit captures, outlives a kill and stops in order'
