# `cpack` makes two Debian packages: what programs run with, and what they are built with.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "Maintainers of libvesk_netlink <maintainers@vesk.example>")
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libvesk-netlink)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}) # libvesk_utils.so is in no package yet
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/triggers) # CPack only adds scripts
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
    "changes the kernel's networking state over netlink
One synchronous call each for interface addresses, routes, the marks of
policy rules, queueing disciplines, IPv6 address labels, and IPsec states
and policies.
.
This package holds the shared libraries, and veskctl, which makes the same
calls from the command line.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libvesk-netlink-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libvesk-netlink (= ${PROJECT_VERSION}), libc6-dev")
set(CPACK_DEBIAN_DEV_DESCRIPTION
    "changes the kernel's networking state over netlink (development files)
Headers, the CMake package vesk_netlink and its pkg-config file, and a
library that plays the kernel in tests: it records requests and serves
scripted replies.")

include(CPack)
