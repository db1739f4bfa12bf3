#!/bin/bash
# Inside the guest (started by systemd once the system is up, see vmTest.sh):
# installs the packages and runs the checks in CHECKS, in order, each once.
# Every check is a function that prints what it saw and returns non-zero on
# failure; `check` records "PASS name (seconds) text" or "FAIL ..." in
# checks.txt on the results share, followed by "DONE" at the end.
# To add a check: write a function and put its name in CHECKS where the
# state it needs exists (the service runs from `installed` to `stopped`).
set -u
export PATH=/usr/sbin:/usr/bin:/sbin:/bin
work=$(sed -n 's/.*tarnhold\.vm=\([^ ]*\).*/\1/p' /proc/cmdline)
src=$(cd "$(dirname "$0")/../.." && pwd)
results=/run/tarnhold-vm
mkdir -p "$results"
mount -t 9p -o trans=virtio,version=9p2000.L results "$results" || echo "vm: no results share" >/dev/console
out="$results/checks.txt"
figures="$results/figures.txt"
: >"$out"
: >"$figures"

FIFO=/tmp/qx-usb-daemon-fifo
PIDFILE=/var/run/tarnhold.pid
NODE=/dev/corvanta_hid_backdoor
SIM_SOCKET=/run/tarnhold-sim.sock
SIM_READY=/run/tarnhold-sim.ready
UNIT=tarnhold.service
# The microcontroller's USB identity on the dummy host controller (see usbGadget).
GADGET=/sys/kernel/config/usb_gadget/tarnhold-pic

CHECKS="setup installed startupUpgrade access renumberedNode usbReset usbRenumbered homeUpgrades flashStop fans recordReplay journalOnce crashRestart watchdogRestart
 exposure restartQueued foreignFifo sandboxNeeds stopped purged"
