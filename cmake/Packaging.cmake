# cmake --install and the .deb. The daemon is a system program; the command is everybody's.
include(GNUInstallDirs)

install(TARGETS tandor-provider RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
foreach(unit tandor-provider tandor)
  configure_file(packaging/${unit}.service ${CMAKE_CURRENT_BINARY_DIR}/packaging/${unit}.service @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/packaging/${unit}.service DESTINATION lib/systemd/system)
endforeach()
install(FILES README.md packaging/tandor.json.example DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(TARGETS tandor RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(PROGRAMS scripts/demo DESTINATION ${CMAKE_INSTALL_DATADIR}/tandor)
install(FILES packaging/man/tandor.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES packaging/man/tandor.json.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
install(FILES packaging/man/tandor-provider.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
# The command writes its own completions, from the parser that it uses.
set(completions ${CMAKE_CURRENT_BINARY_DIR}/packaging/completions)
add_custom_command(
  OUTPUT ${completions}/tandor.bash ${completions}/_tandor ${completions}/tandor.fish
  COMMAND ${CMAKE_COMMAND} -E make_directory ${completions}
  COMMAND tandor completions bash > ${completions}/tandor.bash
  COMMAND tandor completions zsh > ${completions}/_tandor
  COMMAND tandor completions fish > ${completions}/tandor.fish
  DEPENDS tandor VERBATIM)
add_custom_target(tandor_completions ALL DEPENDS ${completions}/tandor.bash)
install(FILES ${completions}/tandor.bash RENAME tandor
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES ${completions}/_tandor DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
install(FILES ${completions}/tandor.fish DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tandor)
set(CPACK_PACKAGE_CONTACT "Tandor maintainers <maintainers@tandor.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "Sends chosen applications through an HTTP proxy or past a VPN, and nothing else.\n Taken flows are relayed by a daemon; all others stay with the kernel, untouched.")
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS iptables)
# What `tandor demo` shows it with.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "curl, iproute2, nginx-light, openssl, socat, squid, wget")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    "${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/postinst"
    "${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/prerm"
    "${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/postrm")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
include(CPack)
