#!/usr/bin/env bash
# Runs hxcf_soak in one surrounding after the other, and prints one line for each.
#   scripts/soak.sh [SECONDS [FOLDER...]]   (for each; 15 by default)
# Every FOLDER is one more surrounding, as on a network file system. What a surrounding needs is
# mounted in a namespace that ends with the script; without root's rights, in a user namespace that
# gives them. Logs are in build/soak.
. "$(dirname "$0")/common.sh"

seconds=${1:-15}
[[ $seconds =~ ^[1-9][0-9]*$ ]] || fail "for how many seconds?"
if [ -z "${SOAK_HAS_NAMESPACE-}" ]; then
  need_compiler unshare=util-linux mount=mount
  [ ! -w /dev/fuse ] || need bindfs=bindfs
  build release
  root=()
  [ "$(id -u)" -eq 0 ] || root=(--map-root-user)
  SOAK_HAS_NAMESPACE=1 exec unshare "${root[@]}" --mount --propagation private scripts/soak.sh "$@"
fi

out=$PWD/build/soak
soak=$PWD/build/release/tools/hxcf_soak
mkdir -p "$out"
place=$(mktemp -d -p "$out")
chmod a+rx "$place" # for another user
result=0
other= # a process in a namespace with the view

clean() {
  [ -z "$other" ] || kill "$other"
  other=
  for folder in "$place"/*; do
    ! mountpoint -q "$folder" || umount -l "$folder"
  done
}
trap 'clean; rm -rf --one-file-system "$place"' EXIT

# surrounding NAME: begins one, in new folders.
surrounding() {
  name=$1 log=$out/${1// /-}.log failures=0
  rm -rf --one-file-system "${place:?}"/*
  mkdir "$place"/{files,view,lower,upper,work}
  : >"$log"
}
# run [COMMAND...] ARGUMENT...: hxcf_soak with these arguments, by that command.
run() { "$@" >>"$log" 2>&1 || failures=$((failures + 1)); }
# end [WHY]: tells how it went, or why it was left out.
end() {
  if [ $# -gt 0 ]; then
    echo "$name: left out, $1"
  elif [ $failures -eq 0 ]; then
    echo "$name: $(tail -n 1 "$log")"
  else
    result=1
    echo "$name: failed ($log): $(tail -n 1 "$log")" >&2
  fi
  clean
}

surrounding "plain $(stat -f -c %T "$place" | tr / -)"
run "$soak" "$place/files" "$seconds"
end

surrounding tmpfs
mount -t tmpfs soak "$place/files"
run "$soak" "$place/files" "$seconds"
end

surrounding "bind mount in another mount namespace"
exec {told}< <(exec unshare --mount --propagation private bash -c \
  'mount --bind "$0" "$1" && echo && exec sleep infinity' "$place/files" "$place/view")
other=$!
read -r <&"$told"
run "$soak" --view="$place/view" --mounts="/proc/$other/ns/mnt" "$place/files" "$seconds"
end

surrounding "read-only bind mount for readers"
mount --bind "$place/files" "$place/view"
mount -o remount,bind,ro "$place/view"
run "$soak" --readers-view="$place/view" "$place/files" "$seconds"
end

overlay() {
  mount -t overlay soak "$place/files" \
    -o "lowerdir=$place/lower,upperdir=$place/upper,workdir=$place/work"
}
surrounding overlay
overlay
run "$soak" "$place/files" "$seconds"
end

# The files move up when the first process opens them for writing, while one has the lower ones open.
surrounding "overlay from its lower folder"
for ((i = 0; i < 5; ++i)); do
  rm -rf "$place"/{lower,upper,work}/*
  run "$soak" --create "$place/lower" 0
  overlay
  run "$soak" --keep "$place/files" $(((seconds + 4) / 5))
  run test -e "$place/upper/grid.cf"
  umount -l "$place/files"
done
end

surrounding FUSE
if [ -w /dev/fuse ]; then
  bindfs "$place/lower" "$place/files"
  run "$soak" "$place/files" "$seconds"
  end
else
  end "no /dev/fuse"
fi

for limit in 65536 0; do
  surrounding "$limit bytes of locked memory"
  run setpriv --bounding-set=-ipc_lock prlimit --memlock=$limit:$limit \
    "$soak" "$place/files" "$seconds"
  end
done

surrounding "10000 open files"
if ulimit -n "$(ulimit -H -n)" && [ "$(ulimit -n)" -gt 10100 ]; then
  run "$soak" --open=10000 "$place/files" "$seconds"
  end
else
  end "no more than $(ulimit -n) are allowed"
fi

for folder in "${@:2}"; do
  surrounding "$(stat -f -c %T "$folder" | tr / -) at ${folder//\//-}"
  run "$soak" "$(mktemp -d -p "$folder")" "$seconds"
  end
done
exit $result
