# DEB packages, one per install component, made by `cpack` in a build tree (scripts/package):
#
#   bgpcommon_lib     libbgpcommon0.1     the shared library, named after its soname so that
#                                         libraries of two ABIs can be installed side by side;
#                                         LICENSE and CHANGELOG.md
#   bgpcommon_dev     libbgpcommon-dev    headers, bgpcommon/version.h, the CMake package,
#                                         bgpcommon.pc and the libbgpcommon.so link
#   bgpcommon_tools   bgpcommon-tools     the bgpcommon command, its manual page and bash completion
#   bgpcommon_python  python3-bgpcommon   the Python module, for the interpreter it was built for
#
# Each depends on the library package of exactly this version; the library's own dependencies
# (fmt, abseil, the C and C++ runtimes) are found by dpkg-shlibdeps (package dpkg-dev).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME bgpcommon)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "bgpcommon")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL bgpcommon_lib bgpcommon_dev)
if(TARGET bgpcommon_tool)
  list(APPEND CPACK_COMPONENTS_ALL bgpcommon_tools)
endif()
if(TARGET bgpcommon_python)
  list(APPEND CPACK_COMPONENTS_ALL bgpcommon_python)
endif()
set(CPACK_COMPONENT_BGPCOMMON_DEV_DEPENDS bgpcommon_lib)
set(CPACK_COMPONENT_BGPCOMMON_TOOLS_DEPENDS bgpcommon_lib)
set(CPACK_COMPONENT_BGPCOMMON_PYTHON_DEPENDS bgpcommon_lib)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "bgpcommon maintainers <bgpcommon@example.org>")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The tool and the module link the library of this very build, which no installed package holds
# yet: dpkg-shlibdeps finds it here, and the component dependency above names its package.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/lib)

set(CPACK_DEBIAN_BGPCOMMON_LIB_PACKAGE_NAME libbgpcommon${BGPCOMMON_SOVERSION})
set(CPACK_DEBIAN_BGPCOMMON_LIB_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_BGPCOMMON_LIB_DESCRIPTION "data types for a BGP routing agent: shared library
Route targets, route keys, IGP result records and their shared-memory tables, the message
serializer, identifier allocators and events tracking, on one type framework.")
set(CPACK_DEBIAN_BGPCOMMON_DEV_PACKAGE_NAME libbgpcommon-dev)
set(CPACK_DEBIAN_BGPCOMMON_DEV_PACKAGE_SECTION libdevel)
# The headers include fmt and abseil; the CMake package finds both.
set(CPACK_DEBIAN_BGPCOMMON_DEV_PACKAGE_DEPENDS "libfmt-dev, libabsl-dev")
set(CPACK_DEBIAN_BGPCOMMON_DEV_DESCRIPTION "data types for a BGP routing agent: development files
Headers, the CMake package (find_package(bgpcommon)) and the pkg-config file.")
set(CPACK_DEBIAN_BGPCOMMON_TOOLS_PACKAGE_NAME bgpcommon-tools)
set(CPACK_DEBIAN_BGPCOMMON_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_BGPCOMMON_TOOLS_DESCRIPTION "data types for a BGP routing agent: the bgpcommon command
Values, route targets and shared-memory IGP result tables from the shell.")
set(CPACK_DEBIAN_BGPCOMMON_PYTHON_PACKAGE_NAME python3-bgpcommon)
set(CPACK_DEBIAN_BGPCOMMON_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_BGPCOMMON_PYTHON_PACKAGE_DEPENDS "${BGPCOMMON_PYTHON_DEB_DEPENDS}")
set(CPACK_DEBIAN_BGPCOMMON_PYTHON_DESCRIPTION "data types for a BGP routing agent: Python module
The library's registered values, route targets and IGP result tables from Python.")

include(CPack)
