# Where libkelr's platform comes from: the Android log, the modem diagnostics library and the
# modem message client (vex). src/ links three interface targets that stand for them:
# kelr_platform_liblog, kelr_platform_diag and kelr_platform_vex.
#
#   KELR_PLATFORM=host (the default): the stand-ins of platform/ for all three.
#   KELR_PLATFORM=system: the system's libraries, found by name as a device names them: liblog
#     (<android/log.h>), libvex_client (<vex/vex_client.h>) and libdiag (<diag/msg.h>). A host
#     has liblog (Debian: android-liblog-dev) but neither of the modem's libraries;
#     KELR_SYSTEM_STANDINS lists those of "vex" and "diag" that the stand-ins replace.
#
# The stand-ins stay separate libraries in every configuration: the simulated modem, the tools
# and the tests use them directly.
set(KELR_PLATFORM "host" CACHE STRING "The platform libraries libkelr links: host or system")
set_property(CACHE KELR_PLATFORM PROPERTY STRINGS host system)
set(KELR_SYSTEM_STANDINS "" CACHE STRING
    "With KELR_PLATFORM=system, the stand-ins that replace system libraries: vex, diag or both")

if(NOT KELR_PLATFORM MATCHES "^(host|system)$")
  message(FATAL_ERROR "KELR_PLATFORM must be host or system, not \"${KELR_PLATFORM}\"")
endif()
foreach(standin IN LISTS KELR_SYSTEM_STANDINS)
  if(NOT standin MATCHES "^(vex|diag)$")
    message(FATAL_ERROR "KELR_SYSTEM_STANDINS may name vex and diag, not \"${standin}\"")
  endif()
endforeach()

# Makes the interface target <target> stand for the system library <name> (lib<name>.so) with its
# header <header>. Debian keeps AOSP's libraries and headers in an android/ directory of their own.
function(kelr_use_system_library target name header)
  string(MAKE_C_IDENTIFIER "${name}" id)
  find_library(KELR_SYSTEM_${id}_LIBRARY NAMES ${name} PATH_SUFFIXES android)
  find_path(KELR_SYSTEM_${id}_INCLUDE_DIR ${header} PATH_SUFFIXES android)
  if(NOT KELR_SYSTEM_${id}_LIBRARY OR NOT KELR_SYSTEM_${id}_INCLUDE_DIR)
    message(FATAL_ERROR "KELR_PLATFORM=system: lib${name} or <${header}> not found "
                        "(library: ${KELR_SYSTEM_${id}_LIBRARY}, "
                        "headers: ${KELR_SYSTEM_${id}_INCLUDE_DIR}); KELR_SYSTEM_STANDINS "
                        "replaces a missing modem library (vex, diag) by its stand-in")
  endif()
  message(STATUS "libkelr platform: ${KELR_SYSTEM_${id}_LIBRARY}")
  add_library(${target} INTERFACE)
  target_link_libraries(${target} INTERFACE ${KELR_SYSTEM_${id}_LIBRARY})
  target_include_directories(${target} SYSTEM INTERFACE ${KELR_SYSTEM_${id}_INCLUDE_DIR})
endfunction()

# Makes the interface target <target> stand for the stand-in library <standin>.
function(kelr_use_standin target standin)
  if(KELR_PLATFORM STREQUAL "system")
    message(STATUS "libkelr platform: the stand-in ${standin}")
  endif()
  add_library(${target} INTERFACE)
  target_link_libraries(${target} INTERFACE ${standin})
endfunction()

if(KELR_PLATFORM STREQUAL "host")
  kelr_use_standin(kelr_platform_liblog kelr_host_liblog)
  kelr_use_standin(kelr_platform_diag kelr_host_diag)
  kelr_use_standin(kelr_platform_vex vex)
else()
  kelr_use_system_library(kelr_platform_liblog log android/log.h)
  if("diag" IN_LIST KELR_SYSTEM_STANDINS)
    kelr_use_standin(kelr_platform_diag kelr_host_diag)
  else()
    kelr_use_system_library(kelr_platform_diag diag diag/msg.h)
  endif()
  if("vex" IN_LIST KELR_SYSTEM_STANDINS)
    kelr_use_standin(kelr_platform_vex vex)
  else()
    kelr_use_system_library(kelr_platform_vex vex_client vex/vex_client.h)
  endif()
endif()
