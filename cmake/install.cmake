# The installed tree, in three components: runtime (the shared libraries), dev (headers and what finds them), tools.
# Headers are those of the contracts alone: the public one, the services', the owner's.
include(CMakePackageConfigHelpers)

set(encap_services_headers
  avl/avl.h ed/ed.h ed/ed_catalogue.h ltrace/ltrace.h oxa_errmsg/oxa_errmsg.h ptd/ptd.h shmwin/shmwin.h)
list(TRANSFORM encap_services_headers PREPEND platforms/vrellis/services/)

install(TARGETS mpls_egress_encap_db vrellis_services encap_db_owner EXPORT mpls_egress_encap_db
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
install(FILES platforms/vrellis/encap-id/src/mpls_egress_encap_db.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(FILES ${encap_services_headers} platforms/vrellis/owner/encap_db_owner.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vrellis COMPONENT dev)

# pkg-config and CMake packages find the tree from where they lie in it, so that it can be moved.
set(encap_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/mpls_egress_encap_db)
file(RELATIVE_PATH encap_prefix_from_pc /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
foreach(module mpls_egress_encap_db vrellis_services encap_db_owner)
  configure_file(cmake/${module}.pc.in ${PROJECT_BINARY_DIR}/${module}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${module}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endforeach()
configure_package_config_file(cmake/mpls_egress_encap_dbConfig.cmake.in
  ${PROJECT_BINARY_DIR}/mpls_egress_encap_dbConfig.cmake INSTALL_DESTINATION ${encap_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/mpls_egress_encap_dbConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/mpls_egress_encap_dbConfig.cmake
              ${PROJECT_BINARY_DIR}/mpls_egress_encap_dbConfigVersion.cmake
  DESTINATION ${encap_cmake_dir} COMPONENT dev)
install(EXPORT mpls_egress_encap_db NAMESPACE mpls_egress_encap_db:: FILE mpls_egress_encap_dbTargets.cmake
  DESTINATION ${encap_cmake_dir} COMPONENT dev)

install(FILES docs/man/mpls-egress-encap-db.7 DESTINATION ${CMAKE_INSTALL_MANDIR}/man7 COMPONENT dev)
foreach(tool encapctl encap_demo)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  endif()
endforeach()
if(TARGET encapctl)
  install(FILES docs/man/encapctl.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  install(FILES platforms/vrellis/tools/completion/encapctl
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
endif()
install(FILES examples/routes.txt DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/mpls-egress-encap-db/examples
  COMPONENT tools)
install(FILES examples/daemon.c examples/daemon.cc
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/mpls-egress-encap-db/examples COMPONENT dev)
