# What is installed, and the Debian package and the rpm of it.
include(GNUInstallDirs)

set(packaging ${PROJECT_SOURCE_DIR}/packaging)
set(made ${PROJECT_BINARY_DIR}/packaging)
find_program(ZK_GZIP gzip)

# Installs a file compressed, as packages have to have it; -n leaves the time out.
function(zk_install_compressed file destination name)
  if(ZK_GZIP)
    file(MAKE_DIRECTORY ${made})
    execute_process(COMMAND ${ZK_GZIP} -9nc ${file} OUTPUT_FILE ${made}/${name}.gz
      COMMAND_ERROR_IS_FATAL ANY)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
    install(FILES ${made}/${name}.gz DESTINATION ${destination})
  else()
    install(FILES ${file} DESTINATION ${destination} RENAME ${name})
  endif()
endfunction()

install(TARGETS zkturnd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS zkturn RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
zk_install_compressed(${PROJECT_SOURCE_DIR}/docs/zkturnd.8 ${CMAKE_INSTALL_MANDIR}/man8 zkturnd.8)
zk_install_compressed(${PROJECT_SOURCE_DIR}/docs/zkturn.1 ${CMAKE_INSTALL_MANDIR}/man1 zkturn.1)
install(FILES ${packaging}/zkturn.bash RENAME zkturn
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES ${packaging}/_zkturn DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
# Where Debian's zsh looks instead.
install(FILES ${packaging}/_zkturn DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)

# Put in its place, and loaded, where AppArmor is one that needs it.
install(FILES ${packaging}/apparmor DESTINATION ${CMAKE_INSTALL_DATADIR}/zkturn)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${packaging}/postinst ${packaging}/prerm)

set(docs ${CMAKE_INSTALL_DATADIR}/doc/zkturnd)
install(FILES README.md packaging/copyright DESTINATION ${docs})
# The README refers to the other documents by these paths.
install(DIRECTORY docs examples DESTINATION ${docs} PATTERN "*.[0-9]" EXCLUDE)

# A package's changelog has one form only; what it says stands in ours.
file(STRINGS CHANGELOG.md heading REGEX "^## \\[${PROJECT_VERSION}\\] - [0-9-]+$")
if(NOT heading)
  message(FATAL_ERROR "CHANGELOG.md has no dated section for ${PROJECT_VERSION}")
endif()
string(REGEX REPLACE ".* - " "" date "${heading}")
execute_process(COMMAND date -u -R -d "${date} 12:00" OUTPUT_VARIABLE date
  OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
set(CPACK_PACKAGE_CONTACT "zkturnd maintainers <maintainers@zkturnd.example.org>")
file(WRITE ${made}/changelog.debian
  "zkturnd (${PROJECT_VERSION}) unstable; urgency=medium\n\n"
  "  * Version ${PROJECT_VERSION}; the changelog beside this one has what is new.\n\n"
  " -- ${CPACK_PACKAGE_CONTACT}  ${date}\n")
zk_install_compressed(${made}/changelog.debian ${docs} changelog)
zk_install_compressed(${PROJECT_SOURCE_DIR}/CHANGELOG.md ${docs} CHANGELOG.md)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "take programs and calls through a SOCKS5 proxy")
set(CPACK_PACKAGE_DESCRIPTION
  "For those whose address is nobody's business: zkturn runs any program with a
SOCKS5 proxy as its only way out, gives browsers a relay for their calls, and
tells what a proxy can do.

zkturnd is for applications that speak TURN. It serves TURN on 127.0.0.1 to the
program that started it, and relays the datagrams of each client through a UDP
association of the proxy, so that peers see the proxy's address only.")
set(CPACK_PACKAGE_VENDOR "zkturnd maintainers")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_PACKAGE_LICENSE "No licence has been chosen")
set(CPACK_RPM_PACKAGE_DESCRIPTION ${CPACK_PACKAGE_DESCRIPTION})
# Folders that belong to the system.
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION
  /usr/sbin /usr/share/man /usr/share/man/man1 /usr/share/man/man8 /usr/share/doc
  /usr/share/bash-completion /usr/share/bash-completion/completions /usr/share/zsh
  /usr/share/zsh/site-functions /usr/share/zsh/vendor-completions)
include(CPack)
