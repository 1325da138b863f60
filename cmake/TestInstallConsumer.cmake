# Installs the build tree the way a user gets krcommon and uses it the way the
# README shows, failing at the first step that does not work:
#   MODE=install  `cmake --install` into a scratch prefix;
#   MODE=package  the Debian packages made by CPack, unpacked with `dpkg -x` into a
#                 scratch root (so the prefix is not the one they were made for).
# Then: the libraries carry no debug information; every installed header includes
# only installed headers; examples/consumer/app.cpp builds and runs with the
# README's pkg-config lines (both modes) and its CMakeLists.txt (install mode),
# shared and static, and draws the error page with its picture.
#
#   cmake -DMODE=install|package -DBUILD_DIR=<build tree> -DSOURCE_DIR=<source tree>
#         -DINSTALL_LIBDIR=<lib dir> -DINSTALL_INCLUDEDIR=<include dir> -DINSTALL_DATADIR=<data dir>
#         -DVERSION=<version> -DCXX_COMPILER=<c++> -DPKG_CONFIG=<pkg-config> -DOBJDUMP=<objdump>
#         -DCPACK=<cpack> [-DGENERATOR=<generator>] [-DMAKE_PROGRAM=<make>] [-DCONFIG=<build type>]
#         -P TestInstallConsumer.cmake

cmake_minimum_required(VERSION 3.25)
foreach(required MODE BUILD_DIR SOURCE_DIR INSTALL_LIBDIR INSTALL_INCLUDEDIR INSTALL_DATADIR VERSION CXX_COMPILER
                 PKG_CONFIG OBJDUMP)
  if("${${required}}" STREQUAL "")
    message(FATAL_ERROR "TestInstallConsumer: -D${required}=... is required")
  endif()
endforeach()
include("${SOURCE_DIR}/cmake/KRCommonReadme.cmake")

set(work "${BUILD_DIR}/${MODE}-consumer")
set(ENV{KRCOMMON_RESOURCES} "")  # the programs must find the picture themselves

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

# ---- 1. Install.
if(MODE STREQUAL "install")
  set(prefix "${work}/prefix")
  # `cmake --install` records what it wrote in the build tree's install_manifest.txt;
  # keep the one a real installation left there.
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
else()
  run("cpack" "${CPACK}" -G DEB --config "${BUILD_DIR}/CPackConfig.cmake" -B "${work}/packages")
  file(GLOB debs "${work}/packages/*.deb")
  list(LENGTH debs count)
  set(depends_of_libkrcommon1 "")
  foreach(name libkrcommon1 libkrcommon-dev)
    file(GLOB deb "${work}/packages/${name}_${VERSION}_*.deb")
    if(NOT deb)
      message(FATAL_ERROR "no ${name} package among: ${debs}")
    endif()
    run("dpkg-deb -f ${name} Depends" dpkg-deb -f "${deb}" Depends)
    string(STRIP "${run_output}" depends)
    message(STATUS "  ${name} Depends: ${depends}")
    set(depends_of_${name} "${depends}")
    run("dpkg -x ${name}" dpkg -x "${deb}" "${work}/root")
  endforeach()
  if(NOT count EQUAL 2)
    message(FATAL_ERROR "expected two packages, CPack made: ${debs}")
  endif()
  # The runtime package's dependencies are computed from what the library links.
  foreach(expected libc6 libcurl libssl libplist libpng libfmt libpangocairo)
    if(NOT depends_of_libkrcommon1 MATCHES "(^|, )${expected}[-.0-9a-z]* \\(>= ")
      message(FATAL_ERROR "libkrcommon1 does not depend on ${expected}: ${depends_of_libkrcommon1}")
    endif()
  endforeach()
  if(NOT depends_of_libkrcommon-dev MATCHES "(^|, )libkrcommon1 \\(= ${VERSION}\\)")
    message(FATAL_ERROR "libkrcommon-dev does not depend on its runtime package: ${depends_of_libkrcommon-dev}")
  endif()
  set(prefix "${work}/root/usr")
endif()
set(libdir "${prefix}/${INSTALL_LIBDIR}")
set(includedir "${prefix}/${INSTALL_INCLUDEDIR}")

foreach(file "${libdir}/libkrcommon.so.${VERSION}" "${libdir}/libkrcommon.a" "${libdir}/pkgconfig/krcommon.pc"
             "${libdir}/cmake/krcommon/krcommonConfig.cmake" "${includedir}/krcommon/krcommon.h"
             "${prefix}/${INSTALL_DATADIR}/krcommon/mm404Image.png")
  if(NOT EXISTS "${file}")
    message(FATAL_ERROR "not installed: ${file}")
  endif()
endforeach()

# ---- 2. What was installed.
foreach(library "${libdir}/libkrcommon.so.${VERSION}" "${libdir}/libkrcommon.a")
  run("sections of ${library}" "${OBJDUMP}" -h "${library}")
  if(run_output MATCHES "\\.debug_")
    message(FATAL_ERROR "${library} was installed with its debug information")
  endif()
  file(SIZE "${library}" size)
  message(STATUS "  ${library}: ${size} bytes")
