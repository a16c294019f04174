# Run by cpack before it makes the packages: adds to each what Debian's policy asks for. The tree of a
# component stands in CPACK_TEMPORARY_DIRECTORY, below its name.
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} id)
  set(tree ${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/share)
  set(docs ${tree}/doc/${CPACK_DEBIAN_${id}_PACKAGE_NAME})
  file(COPY ${CPACK_BREFIR_PACKAGING}/copyright ${CPACK_BREFIR_PACKAGING}/changelog
       DESTINATION ${docs} FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  file(GLOB pages ${tree}/man/man*/*.[1-8])
  execute_process(COMMAND gzip -9 --no-name --force ${docs}/changelog ${pages}
                  COMMAND_ERROR_IS_FATAL ANY)
endforeach()
