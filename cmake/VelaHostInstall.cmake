# What `cmake --install` puts where. Components: runtime (the library), dev (headers, pkg-config
# file, CMake package), tools, doc.
include_guard()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Headers say <VelaHost_OS/...>: the directory above is the one to search.
set(includedir "${CMAKE_INSTALL_INCLUDEDIR}/velahost")

# A 32-bit library asks its users to be built like it, whatever their machine's own word size.
set(word_size_option)
set(any_word_size)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    set(word_size_option -m32)
    set(any_word_size ARCH_INDEPENDENT)
    target_compile_options(velahost INTERFACE $<INSTALL_INTERFACE:-m32>)
    target_link_options(velahost INTERFACE $<INSTALL_INTERFACE:-m32>)
endif()

install(TARGETS velahost EXPORT velahost
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT runtime NAMELINK_COMPONENT dev
    FILE_SET HEADERS DESTINATION "${includedir}" COMPONENT dev)

set(configdir "${CMAKE_INSTALL_LIBDIR}/cmake/velahost")
set(generated "${PROJECT_BINARY_DIR}/install")
write_basic_package_version_file("${generated}/velahostConfigVersion.cmake"
    COMPATIBILITY SameMajorVersion ${any_word_size})
install(EXPORT velahost NAMESPACE velahost:: FILE velahostConfig.cmake
    DESTINATION "${configdir}" COMPONENT dev)
install(FILES "${generated}/velahostConfigVersion.cmake"
    DESTINATION "${configdir}" COMPONENT dev)

# Found from where the file lies, so that an installation may be moved.
file(RELATIVE_PATH prefix "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" /)
string(REGEX REPLACE "/$" "" prefix "${prefix}")
configure_file(cmake/velahost.pc.in "${generated}/velahost.pc" @ONLY)
install(FILES "${generated}/velahost.pc"
    DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT dev)

install(FILES README.md CHANGELOG.md CONTRIBUTING.md
    DESTINATION "${CMAKE_INSTALL_DOCDIR}" COMPONENT doc)
install(DIRECTORY abi docs examples DESTINATION "${CMAKE_INSTALL_DOCDIR}" COMPONENT doc
    PATTERN CMakeLists.txt EXCLUDE
    PATTERN Doxyfile EXCLUDE
    PATTERN figures EXCLUDE
    PATTERN man EXCLUDE
    PATTERN mainpage.md EXCLUDE)
