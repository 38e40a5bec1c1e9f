#!/bin/sh
# Serves a directory with the host and uses it as a client: by commands
# and as a drive.
# usage: scripts/demo.sh DIRECTORY_OF_THE_PROGRAMS
set -eu

bin=$1
root=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/udisk-demo.XXXXXX")
host=""
finish() {
  fusermount3 -uq "$work/drive" 2>/dev/null || true
  [ -z "$host" ] || kill "$host" 2>/dev/null || true
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap finish EXIT INT TERM

title() { printf '\n\033[1m# %s\033[0m\n' "$*"; }
remote() {
  printf '$ udisk-remote %s\n' "$*"
  "$bin/udisk-remote" --socket "$work/usb.sock" "$@"
}

# The disk: this project's own documents and sources, a photo-sized file and
# names in several scripts.
disk="$work/USB"
mkdir -p "$disk/project" "$disk/名前"
cp -r "$root/README.md" "$root/docs" "$root/framework" "$disk/project/"
head -c 8388608 /dev/urandom >"$disk/photo.raw"
printf 'grüße\n' >"$disk/Grüße.txt"
printf 'привет\n' >"$disk/名前/привет.txt"
: >"$disk/empty"

title "host: serves a directory through the driver module"
printf '$ udisk-host serve USB --socket usb.sock\n'
"$bin/udisk-host" serve "$disk" --socket "$work/usb.sock" 2>"$work/host.log" &
host=$!
tries=0
while [ ! -S "$work/usb.sock" ]; do
  tries=$((tries + 1))
  if [ "$tries" -gt 100 ]; then
    cat "$work/host.log" >&2
    exit 1
  fi
  sleep 0.05
done

title "client: lists the disk"
remote ls -l /
remote stat /Grüße.txt
remote cat /名前/привет.txt
remote df -h

title "client: fetches the whole disk; the copy is identical"
remote get -r / "$work/fetched"
diff -r "$disk" "$work/fetched"
echo "diff: no difference"

title "client: puts a tree on the disk, changes and removes it"
remote put -r "$root/protocol" /backup
remote mv /backup /protocol-backup
remote ls -R /protocol-backup
diff -r "$root/protocol" "$disk/protocol-backup"
echo "diff: no difference"
remote rm -r /protocol-backup

if [ -w /dev/fuse ]; then
  title "client: mounts the disk as a drive for every program"
  mkdir "$work/drive"
  printf '$ udisk-mount usb.sock drive\n'
  "$bin/udisk-mount" "$work/usb.sock" "$work/drive"
  show() { printf '$ %s\n' "$*" && (cd "$work" && sh -c "$*"); }
  show df -h --output=size,fstype,target drive | sed "s|$work/||"
  show 'cp -r USB/project drive/copy && diff -r USB/project drive/copy && echo identical'
  show 'mv drive/copy drive/kopie && echo more >> drive/kopie/README.md && tail -n 1 USB/kopie/README.md'
  show 'tar cf - -C drive . | tar xf - --one-top-level=taken && diff -r USB taken && echo identical'
  show 'rm -r drive/kopie && ls drive'
  printf '$ fusermount3 -u drive\n'
  fusermount3 -u "$work/drive"
else
  title "there is no /dev/fuse here, so the drive is left out"
fi

title "host: its log"
tail -n 4 "$work/host.log" | sed "s|$work/||g"
