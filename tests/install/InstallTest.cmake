# Installs the build tree into a fresh prefix, then builds and runs an outside project against it,
# once through find_package and once through pkg-config.
#
# cmake -DBUILD_DIR=... -DWORK_DIR=... -DCONSUMER_DIR=... -DGENERATOR=... -DCXX=...
#       -DBUILD_TYPE=... -DEXTRA_FLAGS="..." -P InstallTest.cmake
foreach(var BUILD_DIR WORK_DIR CONSUMER_DIR GENERATOR CXX)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "${var} is not set")
  endif()
endforeach()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
separate_arguments(extra_flags UNIX_COMMAND "${EXTRA_FLAGS}")

function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}\n${err}")
  endif()
  set(output "${out}" PARENT_SCOPE)
endfunction()

function(expect_output what text)
  string(FIND "${output}" "${text}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "${what}: \"${text}\" missing from:\n${output}")
  endif()
endfunction()

run("install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# The tools, when the build has them: they run from the install tree without LD_LIBRARY_PATH,
# after the prefix has moved, and an installed kelctl uses the installed data.
if(EXISTS ${prefix}/bin/kelctl)
  unset(ENV{LD_LIBRARY_PATH})
  unset(ENV{VEX_SERVICE_DIR})
  foreach(page kelctl.1 vex-modemd.1 vex-modemctl.1)
    if(NOT EXISTS ${prefix}/share/man/man1/${page})
      message(FATAL_ERROR "manual page ${page} not installed")
    endif()
  endforeach()
  set(completion ${prefix}/share/bash-completion/completions/kelctl)
  if(NOT EXISTS ${completion})
    message(FATAL_ERROR "kelctl's bash completion not installed")
  endif()
  file(WRITE ${WORK_DIR}/complete.sh [=[
source "$1"
COMP_WORDS=(kelctl data-c); COMP_CWORD=1; _kelctl; echo "${COMPREPLY[*]}"
COMP_WORDS=(kelctl add --i); COMP_CWORD=2; _kelctl; echo "${COMPREPLY[*]}"
COMP_WORDS=(kelctl add --ip v); COMP_CWORD=3; _kelctl; echo "${COMPREPLY[*]}"
]=])
  run("complete" bash ${WORK_DIR}/complete.sh ${completion})
  expect_output("completion" "data-call\n--ip --ia\nv4 v6 v4v6\n")
  expect_output("completion" "data-call")

  set(moved ${WORK_DIR}/moved-prefix)
  file(RENAME ${prefix} ${moved})
  # A seed only the installed kelctl can have read.
  file(WRITE ${moved}/share/kelr/modem-seed.conf
       "profile 3gpp sub=0 index=7 name=inst apn=installed.example pdp=ipv4 types=default\n")
  run("installed kelctl --version" ${moved}/bin/kelctl --version)
  expect_output("kelctl --version" "libkelr ")
  run("installed kelctl list" ${moved}/bin/kelctl list)
  expect_output("installed kelctl list" "installed.example")
  run("installed vex-modemd --help" ${moved}/bin/vex-modemd --help)
  run("installed vex-modemctl --help" ${moved}/bin/vex-modemctl --help)
  foreach(tool kelctl vex-modemd vex-modemctl)
    run("readelf ${tool}" readelf -d ${moved}/bin/${tool})
    expect_output("${tool}'s dynamic section" "(RUNPATH)")
    expect_output("${tool}'s dynamic section" "[$ORIGIN/../")
  endforeach()
  file(RENAME ${moved} ${prefix})
endif()

# Through the CMake package.
run("configure consumer" ${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/consumer
    -G ${GENERATOR} -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_BUILD_TYPE=${BUILD_TYPE}
    -DCMAKE_PREFIX_PATH=${prefix} "-DCMAKE_CXX_FLAGS=${EXTRA_FLAGS}"
    "-DCMAKE_EXE_LINKER_FLAGS=${EXTRA_FLAGS}")
run("build consumer" ${CMAKE_COMMAND} --build ${WORK_DIR}/consumer)
run("run consumer" ${WORK_DIR}/consumer/kelr_consumer)
expect_output("consumer" "params: ApnName=ims,HomeIPType=V4V6,ApnTypesMask=IMS|,")
expect_output("consumer" "dump: Logs:")

# Through pkg-config.
find_program(PKG_CONFIG pkg-config REQUIRED)
file(GLOB pc_file ${prefix}/*/pkgconfig/kelr.pc ${prefix}/*/*/pkgconfig/kelr.pc)
if(NOT pc_file)
  message(FATAL_ERROR "kelr.pc not installed under ${prefix}")
endif()
get_filename_component(pc_dir ${pc_file} DIRECTORY)
get_filename_component(lib_dir ${pc_dir} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
run("pkg-config" ${PKG_CONFIG} --cflags --libs kelr)
string(STRIP "${output}" pc_flags)
expect_output("pkg-config" "-lkelr")
# The flags must lead into this prefix, however the file spells the path.
separate_arguments(pc_list UNIX_COMMAND "${pc_flags}")
file(REAL_PATH ${prefix}/include include_dir)
file(REAL_PATH ${lib_dir} lib_dir)
set(finds_include FALSE)
set(finds_lib FALSE)
foreach(flag IN LISTS pc_list)
  if(flag MATCHES "^-I(.+)$")
    file(REAL_PATH "${CMAKE_MATCH_1}" dir)
    if(dir STREQUAL include_dir)
      set(finds_include TRUE)
    endif()
  elseif(flag MATCHES "^-L(.+)$")
    file(REAL_PATH "${CMAKE_MATCH_1}" dir)
    if(dir STREQUAL lib_dir)
      set(finds_lib TRUE)
    endif()
  endif()
endforeach()
if(NOT finds_include OR NOT finds_lib)
  message(FATAL_ERROR "pkg-config flags do not lead into ${prefix}: ${pc_flags}")
endif()
run("compile with pkg-config flags" ${CXX} -std=c++17 ${extra_flags} ${CONSUMER_DIR}/main.cpp
    ${pc_list} -o ${WORK_DIR}/pc_consumer)
set(ENV{LD_LIBRARY_PATH} ${lib_dir})
run("run pkg-config consumer" ${WORK_DIR}/pc_consumer)
expect_output("pkg-config consumer" "dump: Logs:")
