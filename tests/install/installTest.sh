#!/usr/bin/env bash
# What an integrator gets: `install` stages `cmake --install` and checks the
# files, the systemd unit, the manual pages and the client library's pkg-config
# use; `package` builds the Debian packages and checks they hold the same files,
# split so the appliance's package stands alone. Installed on a real system,
# they are run by the guest test (tests/vm).
# Usage: installTest.sh install|package BUILD_DIR
set -euo pipefail
mode=$1
build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

expected="usr/bin/tarnhold-sim
usr/bin/tarnhold-sim-cuse
usr/bin/tarnholdctl
usr/include/tarnhold/tarnholdClient.h
usr/include/tarnhold/usbDaemonRequest.h
usr/lib/libtarnholdclient.a
usr/lib/pkgconfig/tarnhold-client.pc
usr/lib/systemd/catalog/tarnhold.catalog
usr/lib/systemd/system/tarnhold.service
usr/lib/sysusers.d/tarnhold.conf
usr/lib/tmpfiles.d/tarnhold.conf
usr/sbin/tarnhold
usr/share/man/man1/tarnhold-sim-cuse.1
usr/share/man/man1/tarnhold-sim.1
usr/share/man/man1/tarnholdctl.1
usr/share/man/man8/tarnhold.8"

stage="$work/stage"
DESTDIR="$stage" cmake --install "$build" --prefix /usr >"$work/install.log"
files=$(cd "$stage" && find . -type f | sed 's|^\./||' | sort)
[ "$files" = "$expected" ] || fail "installed files differ: $(diff <(echo "$expected") <(echo "$files"))"

if [ "$mode" = install ]; then
    # The manual pages format without a warning.
    for page in "$stage"/usr/share/man/man*/*; do
        out=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
        [ -z "$out" ] || fail "$page: $out"
        out=$(groff -ww -t -man -z "$page" 2>&1)
        [ -z "$out" ] || fail "$page: $out"
    done
    # The unit as installed, its ExecStart pointed at the staged daemon, with
    # its documentation found in the staged pages.
    unit="$stage/usr/lib/systemd/system/tarnhold.service"
    grep -qx 'ExecStart=/usr/sbin/tarnhold --fifo-group tarnhold' "$unit" || fail "ExecStart is not /usr/sbin/tarnhold --fifo-group tarnhold"
    grep -qx 'g tarnhold -' "$stage/usr/lib/sysusers.d/tarnhold.conf" || fail "the sysusers file does not make group tarnhold"
    if grep -Eq '^(BindsTo|Requisite)=' "$unit"; then fail "the unit is bound to something"; fi
    if grep -Eq '^PrivateTmp=(yes|true)' "$unit"; then fail "the request FIFO must live in the shared /tmp"; fi
    # Ready only when it serves, and restarted when its keep-alives stop.
    for line in Type=notify NotifyAccess=main; do grep -qx "$line" "$unit" || fail "the unit lacks $line"; done
    grep -Eqx 'WatchdogSec=[1-9][0-9]*' "$unit" || fail "the unit has no watchdog"
    # A stop waits for a flash: time for the longest, the SIGTERM to the service alone, and its history kept.
    for line in TimeoutStopSec=480 KillMode=mixed StateDirectory=tarnhold; do
        grep -qx "$line" "$unit" || fail "the unit lacks $line"
    done
    # The journal's catalog of the flash events is one journalctl takes: every id it names, explained.
    catalog="$stage/usr/lib/systemd/catalog/tarnhold.catalog"
    ids=$(grep -o '"[0-9a-f]\{32\}"' "$(dirname "$0")/../../platform/flashGuard.cpp" | tr -d '"')
    [ "$(echo "$ids" | wc -w)" = 4 ] || fail "not four event ids in flashGuard.cpp: $ids"
    for id in $ids; do
        grep -qx -- "-- $id" "$catalog" || fail "the catalog does not explain $id"
    done
    sed "s|^ExecStart=/usr/sbin/tarnhold|ExecStart=$stage/usr/sbin/tarnhold|" "$unit" >"$work/tarnhold.service"
    out=$(MANPATH="$stage/usr/share/man" systemd-analyze verify "$work/tarnhold.service" 2>&1) || fail "verify: $out"
    [ -z "$out" ] || fail "verify: $out"
    exposure=$(systemd-analyze security --offline=true "$work/tarnhold.service" 2>&1 |
        sed -n 's/.*Overall exposure level for tarnhold.service: \([0-9.]*\).*/\1/p')
    awk -v e="$exposure" 'BEGIN { exit !(e != "" && e <= 3.0) }' || fail "exposure $exposure above 3.0"
    # A program of its own sends a request through the installed client library.
    cat >"$work/client.cpp" <<'CPP'
