# What `cmake --install` puts where, and the Debian package that `cpack -G DEB` makes of it.
include(GNUInstallDirs)

get_property(programs_built TARGET programs PROPERTY MANUALLY_ADDED_DEPENDENCIES)
install(TARGETS ${programs_built} RUNTIME)
foreach(program IN LISTS python_programs)
  install(PROGRAMS python/tool DESTINATION ${CMAKE_INSTALL_BINDIR} RENAME ${program})
endforeach()
install(DIRECTORY python/morvane DESTINATION lib/python3/dist-packages
        FILES_MATCHING PATTERN "*.py" PATTERN "*.css" PATTERN "__pycache__" EXCLUDE)
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR} FILES_MATCHING PATTERN "*.md" PATTERN "*.png")
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} USE_SOURCE_PERMISSIONS PATTERN "__pycache__" EXCLUDE)
install(FILES README.md CHANGELOG.md CITATION.cff DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} RENAME copyright)

# Manual pages are made of what the programs say of themselves.
install(CODE "execute_process(COMMAND /usr/bin/python3 \"${CMAKE_SOURCE_DIR}/packaging/manpages\"
                              \"${CMAKE_RUNTIME_OUTPUT_DIRECTORY}\" \"${CMAKE_BINARY_DIR}/man\" COMMAND_ERROR_IS_FATAL ANY)")
install(DIRECTORY ${CMAKE_BINARY_DIR}/man/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
foreach(program IN LISTS programs_built python_programs)
  install(FILES packaging/completion.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
          RENAME ${program})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME morvane)
set(CPACK_PACKAGE_CONTACT "the morvane authors <maintainers@morvane.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "slowness models that focus the image, from recorded wavefields")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION science)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "python3")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "python3-numpy, python3-matplotlib, python3-segyio")
include(CPack)
