#!/bin/sh
# Reads the calibration partition back. Prints the four addresses in their slots, whether the checksum is right, and how
# many other bytes differ from the copy that keep-calibration.sh made.
slots='0 6 4098 20486'
for offset in $slots; do
    hexdump -v -s "$offset" -n 6 -e '5/1 "%02X:" 1/1 "%02X\n"' /dev/mtd6
done

even=0 odd=0
for word in $(hexdump -v -s $((0x5000)) -n 2116 -e '2/1 "%u," "\n"' /dev/mtd6); do
    first=${word%%,*} second=${word#*,}
    even=$((even ^ first)) odd=$((odd ^ ${second%,}))
done
[ $even -eq 255 ] && [ $odd -eq 255 ] && printf 'checksum ok, '

cmp -l /tmp/calibration /dev/mtd6 | awk -v slots="$slots" '
BEGIN {
    count = split(slots, offset, " ")
    for (i = 1; i <= count; i++) for (byte = 1; byte <= 6; byte++) expected[offset[i] + byte] = 1
    expected[20483] = expected[20484] = 1  # the checksum
}
!($1 in expected) { others++ }
END { print (others ? others " bytes" : "nothing") " else changed" }'
