#!/bin/sh
# Makes the platform of the virtual board an older one until it reboots: its "sysupgrade" knows "-d SECONDS". There is
# an overlay, too, so that changed settings can be kept.
echo "DISTRIB_RELEASE='17.01.7'" > /etc/openwrt_release
mkdir -p /overlay/upper/etc
