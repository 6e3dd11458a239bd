#!/bin/sh
# What the last write of a partition logged, without the numbers of source lines.
sed -n 's/.*\[writePartitions,[0-9]*\] //p' /var/log/messages | awk '/^partition_num/ { lines = "" } { lines = lines $0 "\n" } END { printf "%s", lines }'
