# shellcheck shell=bash
# The stage `kernel` of scripts/vm: the shipped binaries in a file system in memory, with the
# drivers of three fan chips whose registers lie in the kernel's i2c-stub, with a SATA disk of
# QEMU's and with disks of our own (scsi_disk) under the kernel's SCSI layer. What is checked is in
# the file guest, which runs inside.
# shellcheck disable=SC2154 # variables of machine.sh

run_kernel() {
  local root=$vm/kernel.root libraries=$PWD/build/release
  build_preset release fan_controller fanctl scsi_disk
  need_kernel
  rm -rf "$root"
  mkdir -p "$root"/{dev,proc,sys,run,tmp,usr/bin,var/tmp,disks}
  ln -s ../run "$root/var/run"
  # As packaged: stripped, without a path of the build.
  DESTDIR=$PWD/$root quietly cmake --install build/release --prefix / --strip
  rm -rf "${root:?}/usr/share"
  cp build/release/scsi_disk "$root/usr/bin"
  unpack libi2c0
  libraries+=:$PWD/$unpacked/usr/lib/x86_64-linux-gnu
  unpack i2c-tools
  cp "$unpacked"/usr/sbin/i2c{get,set} "$root/usr/sbin"
  LD_LIBRARY_PATH=$libraries add_libraries "$root" "$root"/sbin/fan_controller "$root"/usr/sbin/* \
    "$root/usr/bin/scsi_disk"
  add_busybox "$root"
  add_modules "$root" i2c-stub i2c-dev max6650 adt7475 emc2103 ahci sd_mod tcm_loop target_core_user
  cp "$machine/guest.sh" "$machine/kernel/guest" "$root"
  printf '%s\n' '#!/bin/sh' '/bin/busybox --install -s' \
    'exec sh /guest </dev/console >/dev/console 2>&1' >"$root/init"
  chmod +x "$root/init"
  make_initramfs "$root" "$vm/kernel.initrd"
  rm -rf "$root"
  truncate -s 8M "$vm/kernel.disk"
  say 'Booting ...'
  boot kernel 600 -initrd "$vm/kernel.initrd" \
    -drive "file=$vm/kernel.disk,format=raw,if=none,id=disk" \
    -device 'ide-hd,drive=disk,model=BOX DISK,serial=QEMU0001' || true
}
