#!/bin/sh
# Stand-in for the crash reporter: records each argument on its own line,
# framed by "<" and ">", in the file named by $KIV_RECORD_FILE.
for a in "$@"; do
  printf '<%s>\n' "$a"
done > "$KIV_RECORD_FILE"
