#!/usr/bin/env bash
# Sourced by the other scripts: what they share. It leads them into the project's folder, also when
# they were started through a symbolic link.
# shellcheck disable=SC2034 # most of the variables are for the scripts that source this one
set -euo pipefail

script=$(readlink -m "$0")
cd "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")/.."

bold='' dim='' red='' yellow='' green='' plain=''
if [[ -t 1 && -z ${NO_COLOR:-} ]]; then
  bold=$'\e[1m' dim=$'\e[2m' red=$'\e[31m' yellow=$'\e[33m' green=$'\e[32m' plain=$'\e[0m'
fi

say() { printf '%s\n' "$@"; }
fail() {
  printf '\nscripts/%s failed: %s\n' "${script##*/}" "$1" >&2
  exit 1
}

# --- The command line: the help is the comment that a script begins with ---

# answer_help ARGUMENT...: when one of them asks for help, gives it and ends the script.
answer_help() {
  local argument
  for argument; do
    [[ $argument == -h || $argument == --help ]] || continue
    sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$script"
    exit
  done
}

wrong_use() {
  printf 'scripts/%s: %s\n' "${script##*/}" "$1" >&2
  sed -n '2s/^# //p' "$script" >&2
  exit 2
}

# --- The end ---

# on_exit FUNCTION: to be run whatever ends the script. A signal ends it with 128 + its number.
on_exit() {
  local signal
  # shellcheck disable=SC2064 # the function's name is wanted now
  trap "trap '' HUP INT QUIT PIPE TERM; exec 2>/dev/null; $1" EXIT
  for signal in HUP INT QUIT PIPE TERM; do
    # shellcheck disable=SC2064
    trap "exit $((128 + $(kill -l "$signal")))" "$signal"
  done
}

# wait_for COMMAND...: true as soon as the command is; false after five seconds.
wait_for() {
  local try
  for ((try = 0; try < 250; ++try)); do
    "$@" && return
    sleep 0.02
  done
  return 1
}

# --- Packages and builds ---

# What a build and the tests need on a bare Debian 12.
build_packages=(cmake g++ make libc6-dev libcli11-dev nlohmann-json3-dev)
test_packages=("${build_packages[@]}" doctest-dev gnuplot-nox)

# cross_packages PRESET: sets cross_packages, what a preset for another processor needs beside them.
cross_packages() {
  cross_packages=()
  case $1 in
    armel) cross_packages=(g++-arm-linux-gnueabi libc6-dev-armel-cross qemu-user) ;;
    arm) cross_packages=(g++-arm-linux-gnueabihf libc6-dev-armhf-cross qemu-user) ;;
    arm64) cross_packages=(g++-aarch64-linux-gnu libc6-dev-arm64-cross qemu-user) ;;
  esac
}

is_installed() {
  dpkg-query -W -f='${db:Status-Status}\n' "$1" 2>/dev/null | grep -qx installed
}

as_root() {
  if ((EUID == 0)); then "$@"; else sudo "$@"; fi
}

# quietly COMMAND...: shows what it says only when it fails.
quietly() {
  local log status=0
  log=$("$@" 2>&1 </dev/null) || status=$?
  ((status == 0)) || say "$log" >&2
  return "$status"
}

install_packages() {
  as_root apt-get update &&
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "$@"
}

# need_packages PACKAGE...: installs those that are missing. Quiet, unless it fails: then it shows
# the log and returns 1. Runs nothing, and needs no root, when all of them are there.
need_packages() {
  local missing=() package
  for package; do
    is_installed "$package" || missing+=("$package")
  done
  ((${#missing[@]})) || return 0

  printf 'Installing %s ...\n' "${missing[*]}"
  quietly install_packages "${missing[@]}" && return
  printf 'Could not install %s.\n' "${missing[*]}" >&2
  return 1
}

# build_preset PRESET [TARGET...]: quiet as well. With the stand-in for the management library, and
# with the tests and the companion, whatever the folder was configured with before.
build_preset() {
  [[ $PWD != *:* ]] || fail "make cannot build in a folder whose path has a colon: $PWD"
  if grep -qs '^CORVANE_LIBRARY:[A-Z]*=.' "build/$1/CMakeCache.txt"; then
    say "build/$1 was configured with the appliance's own library. It now gets the" \
      'stand-in: configure it again before you install from it.' >&2
  fi
  quietly cmake --preset "$1" '-UCORVANE_*' -UBUILD_TESTING -UFAN_TOOLS -UFAN_LAB &&
    quietly cmake --build --preset "$1" -j "$(nproc)" ${2:+--target "${@:2}"} && return
  printf 'The build of %s failed.\n' "$1" >&2
  return 1
}

# --- Simulation ---

# safe_folder NAME: makes a folder for libraries to preload, and prints its path. The dynamic linker
# ends a path at a blank or a colon, replaces what begins with a dollar sign, and starts the program
# without the library when it is not found: on this machine's own paths.
safe_folder() {
  local parent=${TMPDIR:-/tmp}
  [[ $parent == /* && $parent != *[!A-Za-z0-9/._-]* ]] || parent=/tmp
  mktemp -d "$parent/$1-XXXXXX"
}

# lay_out_driver FOLDER KIND: the attributes of a fan driver, i2c or gpio.
lay_out_driver() {
  local attribute own=fan1_div
  [[ $2 == i2c ]] || own='fan1_max fan1_min'
  mkdir -p "$1"
  for attribute in fan1_alarm fan1_input fan1_target modalias name pwm1 pwm1_enable pwm1_mode \
    uevent $own; do
    echo 0 >"$1/$attribute"
  done
  echo 1 >"$1/pwm1_enable"
}
