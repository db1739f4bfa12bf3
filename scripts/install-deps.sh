#!/usr/bin/env bash
# Installs every Debian package that building, running and testing tarnhold needs.
set -euo pipefail
export DEBIAN_FRONTEND=noninteractive
apt-get update
apt-get install -y --no-install-recommends \
  build-essential g++ cmake make pkg-config git \
  libgtest-dev libgmock-dev libbenchmark-dev \
  libssl-dev libusb-dev libudev-dev \
  libumockdev-dev umockdev libglib2.0-dev \
  libfuse3-dev fuse3 \
  srecord binutils faketime \
  clang libclang-rt-14-dev clang-tidy gcovr \
  util-linux procps \
  systemd libsystemd-dev groff-base man-db dpkg-dev file python3 \
  qemu-system-x86 linux-image-amd64 linux-headers-amd64 busybox-static cpio i2c-tools kmod dbus