only=$(sed -n 's/.*tarnhold\.vmchecks=\([^ ]*\).*/\1/p' /proc/cmdline)
[ "$only" = all ] || CHECKS=${only//,/ }

check() { # NAME: runs the function NAME and records its result
    local name=$1 text rc t0=$(uptimeS)
    text=$("$name" 2>&1)
    rc=$?
    text=$(echo "$text" | tr '\n' ' ' | sed 's/  */ /g; s/ $//')
    text="($(echo "$t0 $(uptimeS)" | awk '{printf "%.1f", $2 - $1}') s) $text"
    if [ "$rc" = 0 ]; then
        echo "PASS $name $text" | tee -a "$out" >/dev/console
    else
        echo "FAIL $name $text" | tee -a "$out" >/dev/console
        # What the service and the simulator said up to the failure, for a look afterwards.
        journalctl -b -u "$UNIT" -u tarnhold-sim-cuse -o short-monotonic --no-pager >"$results/journal-$name.txt" 2>&1
    fi
}

figure() { echo "$*" >>"$figures"; }

# Polls COMMAND every 0.1 s until it succeeds or SECONDS of real time pass.
waitFor() { # SECONDS COMMAND...
    local end=$(($(date +%s%N) + $1 * 1000000000))
    shift
    until "$@" >/dev/null 2>&1; do
        [ "$(date +%s%N)" -lt "$end" ] || return 1
        sleep 0.1
    done
}

uptimeS() { cut -d' ' -f1 /proc/uptime; }
prop() { systemctl show -P "$1" "$UNIT"; }
ctl() { tarnholdctl --timeout 30 "$@"; }

# One control command to the simulator; its output without the final "ok".
sim() {
    /usr/bin/python3 - "$SIM_SOCKET" "$*" <<'PY'
import socket, sys
s = socket.socket(socket.AF_UNIX)
s.connect(sys.argv[1])
s.sendall((sys.argv[2] + "\n").encode())
data = b""
while not (data.endswith(b"ok\n") or b"error:" in data):
    chunk = s.recv(65536)
    if not chunk:
        break
    data += chunk
text = data.decode(errors="replace")
sys.stdout.write(text[:-3] if text.endswith("ok\n") else text)
sys.exit(0 if text.endswith("ok\n") else 1)
PY
}

# The sysfs folder of the USB device 04D8:003C, the microcontroller's numbers.
picUsb() {
    local d
    for d in /sys/bus/usb/devices/*; do
        [ "$(cat "$d/idVendor" 2>/dev/null)" = 04d8 ] && [ "$(cat "$d/idProduct" 2>/dev/null)" = 003c ] &&
            { echo "$d"; return 0; }
    done
    return 1
}
picUsbGone() { ! picUsb >/dev/null; }
# Its number on the bus, and "bus B device N" for the texts.
picUsbNumber() { cat "$(picUsb)/devnum"; }
picUsbName() { local d=$(picUsb) && echo "bus $(cat "$d/busnum") device $(cat "$d/devnum")"; }
picUsbFile() { local d=$(picUsb) && printf '/dev/bus/usb/%03d/%03d' "$(cat "$d/busnum")" "$(cat "$d/devnum")"; }

# A mark in the kernel log; kernelSince MARK prints the lines from it on.
kmsgMark() { echo "tarnhold-vm: $1" >/dev/kmsg; }
kernelSince() { dmesg | sed -n "/tarnhold-vm: $1\$/,\$p"; }

# The microcontroller as the USB stack sees it: a HID gadget with its vendor
# and product numbers (64-byte vendor-defined reports in and out) on the dummy
# host controller, so that the link's port reset meets a real USB device and
# the kernel's reset of it. Only its USB identity: the service still talks to
# the simulator's node.
usbGadget() {
    local m
    for m in dummy_hcd libcomposite usb_f_hid; do
        modprobe "$m" || { echo "no $m module"; return 1; }
    done
    mountpoint -q /sys/kernel/config || mount -t configfs configfs /sys/kernel/config || return 1
    mkdir -p "$GADGET/strings/0x409" "$GADGET/configs/c.1" "$GADGET/functions/hid.pic" || return 1
    echo 0x04d8 >"$GADGET/idVendor"
    echo 0x003c >"$GADGET/idProduct"
    echo tarnhold-vm >"$GADGET/strings/0x409/manufacturer"
    echo "microcontroller USB identity" >"$GADGET/strings/0x409/product"
    echo 64 >"$GADGET/functions/hid.pic/report_length"
    printf '\x06\x00\xff\x09\x01\xa1\x01\x15\x00\x26\xff\x00\x75\x08\x95\x40\x09\x01\x81\x02\x95\x40\x09\x01\x91\x02\xc0' \
        >"$GADGET/functions/hid.pic/report_desc"
    ln -s "$GADGET/functions/hid.pic" "$GADGET/configs/c.1/" || return 1
    ls /sys/class/udc | head -n1 >"$GADGET/UDC" || { echo "no dummy UDC"; return 1; }
    waitFor 10 picUsb || { echo "the gadget did not enumerate"; dmesg | tail -n 5; return 1; }
    waitFor 10 test -c "$(picUsbFile)" || { echo "no device file for $(picUsbName)"; return 1; }
}

# The simulated appliance and its buses, before anything of tarnhold is installed.
# The simulator runs from the build folder: installing its package costs a
# minute of dpkg in the guest and proves nothing the checks need.
setup() {
    figure "boot: kernel start to checks $(uptimeS) s"
    # man-db's trigger would rebuild its index over the share for minutes.
    rm -f /var/lib/man-db/auto-update
    echo "install picdev /sbin/insmod $work/kmod/picdev.ko" >/etc/modprobe.d/tarnhold-vm.conf
    modprobe cuse || { echo "no cuse module"; return 1; }
    modprobe i2c-stub chip_addr=0x1b || { echo "no i2c-stub module"; return 1; }
    if lsmod | grep -q '^i2c_dev '; then echo "i2c-dev already loaded: the unit's own loading goes unchecked"; return 1; fi
    [ -d /var/crash ] && crashBefore=1 || crashBefore=0
    echo "$crashBefore" >/run/tarnhold-vm-crash-before
    cp "$work/briska-pic-client.hex" /usr/sbin/briska-pic-client.hex
    modprobe picdev || { echo "modprobe picdev failed"; return 1; }
    usbGadget || return 1
    cat >/run/systemd/system/tarnhold-sim-cuse.service <<EOF
[Unit]
Description=simulated appliance on a CUSE device
[Service]
ExecStart=$work/../sim/tarnhold-sim-cuse --control $SIM_SOCKET --module picdev --renumber --ready-file $SIM_READY
EOF
    systemctl daemon-reload
    # The system bus, as on a booted appliance: tarnholdctl status asks systemctl
    # for the service's state, which an account other than root gets through it.
    systemctl start dbus.service || { echo "no D-Bus"; return 1; }
    systemctl start tarnhold-sim-cuse.service || { echo "simulator does not start"; return 1; }
    waitFor 30 test -s "$SIM_READY" -a -c "$NODE" ||
        { echo "no $NODE"; journalctl -b -u tarnhold-sim-cuse -n 5 --no-pager; return 1; }
    waitFor 10 test -S "$SIM_SOCKET" || { echo "no control socket"; return 1; }
    echo "simulator serves $NODE as $(cat "$SIM_READY"), $(grep corvanta /proc/devices | head -n1), i2c-stub at 0x1b,"
    echo "USB device 04d8:003c on dummy_hcd as $(picUsbName)"
}

# dpkg -i starts the service and, the unit being Type=notify, returns only once
# it is ready: after the start-up upgrade, with the request FIFO read.
installed() {
    dpkg -i "$work"/debs/tarnhold_*.deb >/run/dpkg.log 2>&1 || { tail -n 3 /run/dpkg.log; return 1; }
    ctl --timeout 5 raw 200 >/dev/null
    local served=$? enabled active mode
    enabled=$(systemctl is-enabled "$UNIT")
    active=$(systemctl is-active "$UNIT")
    mode=$(stat -c '%A %U:%G' "$FIFO" 2>&1)
    echo "$UNIT $enabled, $active; /var/crash $(stat -c %A /var/crash 2>&1); $FIFO $mode;"
    echo "group tarnhold: $(getent group tarnhold >/dev/null && echo made || echo missing);"
    prop MainPID >/run/tarnhold-vm-pid
    [ "$enabled" = enabled ] && [ "$active" = active ] && [ -d /var/crash ] && [ "$mode" = "prw--w---- root:tarnhold" ] &&
        [ -f /usr/lib/sysusers.d/tarnhold.conf ] && getent group tarnhold >/dev/null ||
        { journalctl -b -u "$UNIT" -n 5 --no-pager -o cat; return 1; }
    [ "$served" = 1 ] || { echo "a request right after dpkg -i returned was not answered (exit $served)"; return 1; }
    echo "a request right after dpkg -i returned was answered;"
    lsmod | grep -q '^i2c_dev ' || { echo "but i2c-dev was not loaded"; return 1; }
}

startupUpgrade() {
    ctl --timeout 150 raw 200 >/dev/null
    local rc=$? answered started ready
    answered=$(uptimeS)
    started=$(prop ExecMainStartTimestampMonotonic)
    ready=$(prop ActiveEnterTimestampMonotonic)
    figure "service start to ready (systemctl start returns): $(echo "$ready $started" | awk '{printf "%.1f", ($1 - $2) / 1e6}') s"
    figure "service start to first answered request: $(echo "$answered $started" | awk '{printf "%.1f", $1 - $2 / 1e6}') s"
    [ "$rc" = 1 ] || { echo "raw 200 exited with $rc, not 1 (code 200 answered with 8)"; return 1; }
    [ "$(prop StatusText)" = "Serving requests" ] || { echo "status line: $(prop StatusText)"; return 1; }
    journalctl -b -u "$UNIT" -o cat | grep -q 'QX_TRACE_PRINTF-Upgrading HID Application' ||
        { echo "no upgrade in the journal"; return 1; }
    local info status
    id thmember >/dev/null 2>&1 || useradd -r -M -s /usr/sbin/nologin -G tarnhold thmember
    info=$(runuser -u thmember -- tarnholdctl --timeout 30 get-info 2>&1) || { echo "get-info as a member: $info"; return 1; }
    status=$(runuser -u thmember -- tarnholdctl --timeout 30 status 2>&1) || { echo "status as a member: $status"; return 1; }
    echo "$status" | grep -q '^systemd: *OK: active (running): Serving requests' || { echo "status: $status"; return 1; }
    echo "upgraded, then as a member of tarnhold: get-info result 0, status all well ($(echo "$status" | grep -c ': *OK') OK)"
}

# Only root and the members of group tarnhold reach the service.
access() {
    id thother >/dev/null 2>&1 || useradd -r -M -s /usr/sbin/nologin thother
    local out rc
    out=$(runuser -u thother -- tarnholdctl --timeout 5 raw 200 2>&1)
    rc=$?
    [ "$rc" = 6 ] && echo "$out" | grep -q 'usermod -aG tarnhold' || { echo "non-member: exit $rc: $out"; return 1; }
    for u in thother nobody; do
        if runuser -u "$u" -- timeout 5 sh -c "head -c 244 /dev/zero >$FIFO" 2>/dev/null; then
            echo "$u wrote a record into the request FIFO"
            return 1
        fi
    done
    echo "a non-member is told how to get in (exit 6); neither it nor nobody can write a record"
}

# The start-up upgrade's USB resets unloaded and loaded picdev; the simulator
# served the node again each time, under another number every other time.
renumberedNode() {
    local numbers
    numbers=$(journalctl -b -u tarnhold-sim-cuse -o cat | sed -n 's/.*: serving .* as //p' | tr '\n' ' ')
    echo "node served as: $numbers; MainPID $(prop MainPID), NRestarts $(prop NRestarts);"
    [ "$(echo "$numbers" | wc -w)" -ge 3 ] && [ "$(echo "$numbers" | tr ' ' '\n' | sed '/^$/d' | sort -u | wc -l)" -ge 2 ] ||
        { echo "the node did not come back under another number"; return 1; }
    [ "$(prop MainPID)" = "$(cat /run/tarnhold-vm-pid)" ] && [ "$(prop NRestarts)" = 0 ] ||
        { echo "the service was restarted"; return 1; }
    ctl get-info >/dev/null || { echo "get-info fails after the reloads"; return 1; }
    echo "get-info served after the reloads"
}

# The kernel's lines from MARK on that name the reset of USB device number N.
kernelReset() { # MARK N
    kernelSince "$1" | grep -E "usb [0-9.-]+: reset [a-z-]+ USB device number $2 using dummy_hcd"
}
# What the service's process PID logged of its USB resets.
resetLines() { journalctl -b _PID="$1" -o cat | grep -c 'resetUsb: resetting PIC'; }

# The link's last resort on the real USB stack, under the unit's sandbox: a
# client's go command (the application restarts), after which the link unloads
# the driver, resets the microcontroller's USB device and loads the driver
# again. The kernel resets that device, which answers the reset's enumeration
# under its number, and the service serves on.
usbReset() {
    local num pid kernel rc resets
    pid=$(prop MainPID)
    resets=$(resetLines "$pid")
    num=$(picUsbNumber) || { echo "no USB device 04d8:003c"; return 1; }
    kmsgMark usbReset
    ctl raw 10 >/dev/null # QX_HID_CMD_GOTO_APPLICATION
    rc=$?
    kernel=$(kernelReset usbReset "$num")
    echo "raw 10 exit $rc; kernel: $kernel;"
    journalctl -b _PID="$pid" -o cat | grep -q 'qxUsbCmd: reset USB device' || { echo "no reset after the go command"; return 1; }
    [ "$(resetLines "$pid")" = $((resets + 1)) ] || { echo "the link found no USB device 04d8:003c to reset"; return 1; }
    journalctl -b _PID="$pid" -o cat | grep 'resetUsb: reset failed' && return 1
    [ -n "$kernel" ] || { echo "the kernel reset no USB device number $num"; kernelSince usbReset | tail -n 5; return 1; }
    # The device answered the reset's enumeration: the same number, configured again.
    [ "$(picUsbNumber)" = "$num" ] && [ "$(cat "$(picUsb)/bConfigurationValue")" = 1 ] ||
        { echo "after the reset: $(picUsbName 2>&1), configuration $(cat "$(picUsb)/bConfigurationValue" 2>&1)"; return 1; }
    echo "$(picUsbName) configured again;"
    ctl raw 200 >/dev/null
    [ $? = 1 ] && [ "$(prop StatusText)" = "Serving requests" ] && [ "$(prop MainPID)" = "$pid" ] ||
        { echo "not serving: $(prop StatusText)"; return 1; }
    echo "serving"
}

# A device that came back under another number (the gadget's controller
# unbound and bound again) is found by the next reset of the same process,
# whose library lists still hold the old number.
usbRenumbered() {
    local pid old new udc kernel rc resets
    pid=$(prop MainPID)
    resets=$(resetLines "$pid")
    [ "$resets" -ge 1 ] || { echo "this process has not reset the USB device before"; return 1; }
    old=$(picUsbNumber) || { echo "no USB device 04d8:003c"; return 1; }
    udc=$(cat "$GADGET/UDC")
    echo >"$GADGET/UDC"
    waitFor 10 picUsbGone || { echo "the device stayed"; return 1; }
    echo "$udc" >"$GADGET/UDC"
    waitFor 10 picUsb && waitFor 10 test -c "$(picUsbFile)" || { echo "the device did not come back"; return 1; }
    new=$(picUsbNumber)
    echo "device number $old, then $new;"
    [ "$new" != "$old" ] || return 1
    kmsgMark usbRenumbered
    ctl raw 10 >/dev/null # QX_HID_CMD_GOTO_APPLICATION
    rc=$?
    kernel=$(kernelReset usbRenumbered "$new")
    echo "raw 10 exit $rc; kernel: $kernel;"
    [ "$(prop MainPID)" = "$pid" ] || { echo "not the same process"; return 1; }
    [ "$(resetLines "$pid")" = $((resets + 1)) ] || { echo "the link found no USB device 04d8:003c to reset"; return 1; }
    [ -n "$kernel" ] || { echo "the kernel reset no USB device number $new"; kernelSince usbRenumbered | tail -n 5; return 1; }
    ctl raw 200 >/dev/null
    [ $? = 1 ] || { echo "not serving afterwards"; return 1; }
    echo "serving"
}

homeUpgrades() {
    head -c 1048576 /dev/urandom >/root/fpga.bin
    cp "$src/tests/data/jbc/idcode.jbc" /root/idcode.jbc
    local t0=$(uptimeS) text
    text=$(TMPDIR=/root tarnholdctl --timeout 200 fpga-upgrade /root/fpga.bin 2>&1) || { echo "fpga: $text"; return 1; }
    figure "FPGA upgrade, 1 MiB: $(echo "$t0 $(uptimeS)" | awk '{printf "%.1f", $2 - $1}') s"
    text=$(sim fpga-compare /root/fpga.bin 2>&1) || { echo "FPGA flash: $text"; return 1; }
    t0=$(uptimeS)
    text=$(TMPDIR=/root tarnholdctl --timeout 200 cpld-upgrade /root/idcode.jbc 2>&1) || { echo "cpld: $text"; return 1; }
    figure "CPLD upgrade: $(echo "$t0 $(uptimeS)" | awk '{printf "%.1f", $2 - $1}') s"
    text=$(sim cpld-compare /root/idcode.jbc 2>&1) || { echo "CPLD flash: $text"; return 1; }
    echo "FPGA and CPLD upgraded from /root with the reply FIFO in /root; flash equal to both files"
}

# tarnhold's logind lock, as systemd-inhibit lists it.
tarnholdLock() { systemd-inhibit --list --no-legend --no-pager 2>/dev/null | grep tarnhold; }

# systemctl reboot as an account that may not override locks, on a terminal.
rebootAsOther() { runuser -u thother -- script -qec "systemctl reboot" /dev/null 2>&1 | tr -d '\r'; return "${PIPESTATUS[0]}"; }

# An FPGA upgrade from FILE in the background; its exit status goes to /run/NAME.rc.
fpgaInBackground() { # NAME FILE
    (TMPDIR=/root tarnholdctl --timeout 600 fpga-upgrade "$2" >"/run/$1.out" 2>&1; echo $? >"/run/$1.rc") &
}

# Waits for the background upgrade NAME and checks that it succeeded and the FPGA holds FILE.
fpgaWhole() { # NAME FILE
    waitFor 600 test -s "/run/$1.rc" || { echo "$1: the upgrade did not end"; return 1; }
    [ "$(cat "/run/$1.rc")" = 0 ] || { echo "$1: tarnholdctl exit $(cat "/run/$1.rc"): $(cat "/run/$1.out")"; return 1; }
    sim fpga-compare "$2" >/dev/null || { echo "$1: the FPGA is not the file"; return 1; }
}

deferrals() { journalctl -b -u "$UNIT" -o cat | grep -c 'signal 15: stop deferred until the FPGA flash has ended'; }

# A stop during an FPGA upgrade waits for it: systemctl restart and dpkg -i of
# the same package (whose postinst restarts the service) end with the FPGA
# equal to the file. Meanwhile the lock is held, and a reboot asked for by an
# account without the right to override it is refused for it; the lock goes
# with the flash. systemctl looks at the locks itself only on a terminal (a
# pseudo-terminal here); the account then still lacks the right to reboot, so
# nothing goes through afterwards either (root's own reboot would end this
# machine).
flashStop() {
    id thother >/dev/null 2>&1 || useradd -r -M -s /usr/sbin/nologin thother
    head -c 1048576 /dev/urandom >/root/fpga-stop.bin
    local t0 text lock pid
    pid=$(prop MainPID)
    fpgaInBackground restart /root/fpga-stop.bin
    waitFor 60 tarnholdLock || { echo "no inhibitor lock during the upgrade: $(journalctl -b -u "$UNIT" -o cat | grep -i inhibitor)"; return 1; }
    lock=$(tarnholdLock)
    grep -q 'shutdown:sleep' <<<"$lock" && grep -q block <<<"$lock" || { echo "lock: $lock"; return 1; }
    text=$(rebootAsOther) && { echo "reboot went through: $text"; return 1; }
    grep -q 'inhibited' <<<"$text" || { echo "reboot refused, but not for the lock: $text"; return 1; }
    echo "lock held: $(tr -s ' ' <<<"$lock");"
    t0=$(uptimeS)
    systemctl restart "$UNIT" || { echo "restart failed"; return 1; }
    figure "systemctl restart during a 1 MiB FPGA upgrade (SIGTERM after its lock was taken) took: $(echo "$t0 $(uptimeS)" | awk '{printf "%.1f", $2 - $1}') s"
    fpgaWhole restart /root/fpga-stop.bin || return 1
    [ "$(prop MainPID)" != "$pid" ] || { echo "not restarted"; return 1; }
    [ "$(deferrals)" = 1 ] || { echo "no deferral in the log"; return 1; }
    tarnholdLock >/dev/null && { echo "the lock stayed after the flash"; return 1; }
    text=$(rebootAsOther)
    grep -q 'inhibited' <<<"$text" && { echo "reboot still inhibited after the flash: $text"; return 1; }
    echo "restart waited for the flash, FPGA equal to the file, lock released (reboot now: $text);"

    # 16 MiB: dpkg reaches its restart (about 110 s in) well inside the flash.
    head -c 16777216 /dev/urandom >/root/fpga-dpkg.bin
    fpgaInBackground dpkg /root/fpga-dpkg.bin
    waitFor 60 tarnholdLock || { echo "no lock during the second upgrade"; return 1; }
    t0=$(uptimeS)
    dpkg -i "$work"/debs/tarnhold_*.deb >/run/dpkg-again.log 2>&1 || { tail -n 3 /run/dpkg-again.log; return 1; }
    figure "dpkg -i of the same package during a 16 MiB FPGA upgrade: $(echo "$t0 $(uptimeS)" | awk '{printf "%.1f", $2 - $1}') s"
    fpgaWhole dpkg /root/fpga-dpkg.bin || return 1
    [ "$(deferrals)" = 2 ] || { echo "dpkg's restart came after the flash: nothing deferred"; return 1; }
    echo "dpkg -i waited for the flash too, FPGA equal to the file;"

    # The journal explains the events; the history has both flashes, ended well.
    journalctl -b -x -u "$UNIT" MESSAGE_ID=f5af6997ecea46e4820dfe44735be2a3 --no-pager |
        grep -q "tarnhold has written the appliance's FPGA from /root/fpga-stop.bin" ||
        { echo "journalctl -x shows no catalog text: $(journalctl -b -x -u "$UNIT" MESSAGE_ID=f5af6997ecea46e4820dfe44735be2a3 --no-pager | tail -n 5)"; return 1; }
    text=$(tarnholdctl history | grep -c 'FPGA .* ok .* /root/fpga-\(stop\|dpkg\).bin')
    [ "$text" = 2 ] || { echo "history: $(tarnholdctl history)"; return 1; }
    figure "flash history: $(tarnholdctl history | wc -l) entries, $(stat -c %s /var/lib/tarnhold/flash-history) bytes"
    echo "journalctl -x explains the events; the history holds both flashes"
}

fans() {
    local reg4 reg6
    ctl fan set 12 >/dev/null || { echo "fan set 12 failed"; return 1; }
    reg4=$(i2cget -y 0 0x1b 4) && reg6=$(i2cget -y 0 0x1b 6) || { echo "i2cget failed"; return 1; }
    echo "fan set 12: control $reg4, level $reg6;"
    [ $((reg4 & 1)) = 0 ] && [ "$reg6" = 0x0c ] || return 1
    ctl fan set auto >/dev/null || { echo "fan set auto failed"; return 1; }
    reg4=$(i2cget -y 0 0x1b 4)
    echo "fan set auto: control $reg4"
    [ "$reg4" = 0x21 ] || return 1
    [ "$(ctl --json fan | grep -o '"mode":"[a-z]*"')" = '"mode":"automatic"' ] || { echo "fan reads back otherwise"; return 1; }
}

# Recording turned on by a drop-in, as an integrator does: what the service did
# under the unit, on the real device node, replays to its end on the desk's build.
recordReplay() {
    local rec=/var/log/tarnhold/record.trn dropin=/run/systemd/system/$UNIT.d records last out
    mkdir -p "$dropin"
    printf '[Service]\nEnvironment=TARNHOLD_RECORD=%s TARNHOLD_RECORD_DATA=1\n' "$rec" >"$dropin/record.conf"
    systemctl daemon-reload
    systemctl restart "$UNIT" || { echo "no start with recording on"; return 1; }
    ctl get-info >/dev/null && ctl fan >/dev/null && ctl cpld-info >/dev/null && ctl file-transfer 65536 >/dev/null ||
        { echo "requests failed"; return 1; }
    # A pass-through whose block names an address the client chose (0x10): recorded, never read, under the
    # unit's system-call filter; the next request on the node sends the driver's read of it out.
    local pid=$(prop MainPID)
    ctl raw 38 0x0a 0x48 0x58 0x80 0 0 0 0 0 0x10 >/dev/null
    ctl get-info >/dev/null && [ "$(prop MainPID)" = "$pid" ] || { echo "the service did not survive a wild address"; return 1; }
    systemctl stop "$UNIT"
    rm -rf "$dropin"
    systemctl daemon-reload
    systemctl start "$UNIT"
    tarnholdctl trace "$rec" >/run/record.txt || { echo "trace refuses the recording"; return 1; }
    records=$(( $(wc -l </run/record.txt) - 1 ))
    last=$(tail -1 /run/record.txt)
    # The fan controller's bus and the driver's read of the transfer buffer are in it too.
    grep -q 'ioctl /dev/i2c-0 I2C_SMBUS' /run/record.txt && grep -q ' mem .*PIC_HID_FILE_TRANSFER_TEST' /run/record.txt ||
        { echo "no I2C transfer or no memory read recorded"; return 1; }
    grep -q ' mem .*0x10.*unreadable' /run/record.txt || { echo "the wild address is not recorded unreadable"; grep ' mem ' /run/record.txt | tail -2; return 1; }
    [ "$(stat -c %a "$rec")" = 600 ] || { echo "recording mode $(stat -c %a "$rec")"; return 1; }
    out=$("$work/../sim/tarnhold-sim" --replay "$rec" 2>&1) || { echo "replay: $out"; return 1; }
    figure "recording under the unit: $records exchanges, $(stat -c %s "$rec") bytes; $(head -1 <<<"$out")"
    echo "$records exchanges recorded ($(stat -c %s "$rec") bytes), the last: $last; $out"
    grep -q "all $records exchanges matched" <<<"$out" && grep -q "signal 15" <<<"$last"
}

# Every line once, through syslog with its priority; none copied from standard error.
journalOnce() {
    journalctl -b -u "$UNIT" -o json --output-fields=MESSAGE,PRIORITY,_TRANSPORT,SYSLOG_IDENTIFIER |
        /usr/bin/python3 -c '
import json, sys, collections
lines = [json.loads(l) for l in sys.stdin if l.strip()]
logged = [l for l in lines if l.get("_TRANSPORT") == "syslog"]
copies = [l for l in lines if l.get("_TRANSPORT") == "stdout" and "] <" in str(l.get("MESSAGE"))]
prefixed = [l for l in logged if str(l.get("MESSAGE")).startswith("tarnhold[")]
def prio(text):
    return {l["PRIORITY"] for l in logged if text in str(l.get("MESSAGE"))}
print(f"{len(logged)} syslog lines, {len(copies)} copies from standard error, {len(prefixed)} with the prefix inside;")
ok = logged and not copies and not prefixed
for text, want in (("QX_TRACE_PRINTF-Upgrading HID Application", "6"),
                   ("qxLoaderVerifyApplicationCode: Verification Success!", "5")):
    got = prio(text)
    print(f"\"{text}\" priority {sorted(got)};")
    ok = ok and got == {want}
sys.exit(0 if ok else 1)'
}

crashRestart() {
    local pid new exited restarted
    pid=$(prop MainPID)
    [ "$pid" -gt 0 ] || { echo "no daemon running"; return 1; }
    kill -SEGV "$pid"
    waitFor 20 test -e "/var/crash/tarnhold-$pid-11.log" || { echo "no crash log for $pid"; return 1; }
    # The FIFO is gone until the restarted daemon makes it again.
    waitFor 10 test ! -e "$FIFO" || { echo "the FIFO stayed"; return 1; }
    waitFor 30 test -p "$FIFO" || { echo "not running again"; return 1; }
    new=$(prop MainPID)
    [ "$new" -gt 0 ] && [ "$new" != "$pid" ] || { echo "MainPID $new"; return 1; }
    # From the crashed process's end to the new one's start, by systemd's own clock: RestartSec
    # and the stop and start around it (up to 2 s more in an emulated guest).
    exited=$(journalctl -b -u "$UNIT" -o json --output-fields=MESSAGE | grep -E 'Main process exited|Deactivated successfully' | tail -n 1 |
        sed -n 's/.*"__MONOTONIC_TIMESTAMP" *: *"\([0-9]*\)".*/\1/p')
    restarted=$(prop ExecMainStartTimestampMonotonic)
    local ms=$(((restarted - exited) / 1000))
    figure "crashed process's end to the restarted one's start: $ms ms (RestartSec 5 s)"
    echo "crash log /var/crash/tarnhold-$pid-11.log, FIFO removed, running again as $new $ms ms after the crash"
    [ -n "$exited" ] && [ "$ms" -ge 5000 ] && [ "$ms" -le 7000 ] || { echo "not within RestartSec"; return 1; }
    ctl raw 200 >/dev/null
    [ $? = 1 ] || { echo "no answer after the restart"; return 1; }
}

restartedFrom() { [ "$(prop MainPID)" != "$1" ] && [ "$(systemctl is-active "$UNIT")" = active ]; }

# A daemon that stops answering (SIGSTOP stands in for a hang in a driver call)
# is aborted by the watchdog and started again.
watchdogRestart() {
    local pid new t0=$(uptimeS)
    pid=$(prop MainPID)
    kill -STOP "$pid"
    # WatchdogSec 30 s, TimeoutAbortSec 10 s, RestartSec 5 s, and the new start-up.
    waitFor 120 restartedFrom "$pid" ||
        { echo "not restarted: MainPID $(prop MainPID), $(systemctl is-active "$UNIT")"; return 1; }
    new=$(prop MainPID)
    figure "SIGSTOP to running again (watchdog): $(echo "$t0 $(uptimeS)" | awk '{printf "%.1f", $2 - $1}') s"
    journalctl -b -u "$UNIT" -o cat | grep -q -i 'watchdog timeout' || { echo "restarted, but not by the watchdog"; return 1; }
    ctl raw 200 >/dev/null
    [ $? = 1 ] || { echo "no answer after the restart"; return 1; }
    echo "stopped daemon $pid aborted by the watchdog, running again as $new and answering"
}

exposure() {
    local e
    e=$(systemd-analyze security "$UNIT" 2>&1 | sed -n 's/.*Overall exposure level for tarnhold.service: \([0-9.]*\).*/\1/p')
    figure "systemd-analyze security exposure: $e"
    echo "exposure $e"
    awk -v e="$e" 'BEGIN { exit !(e != "" && e <= 3.0) }'
}

# A client blocked on the request FIFO while the service restarts (its write waits for a reader) is
# answered by the next start: the FIFO stays at a stop.
restartQueued() {
    systemctl stop "$UNIT"
    [ -p "$FIFO" ] || { echo "the FIFO went with the stop"; return 1; }
    /usr/bin/python3 - "$FIFO" >/run/queued.txt 2>&1 <<'PY' &
import os, select, struct, sys
reply = "/run/queued-reply"
os.path.exists(reply) and os.unlink(reply)
os.mkfifo(reply, 0o600)
r = os.open(reply, os.O_RDONLY | os.O_NONBLOCK)
record = reply.encode().ljust(100, b"\0") + struct.pack("<i", 0) + bytes([200]) + bytes(68) + bytes(69) + bytes(2)
w = os.open(sys.argv[1], os.O_WRONLY)  # blocks until the service reads the FIFO again
os.write(w, record)
data = b""
while len(data) < 244 and select.select([r], [], [], 60)[0]:
    data += os.read(r, 244 - len(data))
print("result", struct.unpack_from("<i", data, 100)[0] if len(data) == 244 else "none")
PY
    local writer=$!
    sleep 1
    systemctl start "$UNIT" || { echo "no start"; return 1; }
    wait "$writer"
    echo "a request written while the service was stopped: $(cat /run/queued.txt)"
    grep -q '^result 8$' /run/queued.txt
}

# While the service is stopped, an account outside the group puts a FIFO of its own at the path:
# tarnholdctl sends it nothing, and the next start moves it aside.
foreignFifo() {
    systemctl stop "$UNIT"
    rm -f "$FIFO"
    runuser -u thother -- mkfifo -m 0666 "$FIFO" || { echo "no FIFO made"; return 1; }
    runuser -u thother -- sh -c "cat $FIFO >/tmp/thother-caught" &
    local catcher=$! out rc
    sleep 0.5
    out=$(runuser -u thmember -- tarnholdctl --timeout 5 raw 200 2>&1)
    rc=$?
    kill "$catcher" 2>/dev/null
    wait "$catcher" 2>/dev/null
    echo "member's request into thother's FIFO: exit $rc ($out); caught $(stat -c %s /tmp/thother-caught) bytes;"
    [ "$rc" = 7 ] && [ ! -s /tmp/thother-caught ] || return 1
    systemctl start "$UNIT" || { echo "no start"; return 1; }
    journalctl -b -u "$UNIT" -o cat | grep -q "found a FIFO owned by uid $(id -u thother) (mode 0666), not the service's own FIFO; moved to" ||
        { echo "no line about the FIFO moved aside"; return 1; }
    ctl raw 200 >/dev/null
    [ $? = 1 ] && [ "$(stat -c %U "$FIFO")" = root ] || { echo "not served by its own FIFO again"; return 1; }
    echo "moved aside at the start, served again"
}

# Each sandbox line the unit keeps, taken away by a drop-in: what breaks is what its comment says.
sandboxNeeds() {
    local dropin=/run/systemd/system/$UNIT.d/less.conf since
    mkdir -p "${dropin%/*}"
    id thother >/dev/null 2>&1 || useradd -r -M -s /usr/sbin/nologin thother
    id thmember >/dev/null 2>&1 || useradd -r -M -s /usr/sbin/nologin -G tarnhold thmember
    # NAME, drop-in text, what to do, the journal line that says what broke
    local -a cases=(
        "CAP_CHOWN|CapabilityBoundingSet=~CAP_CHOWN|fresh|cannot set its group and mode: Operation not permitted"
        "CAP_DAC_OVERRIDE|CapabilityBoundingSet=~CAP_DAC_OVERRIDE|reply|fdClient: -1 - 'Permission denied'"
        "/tmp|ReadWritePaths=\nReadWritePaths=/run -/var/crash|start|cannot set its group and mode: Read-only file system"
        "/run|ReadWritePaths=\nReadWritePaths=/tmp -/var/crash\nReadOnlyPaths=/run|start|cannot open pid file /var/run/tarnhold.pid: Read-only file system"
        "/var/log/tarnhold|ReadWritePaths=\nReadWritePaths=/tmp /run\nEnvironment=TARNHOLD_RECORD=/var/log/tarnhold/r.trn|start|recording to /var/log/tarnhold/r.trn not started: Read-only file system"
        "/dev/i2c-0|DeviceAllow=\nDeviceAllow=char-corvanta_hid_backdoor rw|fan|*****Error***** opening device node"
        "char-corvanta_hid_backdoor|DeviceAllow=\nDeviceAllow=/dev/i2c-0 rw|nostart|qxUsbInit: Failed to open '/dev/corvanta_hid_backdoor' - 'Operation not permitted'"
        "write to char-usb_device|DeviceAllow=\nDeviceAllow=char-corvanta_hid_backdoor rw\nDeviceAllow=/dev/i2c-0 rw\nDeviceAllow=char-usb_device r|reset|resetUsb: reset failed - 'Operation not permitted'"
    )
    local entry name text action line ok=1
    for entry in "${cases[@]}"; do
        IFS='|' read -r name text action line <<<"$entry"
        printf '[Service]\n%b\n' "$text" >"$dropin"
        systemctl daemon-reload
        since=$(date '+%Y-%m-%d %H:%M:%S')
        sleep 1
        case $action in
        start) systemctl restart "$UNIT" ;;
        fresh) systemctl stop "$UNIT"; rm -f "$FIFO"; systemctl restart "$UNIT" ;;
        nostart) systemctl restart --no-block "$UNIT"; waitFor 30 sh -c "journalctl -u $UNIT --since '$since' -o cat | grep -q 'qxUsbInit: Failed'" ;;
        reply) systemctl restart "$UNIT" && runuser -u thmember -- tarnholdctl --timeout 3 raw 200 >/dev/null 2>&1 ;;
        fan) systemctl restart "$UNIT" && ctl --timeout 10 fan >/dev/null 2>&1 ;;
        reset) systemctl restart "$UNIT" && ctl raw 10 >/dev/null 2>&1 ;; # QX_HID_CMD_GOTO_APPLICATION
        esac
        if journalctl -u "$UNIT" --since "$since" -o cat | grep -q -F -- "$line"; then
            echo "without $name: \"$line\";"
        else
            echo "without $name: not the expected \"$line\" ($(journalctl -u "$UNIT" --since "$since" -o cat | grep -v '^Start\|^Stop' | tail -n 2 | tr '\n' ' '));"
            ok=0
        fi
        rm -f "$dropin"
        systemctl daemon-reload
        systemctl stop "$UNIT"
        [ -p "$FIFO" ] && [ "$(stat -c %U "$FIFO")" = root ] || rm -f "$FIFO"
    done
    systemctl start "$UNIT" || { echo "no start with the unit as shipped"; return 1; }
    [ "$ok" = 1 ]
}

