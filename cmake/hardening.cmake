# Hardens every optimised build. The sanitizers look for the same errors themselves, and the
# fortified calls of the C library would hide some from them.
option(UDISK_HARDENING "Harden optimised builds; without it, a bench can tell what that costs" ON)
set(UDISK_HARDENED OFF)
string(TOUPPER "${CMAKE_BUILD_TYPE}" build_type)
if(UDISK_HARDENING AND NOT UDISK_SANITIZE AND
    build_type MATCHES "^(RELEASE|RELWITHDEBINFO|MINSIZEREL)$")
  set(UDISK_HARDENED ON)
  # Programs are loaded to random addresses.
  include(CheckPIESupported)
  check_pie_supported(LANGUAGES C CXX)
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
  # A compiler may come with a level of its own.
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3 -D_GLIBCXX_ASSERTIONS
    -fstack-protector-strong -fstack-clash-protection)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|i[3-6]86)$")
    add_compile_options(-fcf-protection)
  endif()
  add_link_options(LINKER:-z,relro,-z,now,-z,noexecstack)
endif()
