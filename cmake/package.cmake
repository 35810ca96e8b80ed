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
add_debian_documents(filestore-modules modules)
add_debian_documents(libfilestore${PROJECT_VERSION_MAJOR} library)
add_debian_documents(libfilestore-dev dev)
add_debian_documents(python3-filestore python)
add_debian_documents(openssl-provider-filestore provider)

set(CPACK_PACKAGE_NAME filestore)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR filestore)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "encrypted, crash-safe store of keys and certificates")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL tool modules library dev python provider)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "filestore developers <filestore@packages.invalid>")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Files as they belong into a package, whatever the umask of whoever builds it.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME filestore)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "filestore-modules (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_TOOL_DESCRIPTION
"The command-line tool for a database of keys, certificates, CRLs and settings
in a folder of small files.
Whatever is interrupted, a record is its old or its new state.")

# What tool and library both load. In the tool's package, a program that uses the library would
# install a command; in the library's, two versions of the library could not be installed at once,
# since the modules have no version in their names.
set(CPACK_DEBIAN_MODULES_PACKAGE_NAME filestore-modules)
set(CPACK_DEBIAN_MODULES_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_MODULES_DESCRIPTION
"The modules that the filestore tool, the library and other programs load to
read and write a database of keys, certificates, CRLs and settings.")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libfilestore${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS "filestore-modules (= ${PROJECT_VERSION})")
# CPack generates this file for all packages or for none, and the modules have none.
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/debian/shlibs @ONLY CONTENT
"libfilestore @PROJECT_VERSION_MAJOR@ libfilestore@PROJECT_VERSION_MAJOR@ (>= @PROJECT_VERSION@)\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA
    ${PROJECT_BINARY_DIR}/debian/shlibs ${PROJECT_SOURCE_DIR}/cmake/debian/library/symbols
    ${PROJECT_SOURCE_DIR}/cmake/debian/library/triggers)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION
"The C library for programs that keep keys, certificates, CRLs and settings in
a filestore database.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libfilestore-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "libfilestore${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), filestore-modules (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEV_DESCRIPTION
"Headers, libraries, a CMake package and pkg-config files for programs in C
and C++ that use a filestore database.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-filestore)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
    "python3 (>= 3.11), libfilestore${PROJECT_VERSION_MAJOR} (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/cmake/debian/python/postinst
    ${PROJECT_SOURCE_DIR}/cmake/debian/python/prerm)
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENT_PYTHON_DESCRIPTION
"A Python package for programs that keep keys, certificates, CRLs and settings
in a filestore database.")

set(CPACK_DEBIAN_PROVIDER_PACKAGE_NAME openssl-provider-filestore)
set(CPACK_DEBIAN_PROVIDER_PACKAGE_SECTION libs)
# libfilestore is built beside it, and no installed package has it yet.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PROVIDER_PACKAGE_DEPENDS
    "libfilestore${PROJECT_VERSION_MAJOR} (>= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_PROVIDER_DESCRIPTION
"An OpenSSL provider: programs that use OpenSSL read keys, certificates and
CRLs of a filestore database, by URI or by a small file that names a record.")
include(CPack)
