#!/bin/sh
# Writes the manual pages and the completion of the command into a folder: make_manual.sh HXCF FOLDER
set -eu
rm -rf "$2/man1"
mkdir -p "$2/man1"
"$1" --bash-completion >"$2/completion"
"$1" --man hxcf | gzip -9n >"$2/man1/hxcf.1.gz"
for command in $(sed -n 's/^    \([a-z]*\)) words.*/\1/p' "$2/completion"); do
  "$1" --man "$command" | gzip -9n >"$2/man1/hxcf-$command.1.gz"
done
