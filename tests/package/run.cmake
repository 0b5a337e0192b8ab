# Builds and runs the consumer project in one of the ways a user gets vorn.
#   cmake -DMODE=<install|add_subdirectory|find_package|pkg-config> -DVORN_SOURCE_DIR=...
#         -DVORN_VERSION=... -DCONSUMER_DIR=... -DWORK_DIR=... -DCXX=... -DGENERATOR=...
#         [-DMAKE_PROGRAM=...] [-DPKG_CONFIG=...] -P run.cmake
# "install" configures, builds and installs vorn into WORK_DIR/prefix; find_package and
# pkg-config then use that prefix.
cmake_minimum_required(VERSION 3.16)

set(prefix ${WORK_DIR}/prefix)
set(generator_args -G "${GENERATOR}" -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_BUILD_TYPE=Release)
if(MAKE_PROGRAM)
  list(APPEND generator_args -DCMAKE_MAKE_PROGRAM=${MAKE_PROGRAM})
endif()

function(run)
  string(REPLACE ";" " " shown "${ARGN}")
  message(STATUS "${shown}")
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${shown}")
  endif()
endfunction()

function(build_consumer mode)
  set(build ${WORK_DIR}/${mode})
  file(REMOVE_RECURSE ${build})
  run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${build} ${generator_args}
    -DVORN_CONSUMER_MODE=${mode} -DVORN_SOURCE_DIR=${VORN_SOURCE_DIR}
    -DVORN_VERSION=${VORN_VERSION} -DCMAKE_PREFIX_PATH=${prefix} ${ARGN})
  run(${CMAKE_COMMAND} --build ${build})
  run(${build}/consumer)
endfunction()

if(MODE STREQUAL "install")
  set(build ${WORK_DIR}/vorn-build)
  file(REMOVE_RECURSE ${build} ${prefix})
  # Installed with --prefix rather than CMAKE_INSTALL_PREFIX, as packagers do; the package
  # files must not depend on where the install was first meant to go.
  run(${CMAKE_COMMAND} -S ${VORN_SOURCE_DIR} -B ${build} ${generator_args}
    -DVORN_BUILD_TESTS=OFF -DVORN_BUILD_EXAMPLES=OFF -DVORN_BUILD_BENCHMARKS=OFF -DVORN_BUILD_TOOLS=OFF
    -DCMAKE_INSTALL_PREFIX=${WORK_DIR}/unused-prefix)
  run(${CMAKE_COMMAND} --build ${build})
  run(${CMAKE_COMMAND} --install ${build} --prefix ${prefix})
  if(NOT EXISTS ${prefix}/include/vorn/vorn.hpp)
    message(FATAL_ERROR "the install has no include/vorn/vorn.hpp")
  endif()
elseif(MODE STREQUAL "add_subdirectory")
  build_consumer(add_subdirectory)
elseif(MODE STREQUAL "find_package")
  # Nothing but the installed prefix may be found: not the build tree, not a registry.
  build_consumer(find_package -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF)
elseif(MODE STREQUAL "pkg-config")
  if(NOT PKG_CONFIG)
    message(FATAL_ERROR "pkg-config was not found")
  endif()
  file(GLOB_RECURSE pc_files ${prefix}/vorn.pc)
  list(LENGTH pc_files pc_count)
  if(NOT pc_count EQUAL 1)
    message(FATAL_ERROR "expected one installed vorn.pc under ${prefix}, found: ${pc_files}")
  endif()
  get_filename_component(pc_dir ${pc_files} DIRECTORY)
  set(ENV{PKG_CONFIG_PATH} ${pc_dir})
  execute_process(COMMAND ${PKG_CONFIG} --modversion vorn
    OUTPUT_VARIABLE version OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE result)
  if(NOT result EQUAL 0 OR NOT version STREQUAL VORN_VERSION)
    message(FATAL_ERROR "pkg-config reports version '${version}', expected ${VORN_VERSION}")
  endif()
  execute_process(COMMAND ${PKG_CONFIG} --cflags --libs vorn
    OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "pkg-config --cflags --libs vorn failed")
  endif()
  separate_arguments(flags UNIX_COMMAND "${flags}")
  set(build ${WORK_DIR}/pkg-config)
  file(REMOVE_RECURSE ${build})
  file(MAKE_DIRECTORY ${build})
  # The public headers must also compile cleanly at the warning level users commonly set.
  run(${CXX} -std=c++17 -Wall -Wextra -Wpedantic -Werror ${CONSUMER_DIR}/main.cpp ${flags}
    -o ${build}/consumer)
  run(${build}/consumer)
else()
  message(FATAL_ERROR "unknown MODE '${MODE}'")
endif()
