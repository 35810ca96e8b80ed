# What `cmake --install` puts where, as GNUInstallDirs names the places:
#
#     bin/fstore                        the command-line tool
#     lib/filestore/*.so                the modules, where tool and clients look for them
#     include/filestore/                headers for clients; <includes are rooted here>
#     LIBDIR/libfilestore_client.a      what a client links, host and proxies
#     LIBDIR/cmake/filestore/           find_package(filestore)
#     LIBDIR/pkgconfig/filestore.pc
#     share/                            manual pages, completions, documents
#
# What an installed header refers to, a header or a document, is installed too;
# tests/system/install_test.sh looks.
#
# Component "tool" is for running, component "dev" for building against.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Not LIBDIR: the tool finds it from its own place, whatever the distribution's layout.
set(FILESTORE_MODULE_DIR lib/filestore)

install(TARGETS fstore RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
install(TARGETS filestore x509cmn pkcs5 pkixkey
        LIBRARY DESTINATION ${FILESTORE_MODULE_DIR} COMPONENT tool)

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
configure_file(cmake/filestore.pc.in ${PROJECT_BINARY_DIR}/filestore.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/filestore.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

install(FILES fstore/completion/fstore.bash RENAME fstore
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tool)
install(FILES fstore/completion/_fstore
        DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT tool)
install(FILES fstore/completion/fstore.fish
        DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT tool)

install(FILES README.md docs/disk-format.md docs/crash-safety.md
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/filestore COMPONENT tool)
install(FILES docs/locking.md
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/filestore COMPONENT dev)

include(package)
