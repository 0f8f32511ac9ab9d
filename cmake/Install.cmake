# Where the parts are put by "cmake --install", and thereby in the package. The places are those of a Debian system: what
# is not below the prefix (/etc, and what systemd reads) is where it is looked for, and DESTDIR puts all of it elsewhere.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX /usr CACHE PATH "Where the program is installed" FORCE)
endif()
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
# Only what is named here is built for an installation.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)
set(packaging ${CMAKE_CURRENT_SOURCE_DIR}/packaging)

install(TARGETS Trabex RUNTIME DESTINATION sbin)
install(CODE "file(CREATE_LINK Trabex \$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/sbin/trabex SYMBOLIC)")
install(PROGRAMS tools/trabex-convert DESTINATION bin)

# Configuration, which an upgrade leaves as it was changed. trabex_conffile(from to): `to` is a whole path.
set(TRABEX_CONFFILES)
function(trabex_conffile from to)
  cmake_path(GET to PARENT_PATH folder)
  cmake_path(GET to FILENAME name)
  install(FILES ${from} DESTINATION ${folder} RENAME ${name})
  list(APPEND TRABEX_CONFFILES ${to})
  set(TRABEX_CONFFILES ${TRABEX_CONFFILES} PARENT_SCOPE)
endfunction()
trabex_conffile(${packaging}/sample.ini /etc/trabex/sample.ini)
trabex_conffile(${packaging}/logrotate /etc/logrotate.d/trabex)
trabex_conffile(${packaging}/fail2ban/trabex-filter.conf /etc/fail2ban/filter.d/trabex.conf)

install(FILES ${packaging}/systemd/trabex@.service DESTINATION lib/systemd/system)
install(FILES ${packaging}/systemd/sysusers.conf DESTINATION lib/sysusers.d RENAME trabex.conf)
install(FILES ${packaging}/systemd/tmpfiles.conf DESTINATION lib/tmpfiles.d RENAME trabex.conf)

set(completions share/bash-completion/completions)
install(FILES ${packaging}/bash-completion/trabex ${packaging}/bash-completion/trabex-convert DESTINATION ${completions})
install(CODE "file(CREATE_LINK trabex \$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${completions}/Trabex SYMBOLIC)")

install(FILES monitoring/trabex-alerts.yml monitoring/trabex-dashboard.json DESTINATION share/trabex/monitoring)
install(FILES ${packaging}/fail2ban/trabex-jail.conf DESTINATION share/trabex/fail2ban)
install(FILES ${packaging}/rsyslog.conf ${packaging}/vector.toml DESTINATION share/trabex)

# Documents, of which some are made or compressed on the way.
file(GLOB documents CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/docs/*.md ${CMAKE_CURRENT_SOURCE_DIR}/docs/*.svg)
install(DIRECTORY docs/performance DESTINATION share/doc/trabex)
install(FILES ${documents} ${packaging}/debian/copyright DESTINATION share/doc/trabex)
file(GLOB manual_pages CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/docs/man/*)
foreach(variable manual_pages PROJECT_VERSION)
  install(CODE "set(${variable} \"${${variable}}\")")
endforeach()
install(SCRIPT cmake/InstallCompressed.cmake)
