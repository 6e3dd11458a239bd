#!/bin/sh
# What the daemon takes of the board, late in a session, each figure with its limit: memory that no other process has,
# which is all but the code of the C library, shared by every program of a board; and the stack. Both in pages of 4 kB,
# of which the stack takes one more or less by where the kernel puts its start.
awk -v private_limit=92 -v stack_limit=16 '
/^[0-9a-f]+-/ { shared = $2 ~ /x/ && $6 ~ /^\/lib\//; stack = $6 == "[stack]" }
/^Private_(Clean|Dirty):/ && !shared { private += $2 }
/^Rss:/ && stack { depth += $2 }
END {
    print "private memory " private " kB, stack " depth " kB"
    exit !(private > 0 && private <= private_limit && depth > 0 && depth <= stack_limit)
}' "/proc/$(pidof fabtestd)/smaps"
