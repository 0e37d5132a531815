# What is installed, and the packages that are made of it: `cpack` in the build folder.
#   runtime      the library, the tools, their manual pages, gdb's printers
#   development  headers, the CMake package, ktbase.pc, what programs are linked with
include(CMakePackageConfigHelpers)
set(package ${CMAKE_INSTALL_LIBDIR}/cmake/KTBase)

install(TARGETS KTBase EXPORT KTBase
    RUNTIME COMPONENT runtime
    LIBRARY COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE COMPONENT development)
install(FILES README.md CHANGELOG.md SECURITY.md TYPE DOC COMPONENT runtime)
install(DIRECTORY docs TYPE DOC COMPONENT development FILES_MATCHING PATTERN *.md
    PATTERN man EXCLUDE PATTERN samples EXCLUDE)
if(KTBASE_TOOLS)
    install(TARGETS ${KTBASE_TOOLS} RUNTIME COMPONENT runtime)
endif()
if(NOT WIN32)
    # gdb looks here for the printers of /usr/lib/libKTBase.so.*, where the package has it.
    install(FILES gdb/KTBase-gdb.py COMPONENT runtime
        DESTINATION ${CMAKE_INSTALL_DATADIR}/gdb/auto-load/usr/${CMAKE_INSTALL_LIBDIR}
        RENAME $<TARGET_FILE_NAME:KTBase>-gdb.py)
    foreach(tool ${KTBASE_TOOLS})
        install(FILES docs/man/${tool}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
            COMPONENT runtime)
    endforeach()
endif()

install(DIRECTORY inc/core/KTBase TYPE INCLUDE COMPONENT development FILES_MATCHING PATTERN *.h)
write_basic_package_version_file(KTBaseConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(EXPORT KTBase NAMESPACE KTBase:: FILE KTBaseConfig.cmake DESTINATION ${package}
    COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/KTBaseConfigVersion.cmake DESTINATION ${package}
    COMPONENT development)
# The prefix is found from where the file lies, so that an installation can be moved.
set(pkgconfig ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
string(REGEX REPLACE "[^/]+" ".." prefix_of_pc ${pkgconfig})
set(library_of_pc KTBase)
if(WIN32)
    set(library_of_pc :libKTBase.dll.a)  # found by a program that links with -static, too
endif()
configure_file(cmake/ktbase.pc.in ktbase.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ktbase.pc DESTINATION ${pkgconfig} COMPONENT development)

if(NOT PROJECT_IS_TOP_LEVEL)
    return()
endif()
set(CPACK_PACKAGE_VENDOR KTBase)
set(CPACK_PACKAGE_CONTACT "KTBase maintainers")
set(CPACK_PACKAGE_CHECKSUM SHA256)
set(CPACK_STRIP_FILES ON)
if(WIN32)
    set(CPACK_GENERATOR ZIP)
    set(CPACK_PACKAGE_FILE_NAME ktbase-${PROJECT_VERSION}-win64-mingw)
else()
    set(CPACK_GENERATOR DEB)
    set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
    set(CPACK_DEB_COMPONENT_INSTALL ON)
    set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ktbase)
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
    set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ktbase-dev)
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "ktbase (= ${PROJECT_VERSION})")
    set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "The library and its tools.")
    set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
        "Headers, CMake package and pkg-config file for programs that use the library.")
endif()
include(CPack)
