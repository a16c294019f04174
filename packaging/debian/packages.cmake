# The Debian packages, one per component; scripts/packages makes them. What only a Debian package has
# (copyright, changelog, compressed manual) is added by files.cmake.

file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/changelog newest LIMIT_COUNT 1)
if(NOT newest MATCHES "^brefir \\(${PROJECT_VERSION}\\) ")
  message(FATAL_ERROR "the newest entry of packaging/debian/changelog is not about ${PROJECT_VERSION}")
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_COMPONENTS_ALL libraries development brefirctl)
set(CPACK_PACKAGE_CONTACT "brefir developers <brefir@example.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/files.cmake)
set(CPACK_BREFIR_DEBIAN ${CMAKE_CURRENT_LIST_DIR})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Where dpkg-shlibdeps finds our own libraries.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})

# The library packages' names carry the soname: two of them can be installed at once.
set(libraries libbrefir${PROJECT_VERSION_MAJOR})
set(same_version "${libraries} (= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_LIBRARIES_PACKAGE_NAME ${libraries})
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/triggers)
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_RECOMMENDS "openssh-client, rsync")
set(CPACK_COMPONENT_LIBRARIES_DESCRIPTION
    "library for a control panel that manages servers
Templates of operating systems, recipes, files over SSH, rotation of keys,
configuration files, packages and statistics of managed servers.
.
This package holds the shared libraries libbrefir, libbrefir-fleet, libparser,
libpnldb and libpnl.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libbrefir-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS ${same_version})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "cmake, pkgconf")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "library for a control panel that manages servers (development)
Templates of operating systems, recipes, files over SSH, rotation of keys,
configuration files, packages and statistics of managed servers.
.
This package holds the headers, the CMake package, the pkg-config files and an
example.")

set(CPACK_DEBIAN_BREFIRCTL_PACKAGE_NAME brefirctl)
set(CPACK_DEBIAN_BREFIRCTL_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_BREFIRCTL_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_BREFIRCTL_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/postrm)
set(CPACK_DEBIAN_BREFIRCTL_PACKAGE_DEPENDS ${same_version})
set(CPACK_DEBIAN_BREFIRCTL_PACKAGE_RECOMMENDS
    "bzip2, ca-certificates, openssh-client, procps, rsync, xz-utils, zstd")
# Most of them for `brefirctl demo`, which names those that are missing.
set(CPACK_DEBIAN_BREFIRCTL_PACKAGE_SUGGESTS
    "apt-utils, bash-completion, busybox-static, createrepo-c, dnf, gnupg, iproute2, openssh-server, \
python3, rpm, wget")
set(CPACK_COMPONENT_BREFIRCTL_DESCRIPTION
    "manages the servers of a control panel
Installs templates of operating systems, runs recipes, copies files over SSH,
rotates the panel's SSH key, edits configuration files, installs packages and
collects statistics of managed servers.")

include(CPack)
