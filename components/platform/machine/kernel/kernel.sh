# shellcheck shell=bash
# The stage `kernel` of scripts/vm.

run_kernel() {
  local root=$vm/kernel.root program
  build_preset release fan_controller fanctl
  need_kernel
  rm -rf "$root"
  mkdir -p "$root"/{dev,proc,sys,run,tmp,var/tmp}
  ln -s ../run "$root/var/run"
  DESTDIR=$PWD/$root quietly cmake --install build/release --prefix / --strip
  LD_LIBRARY_PATH=$PWD/build/release add_libraries "$root" "$root/sbin/fan_controller" "$root/usr/sbin/fanctl"
  add_busybox "$root"
  add_modules "$root" i2c-stub i2c-dev max6650
  cp "$machine/guest.sh" "$root/guest.sh"
  cp "$machine/kernel/init" "$root/init"
  make_initramfs "$root" "$vm/kernel.initrd"
  rm -rf "$root"
  say 'Booting ...'
  boot kernel 240 -initrd "$vm/kernel.initrd" || true
}
