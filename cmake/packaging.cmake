# Install rules and the Debian package: cpack --config build/release/CPackConfig.cmake
include(GNUInstallDirs)

# Packaging takes what is built; it does not build tests and benchmarks first.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

install(TARGETS tavrel-controller RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES packaging/tavrel-controller.service DESTINATION lib/systemd/system)
install(FILES packaging/controller.env DESTINATION /etc/tavrel
        PERMISSIONS OWNER_READ OWNER_WRITE)
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} RENAME copyright)
if(EXISTS ${CMAKE_SOURCE_DIR}/README.md)
  install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tavrel-controller)
set(CPACK_PACKAGE_VENDOR "The tavrel-controller authors")
set(CPACK_PACKAGE_CONTACT "The tavrel-controller authors <root@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Control node of a distributed inference cluster")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    "${CMAKE_SOURCE_DIR}/packaging/conffiles;${CMAKE_SOURCE_DIR}/packaging/postinst;${CMAKE_SOURCE_DIR}/packaging/prerm")
include(CPack)
