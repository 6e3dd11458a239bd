#!/bin/sh
# Prints how much memory the daemon takes late in a session, each figure with its limit: its private memory, which is
# everything except libc's code, since all programs of a board share that; and its stack. Memory comes in pages of 4 kB.
# The stack takes one page more or less, depending on where the kernel puts its start.
awk -v private_limit=92 -v stack_limit=16 '
/^[0-9a-f]+-/ { shared = $2 ~ /x/ && $6 ~ /^\/lib\//; stack = $6 == "[stack]" }
/^Private_(Clean|Dirty):/ && !shared { private += $2 }
/^Rss:/ && stack { depth += $2 }
END {
    print "private memory " private " kB, stack " depth " kB"
    exit !(private > 0 && private <= private_limit && depth > 0 && depth <= stack_limit)
}' "/proc/$(pidof fabtestd)/smaps"
