#!/bin/sh
# Installs what building, testing and the demo need and what is not there yet;
# with the argument `drives` also what the comparison of drives needs, and with
# `coverage`, `mutants` or `faults` what those targets need.
set -eu

packages="
  g++ clang libclang-rt-14-dev cmake ninja-build make pkg-config git
  libglib2.0-dev libjsoncpp-dev libspdlog-dev libcli11-dev libasio-dev
  libgtest-dev libgmock-dev
  libfuse3-dev fuse3 ntfs-3g e2fsprogs util-linux mount rsync sqlite3
"
if [ "${1:-}" = drives ]; then
  packages="$packages python3 sshfs openssh-sftp-server"
elif [ "${1:-}" = coverage ]; then
  packages="$packages python3 llvm"
elif [ "${1:-}" = mutants ]; then
  packages="$packages python3"
elif [ "${1:-}" = faults ]; then
  packages="$packages python3 strace"
fi

missing=""
for package in $packages; do
  status=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)
  [ "$status" = installed ] || missing="$missing $package"
done
[ -n "$missing" ] || exit 0

if ! command -v apt-get >/dev/null 2>&1; then
  echo "setup: this is not a Debian system; please install:$missing" >&2
  exit 1
fi
as_root=""
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null 2>&1; then
    echo "setup: please install as root: apt-get install$missing" >&2
    exit 1
  fi
  as_root="sudo"
fi
echo "setup: installing$missing"
export DEBIAN_FRONTEND=noninteractive
$as_root apt-get update -qq
# shellcheck disable=SC2086  # a list of words
$as_root apt-get install -y -qq --no-install-recommends $missing >/dev/null
