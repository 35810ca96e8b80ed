# What `cmake --install` puts where, as GNUInstallDirs names the places:
#
#     bin/fstore                        the command-line tool
#     lib/filestore/*.so                the modules, where tool and clients look for them
#     LIBDIR/libfilestore.so.1          the library for programs in C
#     include/filestore/                headers for clients; <includes are rooted here>
#     include/filestore/filestore.h     the header of the C library, alone
#     LIBDIR/libfilestore_client.a      what a client in C++ links, host and proxies
#     LIBDIR/ossl-modules/fstore.so     the OpenSSL provider, where a distribution's OpenSSL looks
#     LIBDIR/cmake/filestore/           find_package(filestore)
#     LIBDIR/pkgconfig/                 filestore.pc, and filestore-c.pc of the C library
#     lib/python3/dist-packages/        the Python package, where Debian's interpreter looks
#     share/                            manual pages, completions, documents, examples
#
# What an installed header refers to, a header or a document, is installed too;
# tests/system/install_test.sh looks.
#
# Each component is a Debian package, which debian/rules makes. The modules are one of their own ("modules"): the tool and the
# library ("library") both load them, and whoever has the one need not have the other.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Not LIBDIR: the tool finds it from its own place, whatever the distribution's layout.
set(FILESTORE_MODULE_DIR lib/filestore)

install(TARGETS fstore RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
install(TARGETS filestore x509cmn pkcs5 pkixkey
        LIBRARY DESTINATION ${FILESTORE_MODULE_DIR} COMPONENT modules)
install(TARGETS filestore_c EXPORT filestore
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT dev)
install(TARGETS provider
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/ossl-modules COMPONENT provider)
# Programs that load the provider do not know the prefix; below /usr the system's linker finds it.
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set_target_properties(provider PROPERTIES INSTALL_RPATH "$ORIGIN/..")
endif()
target_include_directories(filestore_c INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
set_target_properties(filestore_c PROPERTIES EXPORT_NAME c)

# One archive. A program that is a module itself, or hosts several registries, defines
# ModuleID; for others the archive has one.
add_library(filestore_client STATIC
    $<TARGET_OBJECTS:client> $<TARGET_OBJECTS:host> $<TARGET_OBJECTS:host_module_id>
    $<TARGET_OBJECTS:cmn> $<TARGET_OBJECTS:cmn_make_no_object>
    $<TARGET_OBJECTS:os_files> $<TARGET_OBJECTS:os_posix>)
target_link_libraries(filestore_client INTERFACE Threads::Threads ${CMAKE_DL_LIBS})
target_compile_features(filestore_client INTERFACE cxx_std_20)
target_compile_definitions(filestore_client INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
target_include_directories(filestore_client INTERFACE
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/filestore>)
# Where StoreHost looks for the modules last, wherever the tree has been moved to.
target_compile_definitions(filestore_client INTERFACE
    "$<INSTALL_INTERFACE:FILESTORE_INSTALLED_MODULES=\"$<INSTALL_PREFIX>/${FILESTORE_MODULE_DIR}\">")
set_target_properties(filestore_client PROPERTIES EXPORT_NAME client LINKER_LANGUAGE CXX)

# Of use to whoever starts the modules; proxies alone are `client`.
add_library(filestore_host INTERFACE)
target_link_libraries(filestore_host INTERFACE filestore_client)
set_target_properties(filestore_host PROPERTIES EXPORT_NAME host)

install(TARGETS filestore_client filestore_host EXPORT filestore
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(EXPORT filestore NAMESPACE filestore:: FILE filestoreTargets.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/filestore COMPONENT dev)

install(DIRECTORY api client cmn host
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/filestore COMPONENT dev
        FILES_MATCHING PATTERN *.h)
install(FILES capi/filestore.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/filestore COMPONENT dev)
install(FILES os/fs.h os/files.h os/handles.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/filestore/os COMPONENT dev)

configure_package_config_file(cmake/filestoreConfig.cmake.in
    ${PROJECT_BINARY_DIR}/filestoreConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/filestore
    PATH_VARS FILESTORE_MODULE_DIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/filestoreConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/filestoreConfig.cmake
              ${PROJECT_BINARY_DIR}/filestoreConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/filestore COMPONENT dev)

# The prefix is found from where the file is, so that a tree can be moved.
file(RELATIVE_PATH FILESTORE_UP /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
foreach(name filestore filestore-c)
    configure_file(cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
endforeach()
install(FILES ${PROJECT_BINARY_DIR}/filestore.pc ${PROJECT_BINARY_DIR}/filestore-c.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

set(FILESTORE_PYTHON_DIR lib/python3/dist-packages CACHE STRING
    "Where the Python package goes, below the prefix")
configure_file(cmake/python_metadata.in ${PROJECT_BINARY_DIR}/METADATA @ONLY)
install(DIRECTORY python/filestore DESTINATION ${FILESTORE_PYTHON_DIR} COMPONENT python
        PATTERN __pycache__ EXCLUDE)
install(FILES ${PROJECT_BINARY_DIR}/METADATA COMPONENT python
        DESTINATION ${FILESTORE_PYTHON_DIR}/filestore-${PROJECT_VERSION}.dist-info)

install(FILES fstore/completion/fstore.bash RENAME fstore
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tool)
# Every zsh looks into site-functions of its own prefix and of /usr/local; that of Debian has the
# files of packages, below /usr, in a folder of their own.
set(FILESTORE_ZSH_DIR ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr" AND EXISTS /etc/debian_version)
    set(FILESTORE_ZSH_DIR ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
endif()
install(FILES fstore/completion/_fstore DESTINATION ${FILESTORE_ZSH_DIR} COMPONENT tool)
install(FILES fstore/completion/fstore.fish
        DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT tool)

# Installs documents with the links between those of a component; what else they link to may not be
# there, and is named without a link.
function(install_documents component)
    foreach(document ${ARGN})
        set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${document})
        file(READ ${document} text)
        foreach(other ${ARGN})
            cmake_path(GET other FILENAME name)
            string(REGEX REPLACE "\\]\\((docs/|\\.\\./)?${name}\\)" "]<${name}>" text "${text}")
        endforeach()
        string(REGEX REPLACE "\\[([^]\n]+)\\]\\([^)]*\\)" "\\1" text "${text}")
        string(REGEX REPLACE "\\]<([a-zA-Z-]+\\.md)>" "](\\1)" text "${text}")
        cmake_path(GET document FILENAME name)
        file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/documents/${name} CONTENT "${text}" @ONLY)
        install(FILES ${PROJECT_BINARY_DIR}/documents/${name}
                DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/filestore COMPONENT ${component})
    endforeach()
endfunction()
install_documents(tool README.md CHANGELOG.md SECURITY.md docs/disk-format.md docs/crash-safety.md)
install_documents(dev docs/locking.md docs/module.md)
# For who wants them: what they name, the folder and the password file, is nothing to guess.
install(DIRECTORY systemd DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/filestore COMPONENT tool)
install(FILES examples/notes.c examples/notes.cpp examples/notes.py examples/store_key.cpp
              examples/client_module.cpp examples/load_client_module.cpp
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libfilestore-dev/examples COMPONENT dev)

include(sbom)
# The notices of what is compiled in, and what the build was made of.
install(FILES debian/copyright ${PROJECT_BINARY_DIR}/filestore.spdx.json
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/filestore COMPONENT tool)
