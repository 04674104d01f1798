# Compiles through ccache when it is installed. Paths are taken relative to
# the source tree and the working directory is left out of the hash, so a
# fresh clone elsewhere on the same machine (CI's, a second work tree) reuses
# what an earlier build compiled instead of building the codecs again.
# TARN_CCACHE=OFF turns it off.
option(TARN_CCACHE "Compile through ccache when it is found" ON)
if(TARN_CCACHE AND NOT CMAKE_C_COMPILER_LAUNCHER AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  find_program(TARN_CCACHE_PROGRAM ccache)
  if(TARN_CCACHE_PROGRAM)
    set(_tarn_launcher ${CMAKE_COMMAND} -E env
        CCACHE_BASEDIR=${CMAKE_SOURCE_DIR} CCACHE_NOHASHDIR=1 ${TARN_CCACHE_PROGRAM})
    set(CMAKE_C_COMPILER_LAUNCHER ${_tarn_launcher})
    set(CMAKE_CXX_COMPILER_LAUNCHER ${_tarn_launcher})
  endif()
endif()
