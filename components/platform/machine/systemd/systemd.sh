# shellcheck shell=bash
# The stage `systemd` of scripts/vm: a Debian system with the packages. The system without them is made
# once and kept. In a first machine the packages are installed and upgraded; two more, at the same time,
# go on with what its disk then holds. What is checked stands in install, work and trouble.
# shellcheck disable=SC2030,SC2031,SC2034,SC2154 # variables of machine.sh; a shell beside has its own

readonly debian_packages=(systemd systemd-sysv udev kmod procps dbus i2c-tools)
readonly debian_modules=(i2c-stub i2c-dev adt7475)
readonly disk_modules=(virtio_pci virtio_blk ext4) # loaded before the system is there

# make_debian TARBALL: Debian, unpacked and configured. Root works in a chroot; everybody else in a name
# space of his own or, where he may have none, with what fakechroot pretends.
make_debian() {
  local names status=0
  printf 'Making a Debian system ...\n'
  printf -v names '%s,' "${debian_packages[@]}"
  machine_scratch=$(safe_folder vm)
  chmod 755 "$machine_scratch"
  TMPDIR=$machine_scratch quietly mmdebstrap --variant=minbase --include="${names%,}" bookworm "$1" ||
    status=$?
  rm -rf --one-file-system "$machine_scratch" || true
  return "$status"
}

# add_checks FOLDER: what makes of it a machine that runs checks. They come on a second disk, as a tar
# archive with a program `run`.
add_checks() {
  local units=$1/etc/systemd/system name
  mkdir -p "$units/multi-user.target.wants" "$1"/{var/log/journal,etc/modprobe.d,usr/lib}
  cat >"$units/checks.service" <<'END'
[Unit]
After=basic.target dbus.service
[Service]
Type=exec
ExecStart=/bin/sh -c 'mkdir /run/checks && cd /run/checks && tar xf /dev/vdb && exec bash ./run'
StandardOutput=tty
StandardError=tty
TTYPath=/dev/ttyS0
# A check has the kernel end a process of its own, for want of memory: systemd would stop the checks.
OOMPolicy=continue
TimeoutStopSec=5
END
  ln -s ../checks.service "$units/multi-user.target.wants/"
  for name in serial-getty@ttyS0.service getty@tty1.service systemd-timesyncd.service \
    {apt-daily,apt-daily-upgrade,dpkg-db-backup,e2scrub_all,fstrim}.timer e2scrub_reap.service; do
    ln -s /dev/null "$units/$name"
  done
  echo '/dev/vda / ext4 defaults 0 1' >"$1/etc/fstab"
  echo appliance >"$1/etc/hostname"
  echo '127.0.0.1 localhost appliance' >"$1/etc/hosts"
  echo 'options i2c-stub chip_addr=0x2e' >"$1/etc/modprobe.d/checks.conf"
  add_modules "$1/usr" "${debian_modules[@]}"
  rm "$1/usr/modules.order"
}

