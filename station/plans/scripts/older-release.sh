#!/bin/sh
# Lets the virtual board play an older release until it reboots: its "sysupgrade" knows "-d SECONDS". It also gets an
# overlay, so that changed settings can be kept.
echo "DISTRIB_RELEASE='17.01.7'" > /etc/openwrt_release
mkdir -p /overlay/upper/etc
