# Configures a release in the build folder itself, with the target's flags in the environment; builds and installs. The
# caller's toolchain file makes Debian's compiler build for the board's C library.
define Build/Compile
	cd $(PKG_BUILD_DIR) && CFLAGS="-Os -pipe -mips32r2" CXXFLAGS="-Os -pipe -mips32r2" cmake -G Ninja \
		-DCMAKE_SYSTEM_NAME=Linux -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
		-DCMAKE_C_FLAGS_RELEASE=-DNDEBUG -DCMAKE_CXX_FLAGS_RELEASE=-DNDEBUG \
		-DCMAKE_TOOLCHAIN_FILE=$(TOOLCHAIN_FILE) $(CMAKE_OPTIONS) .
	DESTDIR=$(PKG_INSTALL_DIR) cmake --build $(PKG_BUILD_DIR) --target install
endef
