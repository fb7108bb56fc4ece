# Run by CPack after it built the packages (CPACK_POST_BUILD_SCRIPTS): adds
# the Multi-Arch field, which CPack's DEB generator cannot write, to each
# package named in CPACK_TQREDIS_MULTIARCH ("<package>=<value>;..."). With it
# the library and its development files of several architectures install side
# by side, and the tools satisfy dependencies of any architecture.
foreach(deb IN LISTS CPACK_PACKAGE_FILES)
  if(NOT deb MATCHES "\\.deb$")
    continue()
  endif()
  execute_process(COMMAND dpkg-deb -f ${deb} Package
    OUTPUT_VARIABLE package OUTPUT_STRIP_TRAILING_WHITESPACE
    COMMAND_ERROR_IS_FATAL ANY)
  set(value "")
  foreach(pair IN LISTS CPACK_TQREDIS_MULTIARCH)
    if(pair MATCHES "^${package}=(.+)$")
      set(value ${CMAKE_MATCH_1})
    endif()
  endforeach()
  if(NOT value)
    continue()
  endif()
  set(raw ${deb}.raw)
  file(REMOVE_RECURSE ${raw})
  execute_process(COMMAND dpkg-deb -R ${deb} ${raw} COMMAND_ERROR_IS_FATAL ANY)
  file(READ ${raw}/DEBIAN/control control)
  if(NOT control MATCHES "\nMulti-Arch:")
    string(REGEX REPLACE "(\nArchitecture: [^\n]*\n)" "\\1Multi-Arch: ${value}\n"
      control "\n${control}")
    string(SUBSTRING "${control}" 1 -1 control)
    file(WRITE ${raw}/DEBIAN/control "${control}")
    execute_process(COMMAND dpkg-deb --root-owner-group -b ${raw} ${deb}
      OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  endif()
  file(REMOVE_RECURSE ${raw})
endforeach()
