#!/bin/sh
# Prints the log lines of the last write to a partition, without source line numbers. Reads logread or the log file.
{ logread 2> /dev/null || cat /var/log/messages; } | sed -n 's/.*\[writePartitions,[0-9]*\] //p' |
    awk '/^partition_num/ { lines = "" } { lines = lines $0 "\n" } END { printf "%s", lines }'
