# What every room of the house builds with. Flags here belong to targets; CFLAGS, CXXFLAGS and LDFLAGS
# of whoever builds come first and are never replaced.

option(KIV_WARNINGS_AS_ERRORS "Stop at the first compiler warning" OFF)
set(KIV_SANITIZE "" CACHE STRING "Sanitizers for everything, for example address,undefined or thread")

if(KIV_SANITIZE)
  add_compile_options(-fsanitize=${KIV_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${KIV_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    # These two want run-time type information, which the libraries are built without.
    add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-fno-sanitize=function,vptr>)
  endif()
endif()

option(KIV_FUZZ "Build the fuzzers instead of the tests (needs clang)" OFF)
if(KIV_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link) # tells the fuzzers which branches an input has reached
endif()

# Counts which lines and branches of the product are reached. The counts are in a file from the first moment on, so that
# they outlive a process that is killed, replaced by exec or never told that it has forked. Processes share the file, so
# that each step of a count is atomic: one that got lost would look like a way of a condition that nobody has taken.
option(KIV_COVERAGE "Count what of drivers/src is reached (needs clang; scripts/test coverage)" OFF)
add_library(kiv-coverage INTERFACE)
if(KIV_COVERAGE)
  target_compile_options(kiv-coverage INTERFACE
    -fprofile-instr-generate -fcoverage-mapping -fprofile-update=atomic "SHELL:-mllvm -runtime-counter-relocation")
  target_link_options(kiv-coverage INTERFACE -fprofile-instr-generate)
endif()

add_library(kiv-warnings INTERFACE)
target_compile_options(kiv-warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2 -Wundef -Wcast-align
  -Wpointer-arith -Wwrite-strings -Wvla
  $<$<BOOL:${KIV_WARNINGS_AS_ERRORS}>:-Werror>
  $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wcast-align=strict -Wlogical-op -Wduplicated-cond>
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast -Wnon-virtual-dtor -Wextra-semi>
  $<$<COMPILE_LANGUAGE:C>:-Wstrict-prototypes -Wmissing-prototypes>)

# Linking through the C driver keeps the C++ run time out; CMake would add it back from this list.
macro(kiv_link_as_c target)
  set(CMAKE_CXX_IMPLICIT_LINK_LIBRARIES "")
  set_target_properties(${target} PROPERTIES LINKER_LANGUAGE C)
endmacro()

# A shared library as the device gets it: nothing undefined, nothing writable after relocation, small.
function(kiv_harden target)
  target_link_options(${target} PRIVATE
    -Wl,-z,relro,-z,now,-z,noexecstack -Wl,--as-needed -Wl,--build-id=none)
  if(NOT KIV_SANITIZE)
    target_link_options(${target} PRIVATE -Wl,-z,defs)
  endif()
endfunction()

# A library that every program loads: one page less between its segments, and no start files. Those of a shared library
# serve C++ destructors at unload, of which there are none, and bring names for the loader to look up.
function(kiv_load_fast target)
  target_link_options(${target} PRIVATE -Wl,-z,noseparate-code)
  if(NOT KIV_SANITIZE AND NOT KIV_COVERAGE)
    target_link_options(${target} PRIVATE -nostartfiles)
  endif()
endfunction()

# With KIV_STATIC: kiv::<name>_static, of the shared library's objects, and what else such a program is linked with.
function(kiv_add_static name component)
  if(KIV_STATIC)
    add_library(kiv-${name}-static STATIC $<TARGET_OBJECTS:kiv-${name}>)
    add_library(kiv::${name}_static ALIAS kiv-${name}-static)
    kiv_link_as_c(kiv-${name}-static)
    target_link_libraries(kiv-${name}-static PUBLIC ${ARGN})
    target_include_directories(kiv-${name}-static PUBLIC
      $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    set_target_properties(kiv-${name}-static PROPERTIES OUTPUT_NAME kiv-${name} EXPORT_NAME ${name}_static)
    install(TARGETS kiv-${name}-static EXPORT kiv-drivers-targets
      ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${component})
  endif()
endfunction()

# Installs <name>.pc. The prefix is filled in when it is installed, so that cmake --install --prefix holds.
function(kiv_install_pkgconfig name component)
  foreach(dir LIBDIR INCLUDEDIR)
    set(pc_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
    if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
      set(pc_${dir} "${CMAKE_INSTALL_${dir}}")
    endif()
  endforeach()
  set(pc_prefix "@CMAKE_INSTALL_PREFIX@")
  configure_file(${name}.pc.in pkgconfig/${name}.pc.in @ONLY)
  set(here "${CMAKE_CURRENT_BINARY_DIR}/pkgconfig/${name}.pc")
  install(CODE "configure_file([[${here}.in]] [[${here}]] @ONLY)" COMPONENT ${component})
  install(FILES ${here} DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT ${component})
endfunction()