# need_debian: sets `debian`, the image of a disk, and makes it when there is none of this kernel and
# this recipe.
need_debian() {
  local key folder=$vm/debian new=$vm/debian.new
  key=$(declare -f make_debian add_checks need_debian &&
    say "$version" "${debian_packages[@]}" "${debian_modules[@]}")
  key=$(sha256sum <<<"$key")
  debian=$folder/${key:0:16}.img
  [[ ! -e $debian ]] || return 0
  rm -rf "$new"
  mkdir -p "$new"/{root,checks}
  make_debian "$new/debian.tar" || fail 'the Debian system could not be made'
  add_checks "$new/checks"
  tar -C "$new/checks" --owner=0 --group=0 -cf "$new/checks.tar" .
  truncate -s 700M "$new/new.img"
  # Files of root's, in an image that nobody has to be root for.
  (cd "$new" && quietly fakeroot sh -ec '
    tar -C root -xf debian.tar --exclude="./dev/*"
    tar -C root --keep-directory-symlink -xf checks.tar
    mke2fs -q -t ext4 -E lazy_itable_init=0 -d root new.img') || fail 'the image could not be made'
  rm -rf "$folder"
  mkdir "$folder"
  mv "$new/new.img" "$debian"
  rm -rf "$new"
}

# make_initrd FILE: the kernel's modules for the disk, and a program that goes over to the system on it.
make_initrd() {
  local root=$vm/systemd.root
  rm -rf "$root"
  mkdir -p "$root"/{dev,proc,sys,root}
  add_busybox "$root"
  add_modules "$root" "${disk_modules[@]}"
  cp "$machine/systemd/init" "$root"
  make_initramfs "$root" "$1"
  rm -rf "$root"
}

# make_packages FOLDER: old/ and new/. The old ones have the same files, another table and a document
# that the new ones have not. With them is a package of the stand-in for the management library.
make_packages() {
  local package name tree=$1/tree
  rm -rf "$1"
  mkdir -p "$1"/{old,new}
  cp build/package/release/*.deb "$1/new"
  for package in "$1"/new/*.deb; do
    name=$(dpkg-deb -f "$package" Package)
    dpkg-deb -R "$package" "$tree"
    sed -i 's/^Version: .*/Version: 0.9.0-1/' "$tree/DEBIAN/control"
    echo old >"$tree/usr/share/doc/$name/of-0.9.0"
    [[ $name != fan-controller ]] || echo '# of 0.9.0' >>"$tree/etc/fan_controller/fan_cmd_tab.conf"
    quietly dpkg-deb --root-owner-group -b "$tree" "$1/old"
    rm -rf "$tree"
  done
  mkdir -p "$tree/DEBIAN" "$tree/usr/lib/x86_64-linux-gnu"
  cp build/package/release/libcorvane.so "$tree/usr/lib/x86_64-linux-gnu"
  say 'Package: libcorvane' 'Version: 0.1' 'Architecture: amd64' \
    'Maintainer: nobody <nobody@localhost>' 'Description: stand-in' >"$tree/DEBIAN/control"
  quietly dpkg-deb --root-owner-group -b "$tree" "$1/old"
  rm -rf "$tree"
}

# try_system PROGRAM DISK: boots a copy of the disk, build/vm/systemd-PROGRAM.img, and runs one of the
# programs of this folder. The clock inside counts instructions and leaps over what is waited for: a
# minute of waiting costs nothing, and a busy machine outside makes nothing late.
try_system() {
  local disk=$vm/systemd-$1.img checks=$vm/systemd-$1.tar
  cp --sparse=always "$2" "$disk"
  tar -cf "$checks" -C "$vm/packages.systemd" old new -C "$PWD/$machine" guest.sh \
    -C systemd helpers.sh --transform "s/^$1\$/run/" "$1"
  append='random.trust_cpu=on mitigations=off apparmor=0 audit=0' boot "systemd-$1" 1800 \
    -initrd "$vm/systemd.initrd" -icount shift=1,sleep=off -rtc clock=vm -device virtio-rng-pci \
    -drive "file=$disk,format=raw,if=virtio,cache=unsafe" \
    -drive "file=$checks,format=raw,if=virtio,readonly=on" || true
  rm -f "$checks"
}

run_systemd() {
  local debian beside=$vm/systemd.beside passed failed
  need_packages mmdebstrap uidmap fakeroot fakechroot e2fsprogs dpkg-dev
  say 'Building the packages ...'
  quietly scripts/package release || fail 'there are no packages'
  need_kernel
  need_debian
  make_initrd "$vm/systemd.initrd"
  make_packages "$vm/packages.systemd"

  say 'Booting, to install and upgrade ...'
  try_system install "$debian"
  if [[ ! $machine_end ]]; then
    say 'So there is nothing for the other machines to go on with.'
    return
  fi
  say 'Booting again, and a second machine beside it, whose verdicts come afterwards ...'
  rm -f "$beside"
  (
    on_exit end_machine
    machine_process='' verdicts_passed=0 verdicts_failed=0
    try_system trouble "$vm/systemd-install.img"
    say "$verdicts_passed $verdicts_failed" >"$beside"
  ) >"$beside.verdicts" 2>&1 &
  machine_beside=$!
  try_system work "$vm/systemd-install.img"
  wait "$machine_beside" || true
  machine_beside=
  say 'The second machine ...'
  cat "$beside.verdicts"
  read -r passed failed <"$beside" || fail 'the second machine could not be tried'
  verdicts_passed=$((verdicts_passed + passed)) verdicts_failed=$((verdicts_failed + failed))
  rm -rf "$vm"/systemd-*.img "$vm"/{packages.systemd,systemd.initrd} "$beside"*
}
