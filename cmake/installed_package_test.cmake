# The installed package as an application meets it. Installs the build in BUILD_DIR into a fresh
# prefix under WORK_DIR, checks the layout, then builds examples/ against that prefix twice (its
# CMake package, then its pkg-config file) and runs each build in an empty directory on the
# installed simulated camera. With SANITIZE the example is built with the sanitizers too, since
# a plain program cannot load the sanitized library.
cmake_minimum_required(VERSION 3.20)

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out
                  TIMEOUT 120)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "${what} failed (${status}):\n${out}")
  endif()
endfunction()

function(expect_file path)
  if(NOT EXISTS ${path})
    message(FATAL_ERROR "not installed: ${path}")
  endif()
endfunction()

# ---- The layout -----------------------------------------------------------------------------
run("cmake --install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

string(REGEX MATCH "^[0-9]+" major "${VERSION}")
foreach(name libtvx.so libtvx.so.${major} libtvx.so.${VERSION})
  expect_file(${prefix}/${LIBDIR}/${name})
endforeach()
find_program(READELF readelf)
if(READELF)
  execute_process(COMMAND ${READELF} -d ${prefix}/${LIBDIR}/libtvx.so.${VERSION}
                  OUTPUT_VARIABLE dynamic)
  if(NOT dynamic MATCHES "Library soname: \\[libtvx\\.so\\.${major}\\]")
    message(FATAL_ERROR "libtvx.so.${VERSION} does not carry the soname libtvx.so.${major}")
  endif()
endif()
file(GLOB headers RELATIVE ${SOURCE_DIR}/include ${SOURCE_DIR}/include/tvx/*.h)
file(GLOB sim_files RELATIVE ${SOURCE_DIR}/data/sim ${SOURCE_DIR}/data/sim/*)
foreach(header ${headers})
  expect_file(${prefix}/${INCLUDEDIR}/${header})
endforeach()
foreach(sim_file ${sim_files})
  expect_file(${prefix}/${SIMDIR}/${sim_file})
endforeach()
foreach(file tvxConfig.cmake tvxConfigVersion.cmake tvxTargets.cmake)
  expect_file(${prefix}/${LIBDIR}/cmake/tvx/${file})
endforeach()
expect_file(${prefix}/${LIBDIR}/pkgconfig/tvx.pc)
if(WITH_TVXCAM)
  expect_file(${prefix}/${BINDIR}/tvxcam)
endif()

# ---- The example, built against the prefix and run ------------------------------------------
set(flags "")
if(SANITIZE)
  set(flags -DCMAKE_C_FLAGS=-fsanitize=address,undefined\ -fno-omit-frame-pointer
            -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=address,undefined)
endif()
# Only the fresh prefix may answer: no package registry, no other pkg-config directory.
set(ENV{PKG_CONFIG_LIBDIR} ${prefix}/${LIBDIR}/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

foreach(way package pkg-config)
  set(build ${WORK_DIR}/example-${way})
  set(run_dir ${WORK_DIR}/run-${way})
  if(way STREQUAL "package")
    set(find -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
             -DCMAKE_FIND_USE_SYSTEM_PACKAGE_REGISTRY=OFF)
  else()
    set(find -DTVX_USE_PKG_CONFIG=ON)
  endif()
  run("configuring the example (${way})" ${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples -B ${build}
      -G ${GENERATOR} -DCMAKE_C_COMPILER=${C_COMPILER} -DCMAKE_BUILD_TYPE=Debug ${find} ${flags})
  if(way STREQUAL "package")
    file(STRINGS ${build}/CMakeCache.txt found REGEX "^tvx_DIR:")
    if(NOT found STREQUAL "tvx_DIR:PATH=${prefix}/${LIBDIR}/cmake/tvx")
      message(FATAL_ERROR "find_package took tvx from elsewhere: ${found}")
    endif()
  endif()
  run("building the example (${way})" ${CMAKE_COMMAND} --build ${build})

  file(MAKE_DIRECTORY ${run_dir})
  execute_process(COMMAND ${build}/snap ${prefix}/${SIMDIR}/sim_small.def
                  WORKING_DIRECTORY ${run_dir} RESULT_VARIABLE status OUTPUT_VARIABLE out
                  ERROR_VARIABLE out TIMEOUT 60)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "the example (${way}) failed (${status}):\n${out}")
  endif()
  # The raw 80 x 64 chip of 16-bit pixels behind the native format's 6-byte header.
  set(picture ${run_dir}/snap.img)
  expect_file(${picture})
  file(SIZE ${picture} size)
  if(NOT size EQUAL 10246)
    message(FATAL_ERROR "the example (${way}) wrote ${size} bytes, not 6 + 80 x 64 x 2")
  endif()
endforeach()

# The installed tvxcam finds the library beside it and reads the example's picture back whole.
if(WITH_TVXCAM)
  execute_process(COMMAND ${prefix}/${BINDIR}/tvxcam --json info ${WORK_DIR}/run-package/snap.img
                  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out TIMEOUT 60)
  if(NOT status EQUAL 0 OR NOT out MATCHES "\"width\":80,\"height\":64,\"depth\":16")
    message(FATAL_ERROR "the installed tvxcam could not read the example's picture (${status}):\n${out}")
  endif()
endif()

# A camera that cannot be reached: the example says why, through the error stack, and fails.
execute_process(COMMAND ${WORK_DIR}/example-package/snap ${WORK_DIR}/nowhere/sim_small.def
                WORKING_DIRECTORY ${WORK_DIR}/run-package RESULT_VARIABLE status
                OUTPUT_VARIABLE out ERROR_VARIABLE err TIMEOUT 60)
if(NOT status EQUAL 1 OR NOT err MATCHES "starting the server failed:\nserver_new-> .*7100hw.def")
  message(FATAL_ERROR "a missing hardware file: status ${status}, said:\n${err}")
endif()
