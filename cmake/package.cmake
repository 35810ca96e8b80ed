# Debian packages of what is installed, by `cpack -G DEB`; scripts/package.sh makes them
# with the right prefix and flags, and checks them.
find_program(GZIP gzip REQUIRED)

function(add_debian_documents package component)
    set(changelog ${PROJECT_BINARY_DIR}/debian/${package}/changelog)
    configure_file(cmake/debian/changelog.in ${changelog} @ONLY)
    add_custom_command(OUTPUT ${changelog}.gz
        COMMAND ${GZIP} -9nfk ${changelog} DEPENDS ${changelog} VERBATIM)
    add_custom_target(changelog_${component} ALL DEPENDS ${changelog}.gz)
    install(FILES ${changelog}.gz cmake/debian/copyright
            DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
endfunction()
add_debian_documents(filestore tool)
add_debian_documents(libfilestore-dev dev)

set(CPACK_PACKAGE_NAME filestore)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR filestore)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "encrypted, crash-safe store of keys and certificates")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL tool dev)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "filestore developers <filestore@packages.invalid>")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Files as they belong into a package, whatever the umask of whoever builds it.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME filestore)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_TOOL_DESCRIPTION
"A database of keys, certificates, CRLs and settings in a folder of small files,
with a command-line tool and the modules that other programs load.
Whatever is interrupted, a record is its old or its new state.")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libfilestore-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "filestore (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEV_DESCRIPTION
"Headers, a static library, a CMake package and a pkg-config file for programs
that use a filestore database.")
include(CPack)
