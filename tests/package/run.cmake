# Builds and runs the consumer project in one of the ways a user gets vorn.
#   cmake -DMODE=<install|add_subdirectory|find_package|pkg-config> -DVORN_SOURCE_DIR=...
#         -DVORN_VERSION=... -DCONSUMER_DIR=... -DWORK_DIR=... -DCXX=... -DGENERATOR=...
#         [-DMAKE_PROGRAM=...] [-DPKG_CONFIG=...] -P run.cmake
# "install" configures, builds and installs vorn into WORK_DIR/prefix; find_package and
# pkg-config then use that prefix (and nothing else: no build tree, no package registry).
cmake_minimum_required(VERSION 3.16)

set(prefix ${WORK_DIR}/prefix)
set(build ${WORK_DIR}/${MODE})
set(generator_args -G "${GENERATOR}" -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_BUILD_TYPE=Release)
if(MAKE_PROGRAM)
  list(APPEND generator_args -DCMAKE_MAKE_PROGRAM=${MAKE_PROGRAM})
endif()
file(REMOVE_RECURSE ${build})

# Runs a command, which must succeed; its standard output is left in `output`.
function(run)
  string(REPLACE ";" " " shown "${ARGN}")
  message(STATUS "${shown}")
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${shown}\n${output}")
  endif()
  string(STRIP "${output}" output)
  set(output "${output}" PARENT_SCOPE)
endfunction()

if(MODE STREQUAL "install")
  # Installed with --prefix rather than CMAKE_INSTALL_PREFIX, as packagers do; the package
  # files must not depend on where the install was first meant to go.
  file(REMOVE_RECURSE ${prefix})
  run(${CMAKE_COMMAND} -S ${VORN_SOURCE_DIR} -B ${build} ${generator_args}
    -DVORN_BUILD_TESTS=OFF -DVORN_BUILD_EXAMPLES=OFF -DVORN_BUILD_BENCHMARKS=OFF -DVORN_BUILD_TOOLS=OFF
    -DCMAKE_INSTALL_PREFIX=${WORK_DIR}/unused-prefix)
  run(${CMAKE_COMMAND} --build ${build})
  run(${CMAKE_COMMAND} --install ${build} --prefix ${prefix})
  return()
elseif(MODE STREQUAL "pkg-config")
  file(GLOB_RECURSE pc_files ${prefix}/vorn.pc)  # wherever the platform puts it
  list(LENGTH pc_files pc_count)
  if(NOT pc_count EQUAL 1)
    message(FATAL_ERROR "expected one installed vorn.pc under ${prefix}, found: ${pc_files}")
  endif()
  get_filename_component(pc_dir ${pc_files} DIRECTORY)
  set(ENV{PKG_CONFIG_LIBDIR} ${pc_dir})  # the only place searched
  run(${PKG_CONFIG} --exact-version=${VORN_VERSION} vorn)
  run(${PKG_CONFIG} --cflags --libs vorn)
  separate_arguments(flags UNIX_COMMAND "${output}")
  file(MAKE_DIRECTORY ${build})
  # The public headers must also compile cleanly at the warning level users commonly set.
  run(${CXX} -std=c++17 -Wall -Wextra -Wpedantic -Werror ${CONSUMER_DIR}/main.cpp ${flags}
    -o ${build}/consumer)
else()
  run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${build} ${generator_args}
    -DVORN_CONSUMER_MODE=${MODE} -DVORN_SOURCE_DIR=${VORN_SOURCE_DIR} -DVORN_VERSION=${VORN_VERSION}
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF)
  run(${CMAKE_COMMAND} --build ${build})
endif()
run(${build}/consumer)
