#!/bin/bash
# Installs into an empty root, then makes the Debian package and unpacks it into another; checks
# what is there and runs both installed programs from a folder of their own.
# usage: test_install.sh cmake cpack build-folder version [package ...]
# The packages are those that the engines of the build need.
set -Eeuo pipefail
trap 'echo "FAIL: line $LINENO" >&2' ERR

cmake=$1
cpack=$2
build=$3
version=$4
engine_packages=("${@:5}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

expect_link() { # path target
    [ -L "$1" ] || fail "$1 is no link"
    [ "$(readlink "$1")" = "$2" ] || fail "$1 leads to $(readlink "$1"), not to $2"
}

expect_line() { # file line
    grep -qxF -- "$2" "$1" || fail "no line \"$2\" in $1"
}

expect_dependency() { # control-file package
    grep -E '^Depends:' "$1" | tr -s ',|' '\n' | sed -E 's/^(Depends:)? *//; s/ .*//' | grep -xF "$2" >/dev/null ||
        fail "the package does not ask for $2"
}

# Everything that an installation below a prefix consists of.
check_tree() { # prefix
    local file doc=$1/share/doc/clipweir
    [ -x "$1/libexec/clipweir/clipweir" ] || fail 'the program is not there'
    [ -x "$1/libexec/clipweir/clipweir-get" ] || fail 'the command for people is not there'
    expect_link "$1/bin/clipweir" ../libexec/clipweir/clipweir
    expect_link "$1/bin/clipweir-get" ../libexec/clipweir/clipweir-get
    expect_link "$1/libexec/clipweir/rtmpdump" "$(command -v rtmpdump)"
    expect_link "$1/libexec/clipweir/import/bin/ffmpeg" "$(command -v ffmpeg)"
    for file in share/man/man1/clipweir.1.gz share/man/man1/clipweir-get.1.gz \
        share/bash-completion/completions/clipweir share/bash-completion/completions/clipweir-get \
        share/zsh/vendor-completions/_clipweir-get share/fish/vendor_completions.d/clipweir-get.fish; do
        [ -s "$1/$file" ] || fail "$file is not there"
    done
    for file in copyright README.md docs/host-guide.md examples/host.cpp examples/host.py; do
        [ -s "$doc/$file" ] || fail "$file is not among the documents"
    done
    local unexpected
    unexpected=$(find "$1" -type f -printf '%P\n' |
        sed -E '/^(libexec\/clipweir|share\/(man|bash-completion|zsh\/vendor-completions|fish\/vendor_completions.d|doc\/clipweir))\//d')
    [ -z "$unexpected" ] || fail "nobody asked for $unexpected"
}

# Every option of the usage text is in the man page, and the completion offers those of the man page
# and nothing else.
check_options() { # prefix usage-text
    local option man=$work/clipweir.1
    gzip -dc "$1/share/man/man1/clipweir.1.gz" | sed 's/\\-/-/g' >"$man"
    grep -q '^\.TH CLIPWEIR 1' "$man" || fail 'that is no man page'
    sed -nE 's/^\.BI? "?(--[a-z0-9]+(-[a-z0-9]+)*).*/\1/p' "$man" | sort -u >"$work/documented"
    # The text names "--resume", but that is what happens without "--noresume".
    for option in $(grep -oE '^ +--[a-z0-9-]+' "$2" | tr -d ' ' | grep -vx -e --resume); do
        expect_line "$work/documented" "$option"
    done
    # shellcheck disable=SC2016 # for the other shell
    bash -c 'source "$1"; COMP_WORDS=(clipweir --); COMP_CWORD=1; _clipweir; printf "%s\n" "${COMPREPLY[@]}"' \
        - "$1/share/bash-completion/completions/clipweir" | sort -u >"$work/completed"
    diff "$work/documented" "$work/completed" || fail 'the completion offers other options'
}

# The completion for bash offers the options of the help text and nothing else.
check_get_options() { # prefix
    run_command "$1" clipweir-get --help >"$work/get-help"
    grep -oE -- '--[a-z]+(-[a-z]+)*' "$work/get-help" | sort -u >"$work/documented"
    # shellcheck disable=SC2016 # for the other shell
    bash -c 'source "$1"; COMP_WORDS=(clipweir-get --); COMP_CWORD=1; _clipweir_get; printf "%s\n" "${COMPREPLY[@]}"' \
        - "$1/share/bash-completion/completions/clipweir-get" | sort -u >"$work/completed"
    diff "$work/documented" "$work/completed" || fail 'the completion of clipweir-get offers other options'
}

# Runs a program by its usual name, from a folder that has nothing of the build, with no display
# and no choice of a platform.
run_command() { # prefix name option...
    local prefix=$1 name=$2
    shift 2
    mkdir -p "$work/elsewhere"
    (cd "$work/elsewhere" &&
        env -u DISPLAY -u WAYLAND_DISPLAY -u QT_QPA_PLATFORM HOME="$work" "$prefix/bin/$name" "$@")
}

run_program() { # prefix option...
    local prefix=$1
    shift
    run_command "$prefix" clipweir "$@"
}

check_program() { # prefix
    local status=0
    run_program "$1" 2>"$work/usage" || status=$?
    [ "$status" -eq 23 ] || fail "without arguments the exit code is $status"
    expect_line "$work/usage" 'Usage:'
    check_options "$1" "$work/usage"
    status=0
    run_program "$1" --url x --saveto "$work/none/x.mp4" 2>"$work/errors" || status=$?
    [ "$status" -eq 13 ] || fail "without an output folder the exit code is $status"
    [ ! -s "$work/errors" ] || fail "$(cat "$work/errors")"
    check_get_options "$1"
    # It finds the program that lies beside it: nobody listens there.
    status=0
    run_command "$1" clipweir-get --retries 0 --timeout 2 -d "$work/got" http://127.0.0.1:1/ \
        >"$work/told" 2>"$work/errors" || status=$?
    [ "$status" -eq 32 ] || fail "clipweir-get ended with $status: $(cat "$work/told" "$work/errors")"
}

# What the program looks for is where it looks: beside itself, and below the working folder once
# that has the link which the man page names.
check_tools() { # prefix
    "$1/libexec/clipweir/rtmpdump" -h >"$work/tool" 2>&1 || true
    grep -q -- '--resume' "$work/tool" || fail 'rtmpdump does not run'
    ln -s "$1/libexec/clipweir/import" "$work/elsewhere/import"
    (cd "$work/elsewhere" && ./import/bin/ffmpeg -version) >"$work/tool"
    grep -q '^ffmpeg version' "$work/tool" || fail 'ffmpeg does not run'
    rm "$work/elsewhere/import"
}

# Every run pays for what the program is linked with.
check_libraries() { # prefix
    ldd "$1/libexec/clipweir/libclipweir_media.so" >"$work/media"
    grep -q libavformat "$work/media" || fail 'the part for streams has no container library'
    ldd "$1/libexec/clipweir/libclipweir_program.so" >"$work/program"
    ! grep libavformat "$work/program" || fail 'what only streams need is loaded by every run'
}

check_package() { # package
    local library
    dpkg-deb -f "$1" >"$work/control"
    expect_line "$work/control" 'Package: clipweir'
    expect_line "$work/control" "Version: $version"
    expect_line "$work/control" "Architecture: $(dpkg --print-architecture)"
    for library in "${engine_packages[@]}" libqt5network5 libqt5xmlpatterns5 libpsl5 libseccomp2 \
        libavformat59 libavcodec59 libavutil57 libc6 ffmpeg rtmpdump; do
        expect_dependency "$work/control" "$library"
    done
    dpkg-deb -c "$1" | sed -E '/^[-dl]\S+ root\/root /d' >"$work/foreign"
    [ ! -s "$work/foreign" ] || fail "not everything belongs to root: $(cat "$work/foreign")"
}

expect_packages() { # name...
    find "$work/package" -maxdepth 1 -name '*.deb' -printf '%f\n' | sort >"$work/packages"
    printf '%s\n' "$@" | sort | diff - "$work/packages" || fail 'the packages are others'
}

# The fleet's command runs from its package's files alone, with the program of the other package.
check_fleet() { # package
    dpkg-deb -f "$1" >"$work/control"
    expect_line "$work/control" 'Package: clipweir-fleet'
    expect_line "$work/control" 'Architecture: all'
    local name file
    for name in clipweir python3 python3-celery python3-redis; do
        expect_dependency "$work/control" "$name"
    done
    dpkg-deb -x "$1" "$work/fleet"
    for file in lib/systemd/system/clipweir-fleet@.service share/doc/clipweir-fleet/fleet.md \
        share/doc/clipweir-fleet/deploy/Containerfile share/doc/clipweir-fleet/deploy/kubernetes/workers.yaml; do
        [ -s "$work/fleet/usr/$file" ] || fail "$file is not in the package"
    done
    (cd "$work" && PYTHONDONTWRITEBYTECODE=1 PYTHONPATH=$work/fleet/usr/lib/python3/dist-packages \
        "$work/fleet/usr/bin/clipweir-fleet" submit --help) >"$work/fleet-usage" ||
        fail 'the command of the fleet does not run'
    grep -q -- '--again' "$work/fleet-usage" || fail 'the command of the fleet is another one'
}

DESTDIR=$work/root "$cmake" --install "$build" --prefix /usr/local >"$work/install.log" ||
    fail "$(cat "$work/install.log")"
check_tree "$work/root/usr/local"
check_program "$work/root/usr/local"
check_tools "$work/root/usr/local"
check_libraries "$work/root/usr/local"

(cd "$work" && "$cpack" --config "$build/CPackConfig.cmake" -B "$work/package") >"$work/cpack.log" 2>&1 ||
    fail "$(cat "$work/cpack.log")"
expect_packages "clipweir-fleet_${version}_all.deb" "clipweir_${version}_$(dpkg --print-architecture).deb"
package=$work/package/clipweir_${version}_$(dpkg --print-architecture).deb
check_package "$package"
dpkg-deb -x "$package" "$work/unpacked"
check_tree "$work/unpacked/usr"
check_program "$work/unpacked/usr"
check_tools "$work/unpacked/usr"
check_fleet "$work/package/clipweir-fleet_${version}_all.deb"
