# Run by cpack before it makes the packages: adds to each what Debian's policy asks for. The tree of a
# component stands in CPACK_TEMPORARY_DIRECTORY, below its name.
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} id)
  set(tree ${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/share)
  set(name ${CPACK_DEBIAN_${id}_PACKAGE_NAME})
  set(docs ${tree}/doc/${name})
  file(COPY ${CPACK_BREFIR_DEBIAN}/copyright ${CPACK_BREFIR_DEBIAN}/changelog
       DESTINATION ${docs} FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  file(GLOB pages ${tree}/man/man*/*.[1-8])
  execute_process(COMMAND gzip -9 --no-name --force ${docs}/changelog ${pages}
                  COMMAND_ERROR_IS_FATAL ANY)
  if(EXISTS ${CPACK_BREFIR_DEBIAN}/lintian/${name})
    file(COPY ${CPACK_BREFIR_DEBIAN}/lintian/${name}
         DESTINATION ${tree}/lintian/overrides)
  endif()
  execute_process(COMMAND find ${tree} -type d -empty -delete COMMAND_ERROR_IS_FATAL ANY)
endforeach()
