# Run by CPack on its staging folder before it builds the package: Debian keeps manual pages
# compressed (gzip -9n, so that the package is reproducible).
file(GLOB_RECURSE pages "${CPACK_TEMPORARY_DIRECTORY}/*/share/man/man[1-9]/*.[1-9]")
foreach(page IN LISTS pages)
  execute_process(COMMAND gzip -9 -n -f "${page}" RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "gzip ${page} failed: ${rc}")
  endif()
endforeach()
