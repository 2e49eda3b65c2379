# What `cmake --install` puts where, and the packages that CPack makes of it. Two components: `program`, for everybody, and
# `library`, for those who build on the core.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS vintrel-cli RUNTIME COMPONENT program)
install(FILES packaging/man/vintrel-cli.1 DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT program)
install(FILES packaging/completions/vintrel-cli.bash RENAME vintrel-cli
    DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" COMPONENT program)
install(FILES packaging/completions/vintrel-cli.zsh RENAME _vintrel-cli
    DESTINATION "${CMAKE_INSTALL_DATADIR}/zsh/site-functions" COMPONENT program)
install(FILES packaging/completions/vintrel-cli.fish
    DESTINATION "${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d" COMPONENT program)
install(FILES README.md README.da.md CHANGELOG.md DESTINATION "${CMAKE_INSTALL_DOCDIR}" COMPONENT program)

# find_package(Vintrel) gives Vintrel::Core.
set_target_properties(VintrelCore PROPERTIES EXPORT_NAME Core)
set_target_properties(CVintrel PROPERTIES EXPORT_NAME System)
install(TARGETS VintrelCore CVintrel EXPORT VintrelTargets
    ARCHIVE COMPONENT library
    INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/vintrel")
foreach(headers Sources/VintrelCore Sources/CVintrel/include/CVintrel)
    install(DIRECTORY ${headers} DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/vintrel" COMPONENT library
        FILES_MATCHING PATTERN "*.h")
endforeach()
set(package_folder "${CMAKE_INSTALL_LIBDIR}/cmake/Vintrel")
install(EXPORT VintrelTargets NAMESPACE Vintrel:: DESTINATION "${package_folder}" COMPONENT library)
configure_package_config_file(cmake/VintrelConfig.cmake.in "${CMAKE_CURRENT_BINARY_DIR}/VintrelConfig.cmake"
    INSTALL_DESTINATION "${package_folder}")
# Names may still change with every version before the first one.
write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/VintrelConfigVersion.cmake"
    COMPATIBILITY SameMinorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/VintrelConfig.cmake"
    "${CMAKE_CURRENT_BINARY_DIR}/VintrelConfigVersion.cmake" DESTINATION "${package_folder}" COMPONENT library)

set(CPACK_PACKAGE_NAME vintrel-cli)
set(CPACK_PACKAGE_VENDOR vintrel)
set(CPACK_PACKAGE_CONTACT "vintrel-cli <vintrel-cli@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "gets files back from damaged, formatted and emptied disks")
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DIRECTORY "${CMAKE_BINARY_DIR}/packages")

# One Debian package each; what the program needs is read off the program itself.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_NAME vintrel-cli)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_RECOMMENDS "util-linux, smartmontools")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libvintrel-dev)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS "libutf8proc-dev, zlib1g-dev")
set(CPACK_COMPONENT_PROGRAM_DESCRIPTION "gets files back from damaged, formatted and emptied disks")
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "reads partitions, file systems and files from damaged disks: the library")

# The archive of a static build holds the program and what belongs to it.
set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
if(VINTREL_STATIC)
    set(CPACK_COMPONENTS_ALL program)
    string(TOLOWER "${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR}-static" CPACK_SYSTEM_NAME)
endif()
set(CPACK_SOURCE_GENERATOR TGZ)
set(CPACK_SOURCE_IGNORE_FILES "/build/;/\\.git/;/\\.cache/")
include(CPack)