#include "tarnholdClient.h"
#include <cerrno>
int main()
{
    usbDaemonRequest record = {};
    record.cmd[0] = 200;
    return tarnholdClientExchange(record, {.timeoutMs = 1, .requestFifo = "/nonexistent"}) == -ENOENT ? 0 : 1;
}
CPP
    flags=$(PKG_CONFIG_PATH="$stage/usr/lib/pkgconfig" pkg-config --cflags --libs tarnhold-client)
    # shellcheck disable=SC2086
    g++ -std=c++20 -o "$work/client" "$work/client.cpp" $flags || fail "the client library does not build a program"
    "$work/client" || fail "the installed client library does not report a missing daemon"
    echo "install: $(echo "$files" | wc -l) files, unit verified, exposure $exposure, pages clean, client built"
else
    cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/deb" >"$work/cpack.log" 2>&1 || {
        cat "$work/cpack.log" >&2
        fail "cpack"
    }
    # Three packages that hold together what the install holds; the appliance's
    # own pulls in neither umockdev nor GLib, and sets the service up and down.
    held=
    for pkg in tarnhold tarnhold-sim tarnhold-dev; do
        deb=$(ls "$work"/deb/"$pkg"_*.deb 2>/dev/null) || fail "no package $pkg"
        [ "$(dpkg-deb -f "$deb" Package)" = "$pkg" ] || fail "package name of $deb"
        held="$held$(dpkg-deb -c "$deb" | awk -v p="$pkg" '$1 !~ /^d/ { sub(/^\.\//, "", $6); print $6 " " p }')
"
    done
    [ "$(echo "$held" | sed '/^$/d' | cut -d' ' -f1 | sort)" = "$expected" ] ||
        fail "package files differ: $(diff <(echo "$expected") <(echo "$held" | sed '/^$/d' | cut -d' ' -f1 | sort))"
    for f in usr/sbin/tarnhold:tarnhold usr/bin/tarnholdctl:tarnhold usr/lib/systemd/system/tarnhold.service:tarnhold \
        usr/share/man/man8/tarnhold.8:tarnhold usr/share/man/man1/tarnholdctl.1:tarnhold \
        usr/bin/tarnhold-sim:tarnhold-sim usr/bin/tarnhold-sim-cuse:tarnhold-sim usr/lib/libtarnholdclient.a:tarnhold-dev; do
        grep -qx "${f%%:*} ${f#*:}" <<<"$held" || fail "${f%%:*} is not in ${f#*:}"
    done
    deb=$(ls "$work"/deb/tarnhold_*.deb)
    if grep -Eq 'umockdev|glib' <<<"$(dpkg-deb -f "$deb" Depends)"; then fail "tarnhold depends on $(dpkg-deb -f "$deb" Depends)"; fi
    dpkg-deb -e "$deb" "$work/control"
    for script in postinst prerm postrm; do
        [ -x "$work/control/$script" ] || fail "tarnhold has no $script"
        sh -n "$work/control/$script" || fail "$script does not parse"
    done
    grep -q 'deb-systemd-helper.* enable tarnhold.service' "$work/control/postinst" || fail "postinst does not enable the service"
    grep -q 'deb-systemd-invoke stop tarnhold.service' "$work/control/prerm" || fail "prerm does not stop the service"
    grep -q 'deb-systemd-helper purge tarnhold.service' "$work/control/postrm" || fail "postrm does not forget the service on purge"
    echo "package: $(cd "$work/deb" && echo *.deb) hold the $(echo "$expected" | wc -l) installed files"
fi
