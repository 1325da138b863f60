# Installs the build tree into a scratch prefix and uses it the way another project
# would: builds examples/consumer through the CMake package (shared and static) and
# through pkg-config, and runs each program. Any failing step fails the script.
#
#   cmake -DBUILD_DIR=<build tree> -DSOURCE_DIR=<source tree> -DINSTALL_LIBDIR=<lib dir>
#         -DINSTALL_INCLUDEDIR=<include dir> -DINSTALL_DATADIR=<data dir> -DVERSION=<version>
#         -DCXX_COMPILER=<c++> -DPKG_CONFIG=<pkg-config> [-DGENERATOR=<generator>]
#         [-DMAKE_PROGRAM=<make>] [-DCONFIG=<build type>] -P TestInstallConsumer.cmake

foreach(required BUILD_DIR SOURCE_DIR INSTALL_LIBDIR INSTALL_INCLUDEDIR INSTALL_DATADIR VERSION CXX_COMPILER PKG_CONFIG)
  if("${${required}}" STREQUAL "")
    message(FATAL_ERROR "TestInstallConsumer: -D${required}=... is required")
  endif()
endforeach()

set(work "${BUILD_DIR}/install-consumer")
set(prefix "${work}/prefix")
set(libdir "${prefix}/${INSTALL_LIBDIR}")
set(resources "${prefix}/${INSTALL_DATADIR}/krcommon")
set(consumer_source "${SOURCE_DIR}/examples/consumer")
set(ENV{KRCOMMON_RESOURCES} "")  # the programs must find the installed resources themselves

# Runs a command; on failure prints what it wrote and stops.
function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${what} failed (${result}):\n  ${ARGN}\n${out}")
  endif()
  message(STATUS "${what}: ok")
  set(run_output "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE "${work}")
file(MAKE_DIRECTORY "${work}")

# 1. Install. `cmake --install` records what it wrote in the build tree's
# install_manifest.txt; keep the one a real installation left there.
set(manifest "${BUILD_DIR}/install_manifest.txt")
if(EXISTS "${manifest}")
  file(COPY_FILE "${manifest}" "${work}/install_manifest.saved")
endif()
set(install_command "${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${prefix}")
if(CONFIG)
  list(APPEND install_command --config "${CONFIG}")
endif()
execute_process(COMMAND ${install_command} RESULT_VARIABLE install_result
                OUTPUT_VARIABLE install_out ERROR_VARIABLE install_out)
if(EXISTS "${work}/install_manifest.saved")
  file(RENAME "${work}/install_manifest.saved" "${manifest}")
else()
  file(REMOVE "${manifest}")
endif()
if(NOT install_result EQUAL 0)
  message(FATAL_ERROR "cmake --install failed (${install_result}):\n${install_out}")
endif()
message(STATUS "install into ${prefix}: ok")

foreach(file "${libdir}/libkrcommon.so.${VERSION}" "${libdir}/libkrcommon.a"
             "${libdir}/cmake/krcommon/krcommonConfig.cmake" "${libdir}/pkgconfig/krcommon.pc"
             "${prefix}/${INSTALL_INCLUDEDIR}/krcommon/krcommon.h" "${resources}/mm404Image.png")
  if(NOT EXISTS "${file}")
    message(FATAL_ERROR "not installed: ${file}")
  endif()
endforeach()

# 2. The CMake package, from a separate project that knows only the prefix.
set(configure_command "${CMAKE_COMMAND}" -S "${consumer_source}" -B "${work}/cmake-build"
    "-DCMAKE_PREFIX_PATH=${prefix}" "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}" "-DCMAKE_BUILD_TYPE=${CONFIG}")
if(GENERATOR)
  list(APPEND configure_command -G "${GENERATOR}")
endif()
if(MAKE_PROGRAM)
  list(APPEND configure_command "-DCMAKE_MAKE_PROGRAM=${MAKE_PROGRAM}")
endif()
run("configure examples/consumer" ${configure_command})
# The package must be the one just installed, not one elsewhere on the machine.
file(STRINGS "${work}/cmake-build/CMakeCache.txt" package_dir REGEX "^krcommon_DIR:")
string(REGEX REPLACE "^krcommon_DIR:[A-Z]+=" "" package_dir "${package_dir}")
file(REAL_PATH "${package_dir}" package_dir)
file(REAL_PATH "${libdir}/cmake/krcommon" expected_dir)
if(NOT package_dir STREQUAL expected_dir)
  message(FATAL_ERROR "find_package(krcommon) used ${package_dir}, not ${expected_dir}")
endif()
run("build examples/consumer" "${CMAKE_COMMAND}" --build "${work}/cmake-build" --parallel 2)
# The shared build finds the installed library through its build RPATH.
run("run consumer (shared)" "${work}/cmake-build/krcommon-consumer" --resources "${resources}")
run("run consumer (static)" "${work}/cmake-build/krcommon-consumer-static")

# 3. pkg-config, as a plain compiler command line.
# Search paths already set (for dependencies in other prefixes) are kept behind ours.
function(path_list out first variable)
  if("$ENV{${variable}}" STREQUAL "")
    set(${out} "${variable}=${first}" PARENT_SCOPE)
  else()
    set(${out} "${variable}=${first}:$ENV{${variable}}" PARENT_SCOPE)
  endif()
endfunction()
path_list(pkg_config_path "${libdir}/pkgconfig" PKG_CONFIG_PATH)
path_list(library_path "${libdir}" LD_LIBRARY_PATH)
set(pkg_env "${CMAKE_COMMAND}" -E env "${pkg_config_path}")
run("pkg-config --modversion" ${pkg_env} "${PKG_CONFIG}" --modversion krcommon)
string(STRIP "${run_output}" pc_version)
if(NOT pc_version STREQUAL VERSION)
  message(FATAL_ERROR "krcommon.pc says version ${pc_version}, expected ${VERSION}")
endif()
run("pkg-config prefix" ${pkg_env} "${PKG_CONFIG}" --variable=prefix krcommon)
string(STRIP "${run_output}" pc_prefix)
if(NOT pc_prefix STREQUAL prefix)
  message(FATAL_ERROR "krcommon.pc says prefix ${pc_prefix}, expected ${prefix}")
endif()
run("build consumer with pkg-config" ${pkg_env} "PKG_CONFIG=${PKG_CONFIG}" "CXX=${CXX_COMPILER}"
    "SRC=${consumer_source}/main.cpp" "OUT=${work}/pkgconfig-consumer"
    sh -c [["$CXX" -std=c++20 "$SRC" -o "$OUT" $("$PKG_CONFIG" --cflags --libs krcommon)]])
run("run consumer (pkg-config)" "${CMAKE_COMMAND}" -E env "${library_path}"
    "${work}/pkgconfig-consumer" --resources "${resources}")
