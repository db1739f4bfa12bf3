#!/usr/bin/env bash
# Builds the stand-in picdev module for the installed distribution kernel
# (the one whose /lib/modules/VERSION/build exists beside /boot/vmlinuz-VERSION,
# not the running kernel, which may be a container host's) and prints the
# path of picdev.ko. Usage: build-picdev.sh OUTDIR [KERNEL_VERSION]
# Needs the kernel's headers (Debian: linux-headers-amd64).
set -euo pipefail
out=${1:?usage: build-picdev.sh OUTDIR [KERNEL_VERSION]}
here=$(cd "$(dirname "$0")" && pwd)
version=${2:-}
if [ -z "$version" ]; then
    for build in /lib/modules/*/build; do
        candidate=$(basename "$(dirname "$build")")
        if [ -e "/boot/vmlinuz-$candidate" ] && [ -e "$build/Makefile" ]; then
            version=$candidate
        fi
    done
fi
if [ -z "$version" ] || [ ! -e "/lib/modules/$version/build/Makefile" ]; then
    echo "build-picdev.sh: no kernel headers found under /lib/modules/*/build (Debian package linux-headers-amd64)" >&2
    exit 1
fi
mkdir -p "$out"
out=$(cd "$out" && pwd)
# kbuild writes beside its sources: build a copy in OUTDIR.
cp "$here/picdev.c" "$here/Kbuild" "$out/"
make -s -C "/lib/modules/$version/build" M="$out" modules >&2
echo "$out/picdev.ko"
