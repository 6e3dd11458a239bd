#!/bin/sh
# How much the daemon's peak memory has grown: at most by an erase block of 64 KiB and the buffers of its files.
after=$(sed -n 's/^VmHWM:[[:space:]]*\([0-9]*\) kB/\1/p' "/proc/$(pidof fabtestd)/status")
grown=$((after - $(cat /tmp/memory-before)))
echo "$grown kB"
[ "$grown" -le 100 ]
