include(CMakePackageConfigHelpers)

# The event library is a shared object of its own that libtarn depends on;
# both go into the same export set (tarn::tarn, tarn::eventlib).
install(TARGETS tarn tarn_eventlib qpipe EXPORT tarnTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/tarn
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/qpipe
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/isc
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
# The record header is generated from the type descriptions.
get_property(TARN_IDL_RECORDS_HEADER GLOBAL PROPERTY TARN_IDL_RECORDS_HEADER)
install(FILES ${TARN_IDL_RECORDS_HEADER} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tarn)

install(EXPORT tarnTargets
  NAMESPACE tarn::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarn)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/tarnConfig.cmake.in
  ${PROJECT_BINARY_DIR}/tarnConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarn)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tarnConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/tarnConfig.cmake
  ${PROJECT_BINARY_DIR}/tarnConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarn)

# The .pc file finds its prefix from its own location, so the installed tree
# can be moved or installed with --prefix after configuration.
file(RELATIVE_PATH TARN_PC_TO_PREFIX "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
configure_file(${PROJECT_SOURCE_DIR}/cmake/libtarn.pc.in ${PROJECT_BINARY_DIR}/libtarn.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/libtarn.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The compression hooks for configuration blobs: a library of their own that
# daemons link next to libtarn when they want zlib or zstd.
if(TARGET tarn_compress)
  install(TARGETS tarn_compress EXPORT tarnCompressTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(EXPORT tarnCompressTargets
    NAMESPACE tarn::
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarn)
endif()
