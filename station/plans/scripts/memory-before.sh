#!/bin/sh
# The daemon's peak memory so far, kept on the board and compared by memory-after.sh.
sed -n 's/^VmHWM:[[:space:]]*\([0-9]*\) kB/\1/p' "/proc/$(pidof fabtestd)/status" | tee /tmp/memory-before
