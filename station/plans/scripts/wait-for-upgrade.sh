#!/bin/sh
# Waits for the upgrade in the background to have flashed.
until grep -q 'sysupgrade: done' /var/log/messages; do sleep 1; done
