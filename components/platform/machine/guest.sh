# shellcheck shell=sh
# Sourced by the programs of a stage inside of the machine: how they report to the host. For
# busybox's shell as well as for bash.
verdicts=0
stty -F /dev/ttyS1 raw 2>/dev/null

report() {
  echo "$*" >/dev/ttyS1
  echo "[$(cut -d' ' -f1 /proc/uptime)] $*" >/dev/ttyS0
}
pass() { verdicts=$((verdicts + 1)); report "PASS $*"; }
failed() { verdicts=$((verdicts + 1)); report "FAIL $*"; }
note() { report "NOTE $*"; }

# check TEXT COMMAND...: the verdict is the command's status. What it says is seen when it fails.
check() {
  check_text=$1
  shift
  if check_said=$("$@" 2>&1); then
    pass "$check_text"
  else
    failed "$check_text"
    [ -z "$check_said" ] || echo "$check_said" |
      while IFS= read -r check_line; do note "  $check_line"; done
  fi
}

# within SECONDS COMMAND...: true as soon as the command is; false when it is not in this time.
within() {
  within_end=$(($(cut -d. -f1 /proc/uptime) + $1))
  shift
  until "$@" >/dev/null 2>&1; do
    [ "$(cut -d. -f1 /proc/uptime)" -lt "$within_end" ] || { "$@"; return; }
    sleep "${within_pause:-0.1}"
  done
}

# To be called once, when all is checked. The machine has to be switched off then.
finish() { report "END $verdicts"; }
