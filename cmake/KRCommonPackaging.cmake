# Debian packages made by CPack from the two install components (`make package`,
# or `cpack -G DEB` in a build tree):
#   libkrcommon1     the shared library and its resources; Depends computed by
#                    dpkg-shlibdeps from what the library links, as the building
#                    machine's packages provide it (Debian 12 here)
#   libkrcommon-dev  headers, static library, CMake package, pkg-config files;
#                    Depends on the runtime package of the same version and on the
#                    -dev packages that its link interface and pkg-config files name

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME krcommon)
set(CPACK_PACKAGE_VENDOR "krcommon")
set(CPACK_PACKAGE_CONTACT "krcommon maintainers <krcommon@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE gzip)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkrcommon${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "The shared library: the HTTP client, statistics reporter, configuration,
error-code map, logger, crypto helpers and web error page of the member account SDK.")
# The error page's Chinese texts are drawn with these fonts.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS "fonts-noto-cjk")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libkrcommon-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_DESCRIPTION "Development files: headers, the static library, the CMake package
(find_package(krcommon)) and the pkg-config files krcommon and krcommon-static.")
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "libfmt-dev, libcurl4-openssl-dev | libcurl-dev, libssl-dev, libplist-dev, libpango1.0-dev, libcairo2-dev, libpng-dev, zlib1g-dev, pkg-config")

include(CPack)
