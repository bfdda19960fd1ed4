# The Debian packages, one per component:
#   cpack --config build/release/CPackConfig.cmake -B build/packages
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME cpd-udisk)
set(CPACK_PACKAGE_VENDOR "")
set(CPACK_PACKAGE_CONTACT "cpd-udisk maintainers <maintainers@cpd-udisk.invalid>"
  CACHE STRING "Name and address of the packages' maintainer")
set(CPACK_COMPONENTS_ALL module host development)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
# What only a Debian package has.
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/debian-files.cmake)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(same_version "(= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_MODULE_PACKAGE_NAME cpd-udisk)
set(CPACK_DEBIAN_MODULE_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_MODULE_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_MODULE_DESCRIPTION "redirects USB disks to remote sessions (driver module)
A host program loads this module, and hands it the requests of a remote
session. The module carries them out on a disk of this machine, and answers.")

set(CPACK_DEBIAN_HOST_PACKAGE_NAME cpd-host)
set(CPACK_DEBIAN_HOST_PACKAGE_SECTION net)
set(CPACK_DEBIAN_HOST_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_HOST_PACKAGE_DEPENDS "cpd-udisk ${same_version}, fuse3")
set(CPACK_DEBIAN_HOST_PACKAGE_RECOMMENDS openssh-client)
set(CPACK_DEBIAN_HOST_DESCRIPTION "mounts disks of other machines through the driver module
cpd-host shows a disk of one machine as a mount on another one, over ssh. It
redirects directories, and USB disks whenever they are plugged in.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libcpd-udisk-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "cpd-udisk ${same_version}")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "redirects USB disks to remote sessions (development files)
With these headers, and the library of the packet class, a program can load
the driver module of cpd-udisk. An example of such a program comes with them.")

include(CPack)
