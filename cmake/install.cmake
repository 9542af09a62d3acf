# The installed tree, in four components: runtime (the shared libraries), dev (headers and what finds them), tools, encapd.
# Headers are those of the contracts alone: the public one, the services', the owner's.
include(CMakePackageConfigHelpers)

set(encap_services_headers
  avl/avl.h ed/ed.h ed/ed_catalogue.h ltrace/ltrace.h oxa_errmsg/oxa_errmsg.h ptd/ptd.h shmwin/shmwin.h)
list(TRANSFORM encap_services_headers PREPEND platforms/vrellis/services/)

set(encap_shared_libraries mpls_egress_encap_db vrellis_services encap_db_owner encap_client encap_inspect)
install(TARGETS ${encap_shared_libraries} EXPORT mpls_egress_encap_db
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
install(FILES platforms/vrellis/encap-id/src/mpls_egress_encap_db.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(FILES ${encap_services_headers} platforms/vrellis/owner/encap_db_owner.h
  platforms/vrellis/client/encap_client.h platforms/vrellis/inspect/encap_inspect.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vrellis COMPONENT dev)

# pkg-config and CMake packages find the tree from where they lie in it, so that it can be moved.
set(encap_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/mpls_egress_encap_db)
file(RELATIVE_PATH encap_prefix_from_pc /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
foreach(module mpls_egress_encap_db vrellis_services encap_db_owner encap_client encap_inspect)
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

# Manual pages, compressed as Debian has them. A page of section 3 has a link for each of its calls.
function(encap_manual page component)
  cmake_path(GET page EXTENSION LAST_ONLY section)
  string(SUBSTRING ${section} 1 1 section)
  set(directory ${PROJECT_BINARY_DIR}/man/man${section})
  file(MAKE_DIRECTORY ${directory})
  configure_file(docs/man/${page} ${directory}/${page} COPYONLY)
  execute_process(COMMAND gzip -9nf ${page} WORKING_DIRECTORY ${directory} COMMAND_ERROR_IS_FATAL ANY)
  set(pages ${directory}/${page}.gz)
  foreach(call ${ARGN})
    file(CREATE_LINK ${page}.gz ${directory}/${call}.${section}.gz SYMBOLIC)
    list(APPEND pages ${directory}/${call}.${section}.gz)
  endforeach()
  install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
endfunction()

encap_manual(mpls-egress-encap-db.7 dev)
encap_manual(mpls_egress_encap_db.3 dev
  mpls_egress_encap_db_init eencap_lock_init vrl_egress_encap_db_lock vrl_find_egress_encap
  vrl_find_and_share_egress_encap vrl_find_and_share_egress_nh vrl_insert_egress_encap
  vrl_egress_encap_nh_insert_attach vrl_find_and_set_egress_nh_ref vrl_egress_encap_nh_detach
  vrl_delete_and_free_egress_encap_with_nh_key vrl_can_delete_egr_nh_data_from_encap_db
  vrl_update_egr_nh_data_in_encap_db vrl_get_encap_key_and_aux_data_from_nh)
encap_manual(encap_db_open.3 dev encap_db_close encap_db_destroy)
encap_manual(encap_client.3 dev
  encap_client_open encap_client_close encap_client_enter encap_client_release encap_client_each
  encap_client_refresh_begin encap_client_refresh_end encap_client_leave encap_client_reclaim encap_client_list)
encap_manual(encap_inspect.3 dev encap_db_check encap_db_deaths encap_db_repair)
if(TARGET encapctl)
  encap_manual(encapctl.1 tools)
endif()
if(TARGET encap_demo)
  encap_manual(encap_demo.1 tools)
endif()

if(TARGET encapd)
  encap_manual(encapd.8 encapd)
  configure_file(packaging/encapd.service.in ${PROJECT_BINARY_DIR}/encapd.service @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/encapd.service DESTINATION lib/systemd/system COMPONENT encapd)
  install(TARGETS encapd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT encapd)
endif()

# What every Debian package tells of itself.
set(encap_maintainer "MPLS egress encapsulation database maintainers <maintainers@encap-db.example>")
set(encap_release_date "Mon, 23 Nov 2026 00:00:00 +0000")
configure_file(packaging/changelog.in ${PROJECT_BINARY_DIR}/deb/changelog @ONLY)
execute_process(COMMAND gzip -9nf changelog WORKING_DIRECTORY ${PROJECT_BINARY_DIR}/deb COMMAND_ERROR_IS_FATAL ANY)
foreach(component_package runtime:libmpls-egress-encap-db${PROJECT_VERSION_MAJOR} dev:libmpls-egress-encap-db-dev
                          tools:mpls-egress-encap-db-tools encapd:encapd)
  string(REPLACE ":" ";" pair ${component_package})
  list(GET pair 0 component)
  list(GET pair 1 package)
  install(FILES packaging/copyright ${PROJECT_BINARY_DIR}/deb/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
endforeach()

foreach(tool encapctl encap_demo)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  endif()
endforeach()
if(TARGET encapctl)
  install(FILES platforms/vrellis/tools/completion/encapctl
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
endif()
install(FILES examples/routes.txt DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/mpls-egress-encap-db/examples
  COMPONENT tools)
install(FILES examples/daemon.c examples/daemon.cc examples/after_a_death.c
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/mpls-egress-encap-db/examples COMPONENT dev)
