# shellcheck shell=bash
# Sourced by scripts/vm, after scripts/common.sh: what its stages share to boot a kernel under QEMU.
# No root is needed, no KVM, no network inside. Everything lies in build/vm.
#
# A stage makes its file system, boots it and shows what the guest reports on its second serial
# port, in lines that guest.sh writes: "PASS text", "FAIL text", "NOTE text", at last "END count".
# All else that the guest says goes to its first serial port, into the console's log.
# shellcheck disable=SC2034,SC2154 # variables for the stages, and from common.sh

readonly vm=build/vm machine=components/platform/machine
machine_packages=(qemu-system-x86 cpio kmod)
verdicts_passed=0 verdicts_failed=0 # over all stages
machine_process=                    # QEMU, while it runs
machine_beside=                     # a shell that boots a second machine meanwhile
machine_scratch=                    # a folder outside of build/vm, while it is needed

# --- Debian packages: unpacked, not installed ---

candidate() {
  LC_ALL=C apt-cache policy "$1" | awk '$1 == "Candidate:" && $2 != "(none)" { print $2 }'
}

# try_unpack PACKAGE: sets `unpacked`, the folder that it was unpacked into. Cached by its version.
try_unpack() {
  local version
  version=$(candidate "$1")
  [[ $version ]] || return
  unpacked=$vm/packages/${1}_$version
  [[ ! -d $unpacked ]] || return 0
  printf 'Getting %s %s ...\n' "$1" "$version"
  rm -rf "$unpacked.new"
  mkdir -p "$unpacked.new"
  (cd "$unpacked.new" && quietly apt-get -q -o APT::Sandbox::User=root download "$1=$version" &&
    dpkg-deb -x ./*.deb . && rm ./*.deb) && mv "$unpacked.new" "$unpacked"
}

# take_cached PATTERN: the newest of the packages that were unpacked before.
take_cached() {
  unpacked=$(find "$vm/packages" -maxdepth 1 -name "$1" ! -name '*.new' 2>/dev/null | sort -V | tail -n 1)
  [[ $unpacked ]] && say "Taking ${unpacked##*/}, which was unpacked before."
}

# get PACKAGE: as try_unpack. Apt's lists are brought up to date when they have no such package, and
# another version that was unpacked before will do.
get() {
  try_unpack "$1" && return
  quietly as_root apt-get update && try_unpack "$1" && return
  take_cached "${1}_*"
}

unpack() { get "$1" || fail "the package $1 could not be had"; }

