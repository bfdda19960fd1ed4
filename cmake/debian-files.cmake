# CPack runs this before it makes the packages. To the files that were installed for a package, it
# adds what only a Debian package has.
find_program(GZIP gzip REQUIRED)
find_program(STRIP strip REQUIRED)

function(compress file)
  execute_process(COMMAND ${GZIP} -9n ${file} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} COMPONENT)
  set(share ${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/share)
  set(package ${CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME})
  set(documents ${share}/doc/${package})
  file(COPY ${CMAKE_CURRENT_LIST_DIR}/debian/copyright DESTINATION ${documents})
  configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/changelog.in ${documents}/changelog @ONLY)
  compress(${documents}/changelog)
  if(EXISTS ${CMAKE_CURRENT_LIST_DIR}/debian/lintian/${package})
    file(COPY ${CMAKE_CURRENT_LIST_DIR}/debian/lintian/${package}
      DESTINATION ${share}/lintian/overrides)
  endif()
  file(GLOB pages ${share}/man/man1/*.1)
  foreach(page IN LISTS pages)
    compress(${page})
  endforeach()
endforeach()

# CPack strips programs and modules, but not libraries for the linker.
file(GLOB_RECURSE libraries ${CPACK_TEMPORARY_DIRECTORY}/development/*.a)
execute_process(COMMAND ${STRIP} --strip-debug --remove-section=.comment
  --enable-deterministic-archives ${libraries} COMMAND_ERROR_IS_FATAL ANY)
