# What makes a mistake harder to use, as Debian's own builds have it: a stack that is guarded and grows page by page,
# checked calls of the C library, addresses that nobody knows beforehand, and tables of the linker that are read-only
# from the start. tests/system/test_hardening.py looks for each of them in the built program.
#
# The checked calls need optimisation, and sanitizers look at more than all of this.
if(NOT WIN32 AND NOT TRABEX_SANITIZE AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  add_compile_options(-Wformat-security)
  # A compiler that has a level of its own would complain about a second one; so the order counts.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 12)
    add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3)
  else()
    add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  endif()
  # All symbols are found at the start, so that no call needs the jump of a table.
  add_compile_options(-fstack-protector-strong -fstack-clash-protection -fno-plt)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64)$")
    add_compile_options(-fcf-protection)
  elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    add_compile_options(-mbranch-protection=standard)
  endif()
  # What is made for a shared library is position-independent anyway, and in another way.
  add_compile_options($<$<IN_LIST:$<TARGET_PROPERTY:TYPE>,EXECUTABLE$<SEMICOLON>STATIC_LIBRARY$<SEMICOLON>OBJECT_LIBRARY>:-fPIE>)
  add_link_options($<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-pie> -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
endif()
