# Debian packages, one for each component that has anything to install. To be included last, when
# all of that is known. scripts/package builds them.
include_guard()

set(VELAHOST_MAINTAINER "libvelahost maintainers <maintainers@velahost.example>" CACHE STRING
    "Whom the packages name as their maintainer")
set(debian_version "${PROJECT_VERSION}-1")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "${VELAHOST_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SOURCE libvelahost)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
endif()

set(debian "${PROJECT_BINARY_DIR}/debian")
set(soname "libvelahost.so.${PROJECT_VERSION_MAJOR}")
set(runtime_package "libvelahost${PROJECT_VERSION_MAJOR}")
set(same_runtime "${runtime_package} (= ${debian_version})")
# What the 32-bit library of g++ 12 on Debian 12 asks for; tests compare with what the files need.
set(c_runtime "libc6 (>= 2.34), libgcc-s1 (>= 3.0), libstdc++6 (>= 12)")

# velahost_debian_package(COMPONENT NAME SECTION MULTI_ARCH DEPENDS DESCRIPTION): the description's
# first line is its summary.
macro(velahost_debian_package component name section multi_arch depends description)
    string(TOUPPER ${component} prefix)
    set(CPACK_DEBIAN_${prefix}_PACKAGE_NAME ${name})
    # CPack has no variable for the field Multi-Arch; it writes a section's second line as it is.
    set(CPACK_DEBIAN_${prefix}_PACKAGE_SECTION "${section}\nMulti-Arch: ${multi_arch}")
    set(CPACK_DEBIAN_${prefix}_PACKAGE_DEPENDS "${depends}")
    set(CPACK_COMPONENT_${prefix}_DESCRIPTION "${description}")
endmacro()

velahost_debian_package(runtime ${runtime_package} libs same "${c_runtime}"
"host-side runtime services for 32-bit C++ processes
Exceptions that log themselves, locks, events, threads, timers, mutexes and
memory shared between processes, configuration files, sockets, and message
transports over System V queues and TCP. This is the shared library.")
velahost_debian_package(dev libvelahost-dev libdevel same "${same_runtime}"
"host-side runtime services, development files
Headers, pkg-config file and CMake package for programs that use libvelahost.
Both give what compiling and linking at 32 bit takes, on amd64 too.")
velahost_debian_package(tools libvelahost-tools utils foreign "${same_runtime}, ${c_runtime}"
"host-side runtime services, tools for operators
Programs that check configuration files, show and remove what processes using
libvelahost share (queues, process mutexes, memory files) and speak to their
servers, and a Wireshark dissector of the messages that these send over TCP.")
velahost_debian_package(doc libvelahost-doc doc foreign ""
"host-side runtime services, documentation
Formats, limits, binary interface and examples of libvelahost.")
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS libvelahost-doc)
set(CPACK_DEBIAN_DOC_PACKAGE_ARCHITECTURE all)

# Programs that were built with this version's headers may need what no earlier version has, so each
# symbol asks for this version.
file(STRINGS abi/exported-symbols.txt symbols)
list(TRANSFORM symbols REPLACE "(.+)" " \\1@Base ${PROJECT_VERSION}")
string(JOIN "\n" symbols ${symbols})
file(CONFIGURE OUTPUT "${debian}/symbols" @ONLY CONTENT
"@soname@ @runtime_package@ #MINVER#
* Build-Depends-Package: libvelahost-dev
@symbols@
")
file(CONFIGURE OUTPUT "${debian}/shlibs" @ONLY CONTENT
"libvelahost @PROJECT_VERSION_MAJOR@ @runtime_package@ (>= @PROJECT_VERSION@)
")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    "${debian}/symbols" "${debian}/shlibs" "${PROJECT_SOURCE_DIR}/packaging/debian/triggers")

# Staged files become what Debian asks for.
configure_file(packaging/debian/changelog.in "${debian}/changelog" @ONLY)
configure_file(packaging/debian/FinishPackages.cmake.in "${debian}/FinishPackages.cmake" @ONLY)
set(CPACK_PRE_BUILD_SCRIPTS "${debian}/FinishPackages.cmake")

get_cmake_property(CPACK_COMPONENTS_ALL COMPONENTS)
if(NOT TARGET velahost-client)
    # The dissector alone doesn't make a package of programs.
    list(REMOVE_ITEM CPACK_COMPONENTS_ALL tools)
endif()
include(CPack)