# need_kernel: sets `kernel` (the file to boot), `version` (as uname -r says it) and `modules` (the
# folder to look for modules in).
need_kernel() {
  local package
  find_kernel() {
    package=$(apt-cache depends linux-image-amd64 |
      awk '/Depends: linux-image-/ && !found { print $2; found = 1 }')
  }
  # Without apt's lists apt-cache fails.
  find_kernel || true
  if [[ ! $package ]]; then
    quietly as_root apt-get update || true
    find_kernel || true
  fi
  if [[ ! $package ]] || ! get "$package"; then
    take_cached 'linux-image-*_*' || fail 'there is no kernel: linux-image-amd64 could not be had'
  fi
  version=${unpacked##*/linux-image-}
  version=${version%%_*}
  kernel=$unpacked/boot/vmlinuz-$version modules=$unpacked
  [[ -e $unpacked/lib/modules/$version/modules.dep ]] ||
    quietly /sbin/depmod -b "$unpacked" "$version"
}

# --- File systems ---

# add_modules FOLDER MODULE...: copies these modules of the kernel and all that they need into
# FOLDER/lib/modules, for modprobe there. FOLDER/modules.order gets their paths, in the order to
# load them.
add_modules() {
  local folder=$1 module path lists=lib/modules/$version
  shift
  mkdir -p "$folder/$lists"
  cp "$modules/$lists"/modules.{builtin,builtin.modinfo,order} "$folder/$lists"
  for module; do
    /sbin/modprobe -C /dev/null -d "$modules" -S "$version" --show-depends "$module" ||
      fail "the kernel $version has no module $module"
  done | sed -n 's|^insmod .*/lib/modules/\([^ ]*\).*|/lib/modules/\1|p' | awk '!seen[$0]++' \
    >"$folder/modules.order"
  while read -r path; do
    mkdir -p "$folder${path%/*}"
    cp "$modules$path" "$folder$path"
  done <"$folder/modules.order"
  quietly /sbin/depmod -b "$folder" "$version"
}

# add_busybox FOLDER: the statically linked one, with sh. `busybox --install -s` makes the rest.
add_busybox() {
  unpack busybox-static
  mkdir -p "$1/bin"
  cp "$unpacked/bin/busybox" "$1/bin"
  ln -sf busybox "$1/bin/sh"
}

# add_libraries FOLDER PROGRAM...: the shared libraries that programs of this machine need, under
# the same paths. LD_LIBRARY_PATH may name a folder of more; what is found there goes to /usr/lib.
add_libraries() {
  local folder=$1 library place
  shift
  ldd "$@" | sed -n 's|^[^/]*\(/.*\) (0x[0-9a-f]*)$|\1|p' | sort -u | while IFS= read -r library; do
    place=$folder$library
    [[ $library != "$PWD"/* ]] || place=$folder/usr/lib/${library##*/}
    mkdir -p "${place%/*}"
    cp -L "$library" "$place"
  done
}

# make_initramfs FOLDER FILE
make_initramfs() {
  (cd "$1" && find . -print0 | cpio --quiet -0 -o -H newc -R 0:0) | gzip -1 >"$2"
}

# --- A machine ---

end_machine() {
  local try
  [[ $machine_process ]] || return 0
  kill "$machine_process" 2>/dev/null || true
  for ((try = 0; try < 20; ++try)); do
    kill -0 "$machine_process" 2>/dev/null || break
    sleep 0.1
  done
  kill -KILL "$machine_process" 2>/dev/null || true
  wait "$machine_process" 2>/dev/null || true
  machine_process=
}

# Whatever is at work, and what it has left.
end_all() {
  if [[ $machine_beside ]]; then
    kill "$machine_beside" 2>/dev/null || true
    wait "$machine_beside" 2>/dev/null || true
    machine_beside=
  fi
  end_machine
  [[ ! $machine_scratch ]] || rm -rf --one-file-system "$machine_scratch"
  rm -rf "$vm"/systemd-*.{img,tar} "$vm"/{packages.systemd,debian.new,*.root,packages/*.new}
}

# show_verdict LINE. A text that begins with "..." goes on with the last one that does not, which is
# shown once more with a failure.
show_verdict() {
  local text=${1#* }
  [[ $1 != PASS* && $1 != FAIL* || $text == ...* ]] || machine_subject=$text
  case $1 in
    'PASS '*)
      printf '  %sok%s      %s\n' "$green" "$plain" "$text"
      verdicts_passed=$((verdicts_passed + 1)) machine_verdicts=$((machine_verdicts + 1))
      ;;
    'FAIL '*)
      [[ $text != ...* ]] || printf '          of: %s\n' "$machine_subject"
      printf '  %sFAILED%s  %s\n' "$red" "$plain" "$text"
      verdicts_failed=$((verdicts_failed + 1)) machine_verdicts=$((machine_verdicts + 1))
      machine_failed=yes
      ;;
    'NOTE '*) printf '          %s%s%s\n' "$dim" "$text" "$plain" ;;
    'END '*) machine_end=$text ;;
  esac
}

# boot NAME SECONDS [QEMU OPTION...]: boots `kernel`, for which the options name at least -initrd,
# and shows the verdicts as they come. `append` may have more for the kernel's command line. Returns
# 1 when a check failed, the kernel ended by a panic, or the guest did not come to its end in this
# time; that is counted, so a stage may go on with `|| true`.
boot() {
  local name=$1 seconds=$2 began=$SECONDS reason='' line='' part alive=yes verdicts
  local console=$vm/$1.console report=$vm/$1.report
  shift 2
  machine_failed='' machine_end='' machine_subject='' machine_verdicts=0
  truncate -s 0 "$console" "$report"
  qemu-system-x86_64 -name "$name" -machine q35 -accel tcg -cpu max -smp 1 -m 512 \
    -nodefaults -no-user-config -display none -no-reboot \
    -kernel "$kernel" -append "console=ttyS0 quiet panic=-1 oops=panic ${append:-}" \
    -serial "file:$console" -serial "file:$report" "$@" </dev/null >"$vm/$name.qemu" 2>&1 &
  machine_process=$!
  exec {verdicts}<"$report"
  while [[ $alive ]]; do
    kill -0 "$machine_process" 2>/dev/null || alive='' # and read once more what it has left
    if ((SECONDS - began >= seconds)); then
      reason="did not come to its end in $seconds seconds"
      break
    fi
    while IFS= read -r -u "$verdicts" part; do
      line+=$part
      show_verdict "${line%$'\r'}"
      line=
    done
    line+=$part
    [[ ! $alive ]] || sleep 0.1
  done
  exec {verdicts}<&-
  end_machine

  if grep -aq 'Kernel panic' "$console"; then
    reason="ended with: $(grep -am 1 -o 'Kernel panic.*' "$console" | tr -d '\r')"
  elif [[ ! $reason && ! $machine_end ]]; then
    reason="ended before its time. $(head -c 300 "$vm/$name.qemu")"
  elif [[ ! $reason && $machine_verdicts == 0 ]]; then
    reason='checked nothing'
  elif [[ ! $reason && $machine_end != "$machine_verdicts" ]]; then
    reason="reported $machine_end verdicts, of which $machine_verdicts arrived"
  fi
  if [[ $reason ]]; then
    show_verdict "FAIL the machine $name $reason"
  fi
  if [[ $machine_failed ]]; then
    say "The console's log is $console"
    return 1
  fi
  rm -f "$report" "$vm/$name.qemu"
}
