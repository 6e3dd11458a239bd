#!/bin/sh
# How much the daemon's peak memory has grown while 4096 kB went through it: an erase block of 64 kB and the buffers of
# its files, and up to 256 kB by which the kernel's count, kept by 64 pages at a time, may lag behind.
after=$(sed -n 's/^VmHWM:[[:space:]]*\([0-9]*\) kB/\1/p' "/proc/$(pidof fabtestd)/status")
grown=$((after - $(cat /tmp/memory-before)))
echo "$grown kB"
[ "$grown" -le 400 ]
