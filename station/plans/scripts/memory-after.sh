#!/bin/sh
# Prints how much the daemon's peak memory has grown while it received and flashed 4096 kB. Expected are an erase block
# of 64 kB, the buffers of its files, and up to 256 kB because the kernel updates its count only every 64 pages.
after=$(sed -n 's/^VmHWM:[[:space:]]*\([0-9]*\) kB/\1/p' "/proc/$(pidof fabtestd)/status")
grown=$((after - $(cat /tmp/memory-before)))
echo "$grown kB"
[ "$grown" -le 400 ]
