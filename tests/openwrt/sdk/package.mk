# The caller sets BUILD_DIR. "fields" prints the package's metadata; "root" rebuilds the package and installs it into
# BUILD_DIR/root.
PKG_BUILD_DIR:=$(BUILD_DIR)/$(PKG_NAME)-$(PKG_VERSION)
PKG_INSTALL_DIR:=$(PKG_BUILD_DIR)/ipkg-install

define BuildPackage
$(eval $(Package/$(1)))
$(foreach field,PKG_RELEASE SECTION CATEGORY TITLE Package/$(1)/description,\
  $(if $($(field)),,$(error Package/$(1) lacks $(field))))
fields:
	@echo target $(notdir $(CURDIR))
	@echo version $(PKG_VERSION)
	@echo depends $(DEPENDS)
	@echo conffiles $(Package/$(1)/conffiles)
root:
	rm -rf $(BUILD_DIR)
	mkdir -p $(PKG_BUILD_DIR)
	$$(Build/Prepare)
	$$(Build/Compile)
	$$(call Package/$(1)/install,$(BUILD_DIR)/root)
endef
