# Stand-in for those parts of the OpenWrt build system that the package's Makefile uses, with the same names and
# meaning.
INCLUDE_DIR:=$(TOPDIR)
CP:=cp -fpR
INSTALL_DIR:=install -d -m0755
INSTALL_BIN:=install -m0755
INSTALL_CONF:=install -m0600
