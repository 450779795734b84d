#!/bin/bash
# Starts and stops the server of a fleet for development and tests: a Redis of its own, on a free
# loopback port, with all its files in one folder. Nothing of the machine is touched.
# usage: scripts/fleet.sh start|stop|restart|kill|address [folder]     build/fleet is the folder
#   start    prints the address; the same port again if the folder has one
#   restart  ends the server in order and starts it again on what it wrote
#   kill     kills it, as a power cut would
set -euo pipefail

root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
action=${1-}
folder=${2-$root/build/fleet}

write_configuration() { # port
    cat >"$folder/redis.conf" <<END
bind 127.0.0.1
port $1
dir $folder
pidfile $folder/redis.pid
logfile $folder/redis.log
daemonize yes
appendonly yes
appendfsync everysec
save ""
maxmemory-policy noeviction
END
}

ask() { # port command...
    redis-cli -h 127.0.0.1 -p "$1" "${@:2}" 2>/dev/null
}

# The server at the port is the one whose files are in the folder, and has read them.
is_up() { # port
    [ "$(ask "$1" config get dir | tail -n 1)" = "$folder" ] && [ "$(ask "$1" ping)" = PONG ]
}

try_port() { # port
    write_configuration "$1"
    rm -f "$folder/redis.pid"
    redis-server "$folder/redis.conf"
    for _ in {1..200}; do
        if is_up "$1"; then return; fi
        [ -s "$folder/redis.pid" ] && ! kill -0 "$(<"$folder/redis.pid")" 2>/dev/null && break
        sleep 0.05
    done
    return 1
}

start() {
    mkdir -p "$folder"
    folder=$(cd -- "$folder" && pwd -P)
    local port
    if [ -s "$folder/port" ]; then
        port=$(<"$folder/port")
        is_up "$port" || try_port "$port" || { echo "fleet: see $folder/redis.log" >&2 && exit 1; }
    else
        for _ in 1 2 3 4 5 ''; do
            port=$((20000 + RANDOM % 12000))
            if try_port "$port"; then break; fi
            port=
        done
        [ -n "$port" ] || { echo "fleet: see $folder/redis.log" >&2 && exit 1; }
        echo "$port" >"$folder/port"
    fi
    address
}

address() {
    echo "redis://127.0.0.1:$(<"$folder/port")/0"
}

end() { # signal
    local pid
    [ -s "$folder/redis.pid" ] || return 0
    pid=$(<"$folder/redis.pid")
    # The number may be somebody else's by now.
    if tr '\0' ' ' <"/proc/$pid/cmdline" 2>/dev/null | grep '^redis-server ' >/dev/null; then
        kill "-$1" "$pid"
        while [ -d "/proc/$pid" ] && ! grep -q '^State:.Z' "/proc/$pid/status" 2>/dev/null; do sleep 0.05; done
    fi
    rm -f "$folder/redis.pid"
}

case $action in
start) start ;;
stop) end TERM ;;
kill) end KILL ;;
restart)
    end TERM
    start
    ;;
address) address ;;
*)
    sed -n '2,8s/^# //p' "$0" >&2
    exit 2
    ;;
esac
