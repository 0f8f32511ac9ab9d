# The Debian package, of what Install.cmake places; ./package makes it.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME trabex)
set(CPACK_PACKAGE_CONTACT "the Trabex authors <trabex@example.org>")
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_SOURCE_DIR}/build)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS ${CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS})

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION mail)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "SMTP filtering proxy
Trabex stands in front of an SMTP server, relays the dialogue both ways and
decides on the way what may pass: who may connect, which HELO names, senders
and recipients are taken, how large and how many messages may be, and whether
an unknown combination of client, sender and recipient has to come back later
(greylisting).

It speaks TLS and IPv6 on both sides, can change what the server offers and
says, and tells the server who the client is.")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The standalone ones do on a machine without systemd.
set(CPACK_DEBIAN_PACKAGE_DEPENDS
  "python3, passwd, systemd | systemd-standalone-sysusers | systemd-sysusers, systemd | systemd-standalone-tmpfiles | systemd-tmpfiles")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS logrotate)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "fail2ban, prometheus")
set(CPACK_DEBIAN_PACKAGE_ENHANCES "exim4, opensmtpd, postfix")

list(JOIN TRABEX_CONFFILES "\n" conffiles)
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/package/conffiles CONTENT "${conffiles}\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/package/conffiles)
foreach(script postinst prerm postrm)
  list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_SOURCE_DIR}/packaging/debian/${script})
endforeach()
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
