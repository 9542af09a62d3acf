# Debian packages, by `cpack` in the build directory: the shared libraries, what builds against them, the tools.
# Configure with -DCMAKE_INSTALL_PREFIX=/usr for the libraries to lie in the architecture's own directory.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME mpls-egress-encap-db)
set(CPACK_PACKAGE_VENDOR "the MPLS egress encapsulation database's developers")
set(CPACK_PACKAGE_CONTACT "${CPACK_PACKAGE_VENDOR} <root@localhost>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# What the packages need comes from what their files link; the libraries tell that of themselves to others.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})

set(library libmpls-egress-encap-db${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${library})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/deb/triggers)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "MPLS egress encapsulation database: shared libraries
 The database of tunnels and next hops that the processes of a router's forwarding plane keep in one shared-memory
 window, the services below it, and the owner that creates or attaches it.")
file(WRITE ${PROJECT_BINARY_DIR}/deb/triggers "activate-noawait ldconfig\n")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libmpls-egress-encap-db-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${library} (= ${PROJECT_VERSION}), libc6-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION "MPLS egress encapsulation database: headers and what finds them
 Headers for C and C++, pkg-config and CMake packages, the manual of its concepts, and two example daemons.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME mpls-egress-encap-db-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${library} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "MPLS egress encapsulation database: the operator's command and a demonstration
 encapctl looks into a database, alive or dead, checks and repairs it, reads its trace and switches its debug points.")
include(CPack)
