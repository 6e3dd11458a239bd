#!/bin/sh
# What the last write of a partition logged, without the numbers of source lines. A log that is no ring is a file.
{ logread 2> /dev/null || cat /var/log/messages; } | sed -n 's/.*\[writePartitions,[0-9]*\] //p' |
    awk '/^partition_num/ { lines = "" } { lines = lines $0 "\n" } END { printf "%s", lines }'
