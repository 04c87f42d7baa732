#!/bin/sh
# Runs a Windows program under Wine on a pseudo-terminal (script), where Wine gives it a console whose
# code page is not UTF-8, and looks for the UTF-8 text EXPECTED among what the console shows. Wine draws
# the console with escape sequences (a blank may become a cursor move), so escapes, blanks and line ends
# are removed from both before the text is looked for.
# Usage: TextOnConsole.sh WINE_RUN WORK_DIR EXPECTED PROGRAM [ARGUMENT...]
set -eu
wine_run="$1"
work="$2"
expected="$(printf '%s' "$3" | tr -d ' ')"
shift 3
rm -rf "$work"
mkdir -p "$work"
command="SUPPORTQT_WINE_DIRECT=1 '$wine_run'"
for argument in "$@"; do
  command="$command '$argument'"
done
# The program's exit code is not looked at: a failing command's message is text to show too.
script -qec "$command" /dev/null > "$work/console.txt" 2>&1 || true
sed 's/\x1b\[[0-9;?]*[A-Za-z]//g' "$work/console.txt" | tr -d ' \r\n' > "$work/text.txt"
if ! grep -Fq "$expected" "$work/text.txt"; then
  echo "the console does not show: $expected" >&2
  od -c "$work/text.txt" | head -20 >&2
  exit 1
fi
echo "shown as written on Wine's console: $expected"
