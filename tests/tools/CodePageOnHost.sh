#!/bin/sh
# A Windows build's text convert with the system's code page (Qt's "System" codec, which reports nothing
# of what it loses), the tool under Wine in a locale whose code page is 1252 and in one whose code page
# is 932: the byte sequences it would drop and the characters it would write as similar ones are
# counted, nothing is written without --lossy, and what it reads whole is converted as it is.
# Usage: CodePageOnHost.sh WINE_RUN TOOL_EXE WORK_DIR
set -eu
wine_run="$1"
tool="$2"
work="$3"
rm -rf "$work"
mkdir -p "$work/locales"
failed=0

# Runs the tool in the locale $1 with the rest as its arguments; its standard error goes to $work/err.
run() {
  locale="$1"
  shift
  status=0
  LOCPATH="$work/locales" LC_ALL="$locale" "$wine_run" "$tool" "$@" > "$work/out" 2> "$work/err" || status=$?
}
# Checks the last run's exit status ($1) and standard error ($2, the exact line, or empty for none).
expect() {
  if [ "$status" != "$1" ]; then
    echo "exit $status, expected $1: $(cat "$work/err")" >&2
    failed=1
  fi
  if [ "$(cat "$work/err")" != "$2" ]; then
    printf 'standard error:\n%s\nexpected:\n%s\n' "$(cat "$work/err")" "$2" >&2
    failed=1
  fi
}
# Checks that the file $1 holds exactly the bytes printf makes of $2.
expect_bytes() {
  printf "$2" > "$work/expected"
  if ! cmp -s "$work/expected" "$1"; then
    echo "$1 holds:" >&2
    od -c "$1" | head -5 >&2
    failed=1
  fi
}
expect_absent() {
  if [ -e "$1" ]; then
    echo "$1 was written" >&2
    failed=1
  fi
}

# Code page 1252 (Wine's for the C locale) reads every byte, but holds no U+0100 or U+1F600.
printf 'caf\351 \200\n' > "$work/latin.txt"
run C text convert "$work/latin.txt" -o "$work/latin.out" --from locale
expect 0 ""
expect_bytes "$work/latin.out" 'caf\303\251 \342\202\254\n'
printf '\304\200 ab\342\200\224\n' > "$work/macron.txt"
run C text convert "$work/macron.txt" -o "$work/macron.out" --to System
expect 1 "supportqt text convert: 1 character cannot be written in System (code page 1252) and becomes a similar character or '?'; nothing written (--lossy writes it)"
expect_absent "$work/macron.out"
run C text convert "$work/macron.txt" -o "$work/macron.out" --to System --lossy
expect 0 "supportqt text convert: 1 character cannot be written in System (code page 1252) and becomes a similar character or '?'"
expect_bytes "$work/macron.out" 'A ab\227\n'

if ! localedef -i ja_JP -f UTF-8 "$work/locales/ja_JP.UTF-8" > "$work/localedef.log" 2>&1; then
  echo "localedef cannot make the ja_JP.UTF-8 locale (the locales package has its sources):" >&2
  cat "$work/localedef.log" >&2
  exit 1
fi
ja=ja_JP.UTF-8
# Code page 932: 0x81 0x20 is a lead byte with no trail byte, and a lead byte ends the file (after the
# CR LF that the load deletes, so that the CR is not taken for its trail byte).
printf 'abc\202\240\202\242 \207\100 bad\201\040x\r\nline2\202' > "$work/sjis.txt"
run $ja text convert "$work/sjis.txt" -o "$work/sjis.out" --from locale
expect 1 "supportqt text convert: 2 byte sequences of $work/sjis.txt cannot be read as System (code page 932) and are dropped; nothing written (--lossy writes it)"
expect_absent "$work/sjis.out"
# auto falls back to the locale's codec for bytes that are no UTF-8.
run $ja text convert "$work/sjis.txt" -o "$work/sjis.out" --lossy
expect 0 "supportqt text convert: 2 byte sequences of $work/sjis.txt cannot be read as System (code page 932) and are dropped"
expect_bytes "$work/sjis.out" 'abc\343\201\202\343\201\204 \342\221\240 badx\nline2'
# With a NUL byte as well, the codec reads character by character and stops at the NUL: the rest of
# the text is dropped too.
printf 'ab\000cd\201\040ef\nline2\n' > "$work/zero.txt"
run $ja text convert "$work/zero.txt" -o "$work/zero.out" --from locale --lossy
expect 0 "supportqt text convert: 1 byte sequence of $work/zero.txt cannot be read as System (code page 932) and is dropped, and so is all the text from its first NUL byte on"
expect_bytes "$work/zero.out" 'ab'
# A two-byte character across the 1 MiB blocks that the count reads is one character.
head -c 1048575 /dev/zero | tr '\0' a > "$work/boundary.txt"
printf '\202\240\n' >> "$work/boundary.txt"
run $ja text convert "$work/boundary.txt" -o "$work/boundary.out" --from locale
expect 0 ""
tail -c 5 "$work/boundary.out" > "$work/boundary.tail"
expect_bytes "$work/boundary.tail" 'a\343\201\202\n'
# Code page 932 holds no U+0100, U+2014 or U+1F600; the last lies across the 4,096-character spans that
# are checked at once, and is one character.
printf '\304\200 ab\342\200\224\n' > "$work/wide.txt"
head -c 4089 /dev/zero | tr '\0' b >> "$work/wide.txt"
printf '\360\237\230\200\n' >> "$work/wide.txt"
run $ja text convert "$work/wide.txt" -o "$work/wide.out" --to System
expect 1 "supportqt text convert: 3 characters cannot be written in System (code page 932) and become similar characters or '?'; nothing written (--lossy writes it)"
expect_absent "$work/wide.out"
exit $failed
