#!/bin/sh
# Notes the daemon's peak memory so far, for memory-after.sh.
sed -n 's/^VmHWM:[[:space:]]*\([0-9]*\) kB/\1/p' "/proc/$(pidof fabtestd)/status" | tee /tmp/memory-before
