#!/bin/sh
# A Windows build's cases of a file replaced where the host must set the scene, the tool under Wine
# writing its output over the file:
# - locked-folder: the folder takes no new file (made immutable with chattr +i, which the super-user is
#   held to as well): the file gets the new content in place, longer than the old and then shorter, and
#   nothing else appears in the folder; exits 77 (skipped) where no folder can be made immutable;
# - link: the output is named through a symbolic link, which keeps pointing at its target, and the
#   target gets the new content.
# Usage: ReplaceOnHost.sh WINE_RUN TOOL_EXE WORK_DIR CASE
set -eu
wine_run="$1"
tool="$2"
work="$3"
case="$4"
chattr -i "$work/folder" 2>/dev/null || true
rm -rf "$work"
mkdir -p "$work/folder"
printf 'R1 a b 1k\n' > "$work/in.cir"
printf 'old\n' > "$work/folder/out.cir"
if [ "$case" = locked-folder ]; then
  output="$work/folder/out.cir"
  if ! chattr +i "$work/folder" 2>/dev/null; then
    echo "no folder can be made immutable here (chattr +i): skipped"
    exit 77
  fi
  trap 'chattr -i "$work/folder" 2>/dev/null || true' EXIT
  if touch "$work/folder/probe" 2>/dev/null; then
    echo "an immutable folder still takes new files here: skipped"
    exit 77
  fi
else
  output="$work/link.cir"
  ln -s folder/out.cir "$output"
fi
# Converts $1 into the output and checks that the file got all of it.
convert() {
  "$wine_run" "$tool" text convert "$1" -o "$output" --to UTF-16LE
  { printf '\377\376'; iconv -f UTF-8 -t UTF-16LE "$1"; } > "$work/expected"
  if ! cmp "$work/expected" "$work/folder/out.cir"; then
    od -c "$work/folder/out.cir" | head -5 >&2
    exit 1
  fi
}
convert "$work/in.cir"
if [ "$case" = locked-folder ]; then
  printf 'R\n' > "$work/short.cir"
  convert "$work/short.cir"
fi
entries="$(ls -A "$work/folder")"
if [ "$entries" != "out.cir" ]; then
  echo "the folder holds: $entries" >&2
  exit 1
fi
if [ "$case" = link ] && [ "$(readlink "$output")" != folder/out.cir ]; then
  echo "the link is no longer a link to its target" >&2
  exit 1
fi
echo "$case: the file got the whole new content"
