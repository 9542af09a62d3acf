# How everything is compiled: one language level, strict warnings, hidden symbols, libraries side by side.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS ON) # the public header uses the compilers' common extensions for 16-bit bit fields
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
set(CMAKE_INSTALL_RPATH "$ORIGIN" "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

# Release keeps its symbols and lines: the tools, gdb and perf name functions with them. More of them would take a
# quarter of the time that the compilers need.
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -g1 -DNDEBUG")
set(CMAKE_C_FLAGS_RELEASE "-O2 -g1 -DNDEBUG")

add_library(encap_warnings INTERFACE)
target_compile_options(encap_warnings INTERFACE
  -Wall -Wextra -Wpedantic $<$<BOOL:${ENCAP_WERROR}>:-Werror> -Wshadow -Wconversion -Wsign-conversion -Wcast-qual -Wformat=2 -Wundef
  -Wmissing-declarations -Wpointer-arith -Wvla
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual -Wextra-semi>
  $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CXX_COMPILER_ID:Clang>>:-Wthread-safety -Wimplicit-fallthrough>
  $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CXX_COMPILER_ID:GNU>>:-Wduplicated-cond -Wlogical-op -Wuseless-cast>)

if(ENCAP_SANITIZE)
  add_compile_options(-fsanitize=${ENCAP_SANITIZE} -fno-omit-frame-pointer -g1)
  add_link_options(-fsanitize=${ENCAP_SANITIZE})
  add_compile_definitions(ENCAP_SANITIZED)
  if(ENCAP_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=all)
  endif()
  if(ENCAP_SANITIZE MATCHES "thread")
    add_compile_definitions(ENCAP_THREAD_SANITIZER)
  endif()
endif()

# The shared libraries' common shape: no exceptions and no run-time type information, calls through the GOT so that a
# process's own services take precedence, and a version script that names every exported symbol. A library stays loaded
# after dlclose(), since the services keep addresses of its points, and the system those of its fork handlers.
function(encap_shared_library target map)
  target_link_libraries(${target} PRIVATE encap_warnings)
  target_compile_options(${target} PRIVATE -fno-plt -fno-semantic-interposition
                         $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti>)
  target_link_options(${target} PRIVATE -Wl,--version-script=${map} -Wl,-z,now -Wl,-z,nodelete
                      -Wl,--as-needed)
  set_target_properties(${target} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
                        LINK_DEPENDS ${map})
endfunction()
