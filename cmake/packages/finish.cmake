# What Debian wants of a package and CPack does not do: compressed manual pages and changelogs, a trigger where CPack
# writes scripts that call ldconfig, Multi-Arch, no remarks of the compiler, and one time for all files.
function(run)
  execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY OUTPUT_QUIET)
endfunction()

foreach(package IN LISTS CPACK_PACKAGE_FILES)
  set(folder ${package}.folder)
  file(REMOVE_RECURSE ${folder})
  run(dpkg-deb --raw-extract ${package} ${folder})

  file(GLOB_RECURSE texts ${folder}/usr/share/man/* ${folder}/usr/share/doc/*/changelog)
  if(texts)
    run(gzip --best --no-name ${texts})
  endif()

  file(GLOB binaries ${folder}/usr/bin/* ${folder}/usr/lib/*/*.so.*.*.*)
  foreach(binary IN LISTS binaries)
    run(strip --strip-unneeded --remove-section=.comment --remove-section=.note ${binary})
  endforeach()

  file(REMOVE ${folder}/DEBIAN/postinst ${folder}/DEBIAN/postrm)
  if(EXISTS ${folder}/DEBIAN/shlibs)
    file(WRITE ${folder}/DEBIAN/triggers "activate-noawait ldconfig\n")
  endif()
  set(multi_arch foreign)
  if(package MATCHES "/lib[^/]*$")
    set(multi_arch same)
  endif()
  file(READ ${folder}/DEBIAN/control control)
  string(STRIP "${control}" control)
  file(WRITE ${folder}/DEBIAN/control "${control}\nMulti-Arch: ${multi_arch}\n")
  execute_process(COMMAND find usr -type f -exec md5sum {} + COMMAND sort -k 2 WORKING_DIRECTORY ${folder}
    OUTPUT_FILE ${folder}/DEBIAN/md5sums COMMAND_ERROR_IS_FATAL ANY)
  run(chmod -R u=rwX,go=rX ${folder})
  if(DEFINED ENV{SOURCE_DATE_EPOCH})
    run(find ${folder} -exec touch --no-dereference --date=@$ENV{SOURCE_DATE_EPOCH} {} +)
  endif()

  run(dpkg-deb --root-owner-group -Zxz --build ${folder} ${package})
  file(REMOVE_RECURSE ${folder})
endforeach()