stopped() {
    systemctl stop "$UNIT"
    local result status
    result=$(prop Result)
    status=$(prop ExecMainStatus)
    echo "Result $result, status $status, FIFO $([ -p "$FIFO" ] && echo present || echo gone), pid file $([ -e "$PIDFILE" ] && echo present || echo gone)"
    [ "$result" = success ] && [ "$status" = 0 ] && [ -p "$FIFO" ] && [ ! -e "$PIDFILE" ]
}

purged() {
    systemctl start "$UNIT"
    waitFor 30 test -p "$FIFO"
    dpkg --purge tarnhold >/run/dpkg-purge.log 2>&1 || { tail -n 3 /run/dpkg-purge.log; return 1; }
    local left=
    pgrep -x tarnhold >/dev/null && left="$left a running daemon,"
    [ "$(systemctl is-active "$UNIT")" = active ] && left="$left an active service,"
    systemctl is-enabled "$UNIT" >/dev/null 2>&1 && left="$left an enabled service,"
    for f in /usr/sbin/tarnhold /usr/bin/tarnholdctl /usr/lib/systemd/system/tarnhold.service \
        /etc/systemd/system/multi-user.target.wants/tarnhold.service /etc/systemd/system/tarnhold.service \
        "$FIFO" "$PIDFILE" /run/tarnhold.pid /usr/lib/tmpfiles.d/tarnhold.conf /usr/lib/sysusers.d/tarnhold.conf; do
        [ -e "$f" ] || [ -L "$f" ] && left="$left $f,"
    done
    ls /var/crash/tarnhold-* >/dev/null 2>&1 && left="$left crash logs,"
    [ -e /var/log/tarnhold ] && left="$left /var/log/tarnhold,"
    [ -e /var/lib/tarnhold ] && left="$left the flash history /var/lib/tarnhold,"
    [ "$(cat /run/tarnhold-vm-crash-before)" = 0 ] && [ -e /var/crash ] && left="$left /var/crash,"
    ls /var/lib/systemd/deb-systemd-helper-enabled/ 2>/dev/null | grep -q tarnhold && left="$left deb-systemd-helper state,"
    dpkg -s tarnhold >/dev/null 2>&1 && left="$left the package's dpkg record,"
    [ -z "$left" ] || { echo "left behind:$left"; return 1; }
    echo "stopped, disabled, nothing left"
}

for name in $CHECKS; do
    check "$name"
done
echo DONE >>"$out"
# For a look afterwards (VM_KEEP=1): the service's and the simulator's journal, the kernel log.
journalctl -b -u "$UNIT" -u tarnhold-sim-cuse -o short-monotonic --no-pager >"$results/journal.txt" 2>&1
dmesg >"$results/dmesg.txt" 2>&1
sync
exit 0
