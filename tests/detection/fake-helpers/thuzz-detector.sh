#!/bin/sh
# SPDX-License-Identifier: GPL-3.0-or-later
# A stand-in for thuzz-detector, steered by variables the tests set:
#   FAKE_RECORD       folder: the arguments go to args.<pid> (one per line), the pid to starts
#   FAKE_STDOUT_FILE  file copied to standard output first
#   FAKE_STDERR_TEXT  text written to standard error
#   FAKE_MODE         exit | hang (default) | term-talks | flood | stdin (copies its standard
#                     input to stdin.<pid> as it comes)
rec="${FAKE_RECORD:?}"
printf '%s\n' "$@" > "$rec/args.$$"
echo $$ >> "$rec/starts"
[ -n "$FAKE_STDOUT_FILE" ] && cat "$FAKE_STDOUT_FILE"
[ -n "$FAKE_STDERR_TEXT" ] && printf '%s' "$FAKE_STDERR_TEXT" >&2
case "${FAKE_MODE:-hang}" in
    exit)
        exit 0 ;;
    term-talks)
        # Says something after being asked to stop; nobody should be listening any more.
        trap 'printf "{\"amplitude\":0.9,\"slapNumber\":99}\n"; echo late >&2; exit 0' TERM
        echo $$ >> "$rec/trapped"
        while :; do sleep 0.05; done ;;
    flood)
        # 100 MB without a newline, then an ordinary event.
        head -c 100000000 /dev/zero | tr '\000' 'a'
        printf '\n{"amplitude":0.5,"severity":"hard","slapNumber":7}\n'
        exit 0 ;;
    stdin)
        exec cat > "$rec/stdin.$$" ;;
    *)
        exec sleep 60 ;;
esac
