#!/bin/sh
# Runs the Windows build of the tool under Wine on a pseudo-terminal (script), where Wine gives it a
# console: its _isatty check must see one, and converting a file of more than 64 MiB must show the
# progress line. Wine draws the console with escape sequences (a blank may become a cursor move) and
# wraps it at 80 columns, so escapes, blanks and line ends are removed before the line is looked for.
# Usage: ProgressOnConsole.sh WINE_RUN TOOL_EXE WORK_DIR
set -eu
wine_run="$1"
tool="$2"
work="$3"
rm -rf "$work"
mkdir -p "$work"
line='R1 node_a node_b 1k ; a line of a large netlist, written to pass 64 MiB'
# 65 MiB of lines: 73 bytes a line.
yes "$line" | head -c 68157440 > "$work/big.cir"
script -qec "SUPPORTQT_WINE_DIRECT=1 '$wine_run' '$tool' text convert '$work/big.cir' -o '$work/wide.cir' --to UTF-16LE" /dev/null \
  > "$work/console.txt" 2>&1
sed 's/\x1b\[[0-9;?]*[A-Za-z]//g' "$work/console.txt" | tr -d ' \r\n' > "$work/text.txt"
if ! grep -Eq 'supportqt:converting.*big\.cir\(65MiB\)\.\.\.' "$work/text.txt"; then
  echo "no progress line on the console:" >&2
  head -c 600 "$work/text.txt" >&2
  exit 1
fi
# The conversion itself finished: two bytes a character after the byte-order mark.
size=$(wc -c < "$work/wide.cir")
if [ "$size" -ne $((2 + 2 * 68157440)) ]; then
  echo "converted file has $size bytes" >&2
  exit 1
fi
echo "progress line shown on Wine's console"
