# The `ci` preset: one tree that configures and builds the host, i386 and asan
# presets one after another (each is a full build of its own under build/<name>)
# and whose CTest file pulls in the tests of all three, so that one ctest run
# executes every test of every build.
set(_tarn_presets host i386 asan)
set(_previous "")
foreach(_preset IN LISTS _tarn_presets)
  add_custom_target(build-${_preset} ALL
    COMMAND ${CMAKE_COMMAND} --preset ${_preset}
    COMMAND ${CMAKE_COMMAND} --build --preset ${_preset}
    WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}
    USES_TERMINAL
    COMMENT "Configuring and building preset ${_preset}")
  if(_previous)
    add_dependencies(build-${_preset} build-${_previous})
  endif()
  set(_previous ${_preset})
endforeach()

enable_testing()
set(_subdirs "")
foreach(_preset IN LISTS _tarn_presets)
  string(APPEND _subdirs "subdirs(\"${CMAKE_SOURCE_DIR}/build/${_preset}\")\n")
endforeach()
file(WRITE ${CMAKE_BINARY_DIR}/tarn_subbuilds.cmake "${_subdirs}")
set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${CMAKE_BINARY_DIR}/tarn_subbuilds.cmake)
