#!/bin/sh
# Spoils the virtual board: checks a second port that has no cable, removes the second radio, and demands more memory
# than the board has. Then reloads the table of settings, which every run of port_change does.
config=/etc/sysconfig/.firewall/.config
sed -i 's/^SYSTEM_CHECK_ETH_STATUS.*/SYSTEM_CHECK_ETH_STATUS = "eth0_ethtool_0 eth1_ethtool_0"/
    s/^SYSTEM_MEMORY_MINIMUM.*/SYSTEM_MEMORY_MINIMUM = "200000"/' $config
ip link del wlan1
fabtestd port_change
