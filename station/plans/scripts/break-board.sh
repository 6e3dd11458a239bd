#!/bin/sh
# Spoils the virtual board: the second port is the one without a cable, the second radio goes, and the memory that the
# board should have is more than it has. The table is then loaded anew, which every run of port_change does.
config=/etc/sysconfig/.firewall/.config
sed -i 's/^SYSTEM_CHECK_ETH_STATUS.*/SYSTEM_CHECK_ETH_STATUS = "eth0_ethtool_0 eth1_ethtool_0"/
    s/^SYSTEM_MEMORY_MINIMUM.*/SYSTEM_MEMORY_MINIMUM = "200000"/' $config
ip link del wlan1
fabtestd port_change
