# Debian packages, by `cpack` in the build directory: the shared libraries, what builds against them, the tools, encapd.
# Configure with -DCMAKE_INSTALL_PREFIX=/usr for the libraries to lie in the architecture's own directory.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME mpls-egress-encap-db)
set(CPACK_PACKAGE_VENDOR "MPLS egress encapsulation database")
set(CPACK_PACKAGE_CONTACT "${encap_maintainer}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
if(TARGET encapd)
  list(APPEND CPACK_COMPONENTS_ALL encapd)
endif()
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# What the packages need comes from what their files link. What others need who link the libraries is written here and
# not generated, since CPack would add scripts that call ldconfig, which the trigger does already.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})

set(library libmpls-egress-encap-db${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${library})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/deb/triggers ${PROJECT_BINARY_DIR}/deb/shlibs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "MPLS egress encapsulation database: shared libraries
The database of tunnels and next hops that the processes of a router's
forwarding plane keep in one shared-memory window, the services below it, the
owner that creates or attaches it, the client library of daemons, and the
inspector that checks and repairs it.")
file(WRITE ${PROJECT_BINARY_DIR}/deb/triggers "activate-noawait ldconfig\n")
set(shlibs)
foreach(target ${encap_shared_libraries})
  string(APPEND shlibs "lib${target} ${PROJECT_VERSION_MAJOR} ${library} (>= ${PROJECT_VERSION})\n")
endforeach()
file(WRITE ${PROJECT_BINARY_DIR}/deb/shlibs "${shlibs}")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libmpls-egress-encap-db-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${library} (= ${PROJECT_VERSION}), libc6-dev")
set(CPACK_DEBIAN_DEV_DESCRIPTION "MPLS egress encapsulation database: headers and manuals
Headers for C and C++, pkg-config and CMake packages, manual pages of the calls
and of the concepts, and example daemons.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME mpls-egress-encap-db-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${library} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "MPLS egress encapsulation database: operator's command
encapctl looks into a database, alive or dead, checks and repairs it, reads its
trace and switches its debug points. encap_demo shows the database at work.")

set(CPACK_DEBIAN_ENCAPD_PACKAGE_NAME encapd)
set(CPACK_DEBIAN_ENCAPD_PACKAGE_SECTION net)
set(CPACK_DEBIAN_ENCAPD_PACKAGE_DEPENDS "${library} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_ENCAPD_DESCRIPTION "MPLS egress encapsulation database: daemon beside a router
encapd listens for a router that hands its routes on as a forwarding plane
manager gets them, and keeps the encapsulations of these routes in a database.")
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/drop_ldconfig_scripts.cmake)
include(CPack)
