#!/bin/sh
# A Windows build's case of a file replaced in a folder that takes no new file: the folder is made
# immutable on the host (chattr +i, which the super-user is held to as well), and the tool under Wine
# writes its output over a file there. The file gets the whole new content, in place, and nothing else
# appears in the folder. Exits 77 (skipped) where no folder can be made immutable.
# Usage: ReplaceInLockedFolder.sh WINE_RUN TOOL_EXE WORK_DIR
set -eu
wine_run="$1"
tool="$2"
work="$3"
chattr -i "$work/locked" 2>/dev/null || true
rm -rf "$work"
mkdir -p "$work/locked"
printf 'R1 a b 1k\n' > "$work/in.cir"
printf 'old content, longer than the new one\n' > "$work/locked/out.cir"
if ! chattr +i "$work/locked" 2>/dev/null; then
  echo "no folder can be made immutable here (chattr +i): skipped"
  exit 77
fi
trap 'chattr -i "$work/locked" 2>/dev/null || true' EXIT
if touch "$work/locked/probe" 2>/dev/null; then
  echo "an immutable folder still takes new files here: skipped"
  exit 77
fi
"$wine_run" "$tool" text convert "$work/in.cir" -o "$work/locked/out.cir" --to UTF-16LE
{ printf '\377\376'; iconv -f UTF-8 -t UTF-16LE "$work/in.cir"; } > "$work/expected"
if ! cmp "$work/expected" "$work/locked/out.cir"; then
  od -c "$work/locked/out.cir" | head -5 >&2
  exit 1
fi
entries="$(ls -A "$work/locked")"
if [ "$entries" != "out.cir" ]; then
  echo "the folder holds: $entries" >&2
  exit 1
fi
echo "written in place in a folder that takes no new file"
