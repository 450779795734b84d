#!/bin/sh
# Stands in for the program where the fleet itself is measured: sleeps as long as SLEEPER_SECONDS says and
# tells of a video of no bytes.
while [ $# -gt 1 ]; do
    [ "$1" != --saveto ] || path=$2
    shift
done
sleep "${SLEEPER_SECONDS:-1}"
: >"$path"
echo '{"version":1,"event":"result","elapsedMs":0,"class":"complete","bytes":0,"sha256":null}'
