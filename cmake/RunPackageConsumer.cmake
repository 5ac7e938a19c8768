# Run by the PackageConsumer test (cmake -P). Installs the build tree into a private prefix,
# then builds tests/consumer against that prefix twice: once through find_package, once with the
# flags from the installed pkg-config file. Each program must run and exit 0.
#
# Inputs (-D): VEXLO_BUILD_DIR VEXLO_STAGE_DIR VEXLO_CONSUMER_DIR VEXLO_GENERATOR
#              VEXLO_MAKE_PROGRAM VEXLO_CXX_COMPILER VEXLO_BUILD_TYPE VEXLO_SANITIZERS
#              VEXLO_PKG_CONFIG
cmake_minimum_required(VERSION 3.23)

function(vexlo_run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${ARGN}\n${out}")
  endif()
  message(STATUS "${what}: ok")
endfunction()

set(prefix ${VEXLO_STAGE_DIR}/prefix)
file(REMOVE_RECURSE ${VEXLO_STAGE_DIR})
file(MAKE_DIRECTORY ${VEXLO_STAGE_DIR})
# A DESTDIR left in the caller's environment would move the staged tree somewhere else.
unset(ENV{DESTDIR})

# A sanitized library needs its runtime in whatever links it.
set(san_flags "")
if(VEXLO_SANITIZERS)
  set(san_flags "-fsanitize=${VEXLO_SANITIZERS} -fno-omit-frame-pointer")
endif()

vexlo_run("install into ${prefix}" ${CMAKE_COMMAND} --install ${VEXLO_BUILD_DIR} --prefix ${prefix})

# --- find_package -----------------------------------------------------------------------------
set(cm_build ${VEXLO_STAGE_DIR}/cmake-build)
set(gen_args -G ${VEXLO_GENERATOR})
if(VEXLO_MAKE_PROGRAM)
  list(APPEND gen_args -DCMAKE_MAKE_PROGRAM=${VEXLO_MAKE_PROGRAM})
endif()
vexlo_run("configure consumer"
  ${CMAKE_COMMAND} -S ${VEXLO_CONSUMER_DIR} -B ${cm_build} ${gen_args}
  -DCMAKE_CXX_COMPILER=${VEXLO_CXX_COMPILER}
  -DCMAKE_BUILD_TYPE=${VEXLO_BUILD_TYPE}
  -DCMAKE_PREFIX_PATH=${prefix}
  "-DCMAKE_CXX_FLAGS=${san_flags}"
  "-DCMAKE_EXE_LINKER_FLAGS=${san_flags}")

# The package must come from the staged prefix, not from an earlier `make install`.
file(STRINGS ${cm_build}/CMakeCache.txt found_dir REGEX "^VexloL3Common_DIR:")
string(REGEX REPLACE "^[^=]*=" "" found_dir "${found_dir}")
file(REAL_PATH "${found_dir}" found_dir)
file(REAL_PATH "${prefix}" real_prefix)
string(FIND "${found_dir}" "${real_prefix}/" at)
if(NOT at EQUAL 0)
  message(FATAL_ERROR "find_package used ${found_dir}, not the package staged in ${prefix}")
endif()

vexlo_run("build consumer" ${CMAKE_COMMAND} --build ${cm_build})
vexlo_run("run consumer (find_package)" ${cm_build}/vexlo_consumer)

# --- pkg-config -------------------------------------------------------------------------------
if(NOT VEXLO_PKG_CONFIG)
  message(FATAL_ERROR "pkg-config not found; scripts/install-deps installs it")
endif()
file(GLOB_RECURSE pc_file ${prefix}/*/vexlo_l3common.pc)
list(LENGTH pc_file n)
if(NOT n EQUAL 1)
  message(FATAL_ERROR "expected one installed vexlo_l3common.pc under ${prefix}, found: ${pc_file}")
endif()
get_filename_component(pc_dir ${pc_file} DIRECTORY)
if(DEFINED ENV{PKG_CONFIG_PATH})
  set(ENV{PKG_CONFIG_PATH} "${pc_dir}:$ENV{PKG_CONFIG_PATH}")
else()
  set(ENV{PKG_CONFIG_PATH} "${pc_dir}")
endif()
execute_process(COMMAND ${VEXLO_PKG_CONFIG} --cflags --libs vexlo_l3common
                RESULT_VARIABLE rc OUTPUT_VARIABLE pc_flags ERROR_VARIABLE pc_err
                OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config --cflags --libs vexlo_l3common failed:\n${pc_err}")
endif()
message(STATUS "pkg-config flags: ${pc_flags}")
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
separate_arguments(san_list UNIX_COMMAND "${san_flags}")

# Both flags must point into the staged tree: the .pc locates itself.
set(have_inc FALSE)
set(have_lib FALSE)
foreach(flag ${pc_flags})
  if(flag MATCHES "^-I(.*)$")
    file(REAL_PATH "${CMAKE_MATCH_1}" dir)
    if(EXISTS ${dir}/VexloL3Common/types/L3RouteTypes.h)
      string(FIND "${dir}/" "${real_prefix}/" at)
      if(at EQUAL 0)
        set(have_inc TRUE)
      endif()
    endif()
  elseif(flag MATCHES "^-L(.*)$")
    file(REAL_PATH "${CMAKE_MATCH_1}" dir)
    string(FIND "${dir}/" "${real_prefix}/" at)
    if(at EQUAL 0)
      set(have_lib TRUE)
    endif()
  endif()
endforeach()
if(NOT have_inc OR NOT have_lib)
  message(FATAL_ERROR "pkg-config flags do not point into ${prefix}: ${pc_flags}")
endif()

set(pc_exe ${VEXLO_STAGE_DIR}/pkgconfig-consumer)
vexlo_run("compile consumer with pkg-config flags"
  ${VEXLO_CXX_COMPILER} -std=c++20 ${san_list} ${VEXLO_CONSUMER_DIR}/main.cpp
  -o ${pc_exe} ${pc_flags})
# Only matters for a shared build; a static library is already inside the program.
get_filename_component(libdir ${pc_dir} DIRECTORY)
set(ENV{LD_LIBRARY_PATH} "${libdir}:$ENV{LD_LIBRARY_PATH}")
vexlo_run("run consumer (pkg-config)" ${pc_exe})
