#!/usr/bin/env bash
# Sourced by the other scripts: what they share.
set -euo pipefail

# What a build and the tests need on a bare Debian 12.
# shellcheck disable=SC2034 # for the scripts that source this one
build_packages=(cmake g++ make libc6-dev)
# shellcheck disable=SC2034
test_packages=("${build_packages[@]}" doctest-dev)

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
  log=$(mktemp)
  "$@" </dev/null >"$log" 2>&1 || status=$?
  ((status == 0)) || cat "$log" >&2
  rm -f "$log"
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

# build_preset PRESET [TARGET...]: quiet as well.
build_preset() {
  quietly cmake --preset "$1" &&
    quietly cmake --build --preset "$1" -j "$(nproc)" ${2:+--target "${@:2}"} && return
  printf 'The build of %s failed.\n' "$1" >&2
  return 1
}
