# `cpack` makes two Debian packages: what programs run with, and what they are built with.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "Maintainers of libvesk_netlink <maintainers@vesk.example>")
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/before-packages.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/after-packages.cmake)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libvesk-netlink)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}) # libvesk_utils.so is in no package yet
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/triggers)
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

# What every Debian package holds, and no other prefix.
foreach(component RUNTIME DEV)
  set(package ${CPACK_DEBIAN_${component}_PACKAGE_NAME})
  string(TOLOWER ${component} component)
  set(doc ${CMAKE_INSTALL_DATADIR}/doc/${package})
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/copyright DESTINATION ${doc} COMPONENT ${component} EXCLUDE_FROM_ALL)
  install(
    CODE "execute_process(COMMAND ${CMAKE_CURRENT_LIST_DIR}/changelog ${package} \"${CPACK_PACKAGE_CONTACT}\"
                          COMMAND gzip -9n
                          INPUT_FILE \"${PROJECT_SOURCE_DIR}/CHANGELOG.md\"
                          OUTPUT_FILE \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${doc}/changelog.gz\"
                          COMMAND_ERROR_IS_FATAL ANY)"
    COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()
install(FILES ${CMAKE_CURRENT_LIST_DIR}/lintian-overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
        RENAME ${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} COMPONENT runtime EXCLUDE_FROM_ALL)
# The pages, and what they link to, where their links look for it.
foreach(folder . docs docs/pictures examples)
  set(linked ${PROJECT_SOURCE_DIR}/${folder})
  file(GLOB pages CONFIGURE_DEPENDS ${linked}/README.md ${linked}/SECURITY.md ${linked}/[a-z]*.md ${linked}/*.tsv
       ${linked}/*.svg ${linked}/*.cpp ${linked}/*.ini ${linked}/*.te ${linked}/two-hosts ${linked}/tunnel)
  install(FILES ${pages} DESTINATION ${doc}/${folder} COMPONENT dev EXCLUDE_FROM_ALL)
endforeach()

include(CPack)
