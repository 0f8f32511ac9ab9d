# Run by "cmake --install": what a Debian system has compressed, without the date that would make each one another file.
set(share $ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/share)

function(install_compressed from to)
  cmake_path(GET to PARENT_PATH folder)
  file(MAKE_DIRECTORY ${folder})
  execute_process(COMMAND gzip -9 -n -c ${from} OUTPUT_FILE ${to} COMMAND_ERROR_IS_FATAL ANY)
  file(CHMOD ${to} PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  set(compressed ${compressed} ${to} PARENT_SCOPE)
  message(STATUS "Installing: ${to}")
endfunction()

foreach(page IN LISTS manual_pages)
  cmake_path(GET page FILENAME name)
  string(REGEX REPLACE "^.*\\." "" section ${name})
  install_compressed(${page} ${share}/man/man${section}/${name}.gz)
endforeach()
# The program has its name in small letters too.
file(CREATE_LINK trabex.8.gz ${share}/man/man8/Trabex.8.gz SYMBOLIC)

install_compressed(${CMAKE_CURRENT_LIST_DIR}/../CHANGELOG.md ${share}/doc/trabex/changelog.gz)
# The date is that of SOURCE_DATE_EPOCH where it is set.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
set(changelog ${share}/doc/trabex/changelog.Debian)
file(WRITE ${changelog} "trabex (${PROJECT_VERSION}-1) unstable; urgency=medium\n\n"
  "  * What changed is in changelog.gz.\n\n"
  " -- the Trabex authors <trabex@example.org>  ${date}\n")
install_compressed(${changelog} ${share}/doc/trabex/changelog.Debian.gz)
file(REMOVE ${changelog})

# The bill of materials, of all that was put in place so far: where dpkg can say which packages the libraries are of.
find_program(dpkg_query dpkg-query)
if(dpkg_query)
  list(TRANSFORM CMAKE_INSTALL_MANIFEST_FILES PREPEND "$ENV{DESTDIR}" OUTPUT_VARIABLE placed)
  set(root "$ENV{DESTDIR}")
  if(NOT root)
    set(root /)
  endif()
  set(sbom ${share}/doc/trabex/trabex.spdx.json)
  execute_process(
    COMMAND python3 ${CMAKE_CURRENT_LIST_DIR}/../scripts/make-sbom --version ${PROJECT_VERSION}
            --program $ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/sbin/Trabex --root ${root} --output ${sbom} ${placed} ${compressed}
    COMMAND_ERROR_IS_FATAL ANY)
  message(STATUS "Installing: ${sbom}")
endif()
