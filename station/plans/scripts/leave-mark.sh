#!/bin/sh
# Shows that a script of the station runs on the board: leaves a file there, and prints where it ran.
uname -m > /tmp/mark
cat /tmp/mark
