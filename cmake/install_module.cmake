# What `cmake --install` of a 32-bit build puts where: the module alone, which meets the services of its
# own host, and the page that says what it shows and asks for. And its Debian package, by `cpack`: an
# i386 one, which dpkg-buildpackage does not make on a machine that builds for another architecture.
#
#     lib/i386-linux-gnu/filestore/filestore.so
#     share/doc/filestore-module/
#
# The folder is that of the architecture: the native modules may be installed beside it.
find_program(GZIP gzip REQUIRED)
set(changelog ${PROJECT_BINARY_DIR}/changelog)
configure_file(debian/changelog ${changelog} COPYONLY)
add_custom_command(OUTPUT ${changelog}.gz DEPENDS ${changelog} VERBATIM
    COMMAND ${GZIP} -9nfk ${changelog})
add_custom_target(module_changelog ALL DEPENDS ${changelog}.gz)

install(TARGETS filestore LIBRARY DESTINATION lib/i386-linux-gnu/filestore COMPONENT module)
install(FILES docs/module.md tests/system/exports.txt debian/copyright ${changelog}.gz
        DESTINATION share/doc/filestore-module COMPONENT module)

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL module)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_NAME filestore)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
file(STRINGS debian/control maintainer LIMIT_COUNT 1 REGEX "^Maintainer: ")
string(REPLACE "Maintainer: " "" CPACK_DEBIAN_PACKAGE_MAINTAINER "${maintainer}")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_MODULE_PACKAGE_NAME filestore-module)
set(CPACK_DEBIAN_MODULE_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_MODULE_PACKAGE_ARCHITECTURE i386)
# The packages of the machine that builds have other names, lib32stdc++6 there for libstdc++6 here;
# scripts/package.sh compares.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.34), libgcc-s1 (>= 3.0), libstdc++6 (>= 11)")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "encrypted, crash-safe store of keys and certificates - 32-bit module")
set(CPACK_COMPONENT_MODULE_DESCRIPTION
"The store as a module for a host that brings the services that it calls.")
# Files as they belong into a package, whatever the umask of whoever builds it.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
include(CPack)
