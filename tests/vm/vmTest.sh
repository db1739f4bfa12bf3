#!/usr/bin/env bash
# The installed packages on a real kernel and a real init: builds the Debian
# packages and the picdev stand-in module, boots the distribution's kernel
# under QEMU with systemd as PID 1 on this machine's root file system (shared
# read-only, under a tmpfs overlay), runs guestChecks.sh there once the system
# is up, and prints each check's result. Fails when a check fails, when the
# guest gives no result, or when something it needs is missing (named, with
# its Debian package).
# Usage: vmTest.sh SOURCE_DIR BUILD_DIR
# Environment: VM_TIMEOUT (seconds for the whole boot, default 1800),
# VM_KEEP=1 keeps BUILD_DIR/vm (console log, results) for a look afterwards,
# VM_CHECKS="setup installed ..." runs only these checks (while writing one).
set -euo pipefail
src=$(cd "$1" && pwd)
build=$(cd "$2" && pwd)
timeout=${VM_TIMEOUT:-1800}
started=$(date +%s)
fail() { echo "FAIL: $*"; exit 1; }

# What the test needs, with the package that brings it.
need() { # PACKAGE TEST...
    local pkg=$1
    shift
    "$@" >/dev/null 2>&1 || fail "missing package $pkg (bash scripts/install-deps.sh installs it)"
}
kver=
for vmlinuz in /boot/vmlinuz-*; do
    v=${vmlinuz#/boot/vmlinuz-}
    [ -d "/lib/modules/$v/kernel" ] && kver=$v
done
[ -n "$kver" ] || fail "missing package linux-image-amd64 (no /boot/vmlinuz-VERSION with /lib/modules/VERSION)"
need file command -v file
need linux-headers-amd64 test -f "/lib/modules/$kver/build/Makefile"
need qemu-system-x86 command -v qemu-system-x86_64
need busybox-static sh -c 'file -L /bin/busybox | grep -q "statically linked"'
need cpio command -v cpio
need i2c-tools command -v i2cget
need fuse3 command -v fusermount3
need libfuse3-dev test -f /usr/include/fuse3/cuse_lowlevel.h
need srecord command -v srec_cat
need python3 test -x /usr/bin/python3
need dpkg-dev command -v dpkg-shlibdeps

# Everything the guest reads lives under the build folder: the guest's /tmp is its own.
work="$build/vm"
rm -rf "$work"
mkdir -p "$work/results" "$work/debs" "$work/kmod" "$work/initramfs/bin" "$work/initramfs/lib"
cleanup() { [ "${VM_KEEP:-}" = 1 ] || rm -rf "$work"; }
trap cleanup EXIT

# The packages, as an integrator builds them.
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/cpack" >"$work/cpack.log" 2>&1 ||
    { cat "$work/cpack.log"; fail "cpack"; }
mv "$work"/cpack/*.deb "$work/debs/"
for pkg in tarnhold tarnhold-sim tarnhold-dev; do
    ls "$work/debs/${pkg}"_*.deb >/dev/null 2>&1 || fail "cpack made no package $pkg"
done

# The stand-in for the picdev driver, built for the guest's kernel.
[ -f "$src/sim/kmod/build-picdev.sh" ] || fail "no sim/kmod/build-picdev.sh"
ko=$(bash "$src/sim/kmod/build-picdev.sh" "$work/kmod" "$kver" 2>"$work/kmod.log") ||
    { cat "$work/kmod.log"; fail "picdev module does not build against linux-headers-$kver"; }
[ "$ko" = "$work/kmod/picdev.ko" ] || fail "picdev module built as $ko"

# The microcontroller's USB identity in the guest, a HID gadget on the dummy
# host controller, needs these modules of the guest's kernel (modprobe there).
for m in dummy_hcd libcomposite usb_f_hid; do
    modinfo -k "$kver" -n "$m" >/dev/null 2>&1 || fail "module $m missing from linux-image-$kver"
done

# The application the appliance's firmware file holds: 512 bytes at the start
# of the flash range. The simulated microcontroller starts with another one.
srec_cat -generate 0x1D010000 0x1D010200 -repeat-string "tarnhold guest application " \
    -o "$work/briska-pic-client.hex" -intel -address-length=4 -output-block-size=16

# A tiny initramfs (the share read through a cache: nothing on it changes while the guest runs): 9p and overlay modules, then the machine's root read-only
# under a tmpfs overlay, and systemd.
initmods="virtio_ring virtio virtio_pci_legacy_dev virtio_pci_modern_dev virtio_pci 9pnet netfs fscache 9p 9pnet_virtio overlay"
for m in $initmods; do
    ko=$(find "/lib/modules/$kver/kernel" -name "$m.ko" | head -n1)
    [ -n "$ko" ] || fail "module $m.ko missing from linux-image-$kver"
    cp "$ko" "$work/initramfs/lib/"
done
cp /bin/busybox "$work/initramfs/bin/busybox"
tmpBinds=
for d in "$src" "$build"; do
    case "$d" in /tmp/*) tmpBinds="$tmpBinds $d" ;; esac
done
cat >"$work/initramfs/init" <<EOF
#!/bin/busybox sh
/bin/busybox --install -s /bin
export PATH=/bin
mount -t proc proc /proc 2>/dev/null || { mkdir -p /proc && mount -t proc proc /proc; }
mkdir -p /sys /dev /host /upper /root
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
for m in $initmods; do insmod /lib/\$m.ko || echo "vm-init: insmod \$m failed"; done
mount -t 9p -o trans=virtio,version=9p2000.L,ro,msize=262144,cache=loose host /host || { echo "vm-init: no 9p share"; poweroff -f; }
mount -t tmpfs -o mode=0755 tmpfs /upper
mkdir -p /upper/upper /upper/work
mount -t overlay -o lowerdir=/host,upperdir=/upper/upper,workdir=/upper/work overlay /root
# Marks of the container this machine may be: with /.dockerenv systemd ignores
# its kernel command line options; Docker's policy-rc.d forbids maintainer
# scripts to start services. An appliance has neither.
rm -f /root/.dockerenv /root/usr/sbin/policy-rc.d
mount -t proc proc /root/proc
mount -t sysfs sysfs /root/sys
mount --move /dev /root/dev
mount -t tmpfs -o mode=0755,nosuid,nodev tmpfs /root/run
mount -t tmpfs -o mode=1777,nosuid,nodev tmpfs /root/tmp
# A checkout or build folder under the machine's /tmp stays visible through its own.
for d in $tmpBinds; do mkdir -p /root\$d && mount --bind /host\$d /root\$d; done
exec switch_root /root /lib/systemd/systemd
EOF
chmod 755 "$work/initramfs/init"
(cd "$work/initramfs" && find . | cpio -o -H newc --quiet | gzip -1 >"$work/initramfs.gz")

# Units of this machine that the checks do not need stay out of the boot.
masks=
for unit in postgresql.service e2scrub_reap.service systemd-timesyncd.service systemd-pstore.service \
    apt-daily.timer apt-daily-upgrade.timer man-db.timer dpkg-db-backup.timer e2scrub_all.timer fstrim.timer \
    getty@tty1.service serial-getty@ttyS0.service; do
    masks="$masks systemd.mask=$unit"
done
cmdline="console=ttyS0 quiet loglevel=3 panic=-1 modprobe.blacklist=i2c_piix4 systemd.show_status=false
 systemd.unit=kernel-command-line.service systemd.run=$src/tests/vm/guestChecks.sh
 systemd.run_success_action=poweroff systemd.run_failure_action=poweroff
 tarnhold.vm=$work tarnhold.vmchecks=$(echo ${VM_CHECKS:-all} | tr ' ' ,)$masks"
cmdline=$(echo $cmdline)

qemu_args=(-smp 2 -m 2048 -nographic -no-reboot -nodefaults -serial stdio
    -kernel "/boot/vmlinuz-$kver" -initrd "$work/initramfs.gz"
    -virtfs local,path=/,mount_tag=host,security_model=none,readonly=on,multidevs=remap
    -virtfs local,path="$work/results",mount_tag=results,security_model=none,multidevs=remap)

# KVM only when a probe boot gets as far as the kernel's first lines; nested
# KVM on some machines aborts or hangs in the firmware.
accel=(-accel tcg,thread=multi -cpu max)
if [ -w /dev/kvm ]; then
    # Read whole (not through grep -q, whose early exit would fail the pipe).
    probe=$(timeout 20 qemu-system-x86_64 -accel kvm -cpu host -smp 1 -m 256 -nographic -no-reboot -nodefaults \
        -serial stdio -kernel "/boot/vmlinuz-$kver" -append "console=ttyS0 panic=-1 rdinit=/bin/false" \
        2>/dev/null || true)
    if grep -q "Linux version" <<<"$probe"; then
        accel=(-accel kvm -cpu host)
    fi
fi
echo "vm: kernel $kver, ${accel[1]%%,*}, timeout ${timeout}s"

boot_start=$(date +%s)
timeout -k 10 "$timeout" qemu-system-x86_64 "${accel[@]}" "${qemu_args[@]}" -append "$cmdline" </dev/null >"$work/console.log" 2>&1 || true
boot_end=$(date +%s)

results="$work/results/checks.txt"
if [ ! -s "$results" ]; then
    tail -n 40 "$work/console.log"
    fail "the guest gave no results within ${timeout}s"
fi
cat "$results"
[ -f "$work/results/figures.txt" ] && cat "$work/results/figures.txt"
echo "vm: guest ran $((boot_end - boot_start)) s, whole test $(($(date +%s) - started)) s"
grep -q '^DONE' "$results" || { tail -n 40 "$work/console.log"; fail "the guest stopped before the last check"; }
if grep -q '^FAIL' "$results"; then
    VM_KEEP=1
    echo "vm: console log and results kept in $work"
    fail "$(grep -c '^FAIL' "$results") check(s) failed"
fi
echo "vm: all $(grep -c '^PASS' "$results") checks passed"
