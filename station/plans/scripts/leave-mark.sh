#!/bin/sh
# Shows that a script of the station runs on the board: it leaves a file, and says where it ran.
uname -m > /tmp/mark
cat /tmp/mark
