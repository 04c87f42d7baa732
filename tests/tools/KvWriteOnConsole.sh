#!/bin/sh
# Runs a Windows program that writes UTF-8 text through kv_write under Wine on a pseudo-terminal
# (script), where Wine gives it a console whose code page is not UTF-8: the text must show as written.
# Wine draws the console with escape sequences (a blank may become a cursor move), so escapes, blanks
# and line ends are removed before the text is looked for.
# Usage: KvWriteOnConsole.sh WINE_RUN PROBE_EXE WORK_DIR
set -eu
wine_run="$1"
probe="$2"
work="$3"
rm -rf "$work"
mkdir -p "$work"
script -qec "SUPPORTQT_WINE_DIRECT=1 '$wine_run' '$probe'" /dev/null > "$work/console.txt" 2>&1
sed 's/\x1b\[[0-9;?]*[A-Za-z]//g' "$work/console.txt" | tr -d ' \r\n' > "$work/text.txt"
expected="$(printf 'caf\303\2511\302\265F\342\204\246done')"
if ! grep -Fq "$expected" "$work/text.txt"; then
  echo "the console shows something else than: $expected" >&2
  od -c "$work/text.txt" | head -20 >&2
  exit 1
fi
echo "kv_write's text shown as written on Wine's console"
