# What is installed, and the Debian package of it. No licence is named: none has been chosen.
include(GNUInstallDirs)

install(TARGETS zkturnd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(FILES docs/zkturnd.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
if(TARGET zkturn)
  install(TARGETS zkturn RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES docs/zkturn.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()
install(FILES README.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
# The README refers to the other documents by these paths.
install(DIRECTORY docs examples DESTINATION ${CMAKE_INSTALL_DOCDIR}
  PATTERN "*.[0-9]" EXCLUDE)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "zkturnd maintainers <root@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "local TURN relay through a SOCKS5 proxy")
set(CPACK_PACKAGE_DESCRIPTION
  "zkturnd serves TURN on 127.0.0.1 to the program that started it, and relays the
datagrams of each client through a UDP association of a SOCKS5 proxy, so that
peers see the proxy's address only.")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
include(CPack)