endforeach()

file(GLOB_RECURSE headers RELATIVE "${includedir}" "${includedir}/*.h")
list(LENGTH headers count)
message(STATUS "  ${count} headers installed")
foreach(header IN LISTS headers)
  file(STRINGS "${includedir}/${header}" includes REGEX "^[ \t]*#[ \t]*include[ \t]*[<\"]krcommon/")
  foreach(line IN LISTS includes)
    string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*[<\"](krcommon/[^>\"]+)[>\"].*" "\\1" included "${line}")
    if(NOT EXISTS "${includedir}/${included}")
      message(FATAL_ERROR "installed ${header} includes ${included}, which is not installed")
    endif()
  endforeach()
endforeach()

# ---- 3. The consumer, built with the README's lines as they stand there.
set(project "${work}/app")
file(MAKE_DIRECTORY "${project}")
file(COPY_FILE "${SOURCE_DIR}/examples/consumer/app.cpp" "${project}/app.cpp")
krcommon_readme_blocks("${SOURCE_DIR}/README.md" sh README_SH)
krcommon_readme_blocks("${SOURCE_DIR}/README.md" cmake README_CMAKE)

# pkg-config: the README's block with <prefix> filled in; both programs start
# without any library path set.
set(pkg_config_lines "")
foreach(i RANGE 1 ${README_SH_COUNT})
  if(README_SH_${i} MATCHES "pkg-config --cflags")
    set(pkg_config_lines "${README_SH_${i}}")
  endif()
endforeach()
if(NOT pkg_config_lines)
  message(FATAL_ERROR "README.md shows no pkg-config build")
endif()
string(REPLACE "<prefix>" "${prefix}" pkg_config_lines "${pkg_config_lines}")
file(WRITE "${project}/pkg-config.sh" "set -e\n${pkg_config_lines}")
get_filename_component(pkg_config_folder "${PKG_CONFIG}" DIRECTORY)
get_filename_component(compiler_folder "${CXX_COMPILER}" DIRECTORY)
run("build with the README's pkg-config lines" "${CMAKE_COMMAND}" -E chdir "${project}" "${CMAKE_COMMAND}" -E env
    --unset=LD_LIBRARY_PATH "PATH=${compiler_folder}:${pkg_config_folder}:$ENV{PATH}" sh pkg-config.sh)
run("pkg-config prefix" "${CMAKE_COMMAND}" -E env "PKG_CONFIG_PATH=${libdir}/pkgconfig"
    "${PKG_CONFIG}" --variable=prefix krcommon)
string(STRIP "${run_output}" pc_prefix)
file(REAL_PATH "${pc_prefix}" pc_prefix)
file(REAL_PATH "${prefix}" real_prefix)
if(NOT pc_prefix STREQUAL real_prefix)
  message(FATAL_ERROR "krcommon.pc names the prefix ${pc_prefix}, not ${real_prefix}")
endif()
foreach(program app app-static)
  run("run ${program} (pkg-config)" "${CMAKE_COMMAND}" -E env --unset=LD_LIBRARY_PATH "${project}/${program}")
endforeach()

# CMake: the README's CMakeLists.txt, in a project that knows only the prefix.
if(MODE STREQUAL "install")
  if(NOT README_CMAKE_COUNT EQUAL 1)
    message(FATAL_ERROR "README.md shows ${README_CMAKE_COUNT} CMake blocks, expected the one project")
  endif()
  file(WRITE "${project}/CMakeLists.txt" "${README_CMAKE_1}")
  set(configure_command "${CMAKE_COMMAND}" -S "${project}" -B "${project}/build" "-DCMAKE_PREFIX_PATH=${prefix}"
      "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}" "-DCMAKE_BUILD_TYPE=${CONFIG}")
  if(GENERATOR)
    list(APPEND configure_command -G "${GENERATOR}")
  endif()
  if(MAKE_PROGRAM)
    list(APPEND configure_command "-DCMAKE_MAKE_PROGRAM=${MAKE_PROGRAM}")
  endif()
  run("configure the README's CMake project" ${configure_command})
  # The package must be the one just installed, not one elsewhere on the machine.
  file(STRINGS "${project}/build/CMakeCache.txt" package_dir REGEX "^krcommon_DIR:")
  string(REGEX REPLACE "^krcommon_DIR:[A-Z]+=" "" package_dir "${package_dir}")
  file(REAL_PATH "${package_dir}" package_dir)
  file(REAL_PATH "${libdir}/cmake/krcommon" expected_dir)
  if(NOT package_dir STREQUAL expected_dir)
    message(FATAL_ERROR "find_package(krcommon) used ${package_dir}, not ${expected_dir}")
  endif()
  run("build the README's CMake project" "${CMAKE_COMMAND}" --build "${project}/build" --parallel 2)
  # The shared build finds the installed library through its build RPATH.
  foreach(program app app-static)
    run("run ${program} (CMake)" "${CMAKE_COMMAND}" -E env --unset=LD_LIBRARY_PATH "${project}/build/${program}")
  endforeach()
endif()
