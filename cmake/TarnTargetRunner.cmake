# How this build runs the programs it builds for the target, when it
# cross-compiles (the i386 preset). Building never runs them; tests do.
# A host whose kernel executes i386 programs runs them directly; one that
# cannot (no IA-32 emulation in the kernel, as on our CI machines) runs them
# through qemu-i386 (Debian's qemu-user). The choice is made once, at
# configure time, by building and starting a tiny program, and it becomes
# CMAKE_CROSSCOMPILING_EMULATOR, which add_test, GoogleTest's test discovery
# and TARN_TARGET_RUNNER (for tests that start target programs themselves,
# such as the kernel emulator) all use.
if(NOT CMAKE_CROSSCOMPILING)
  set(TARN_TARGET_RUNNER "")
  return()
endif()

if(NOT DEFINED CACHE{TARN_TARGET_RUNNER})
  set(_probe_dir ${CMAKE_BINARY_DIR}/target-probe)
  file(WRITE ${_probe_dir}/probe.c "int main(void) { return 42; }\n")
  try_compile(_probe_built ${_probe_dir}/build
    SOURCES ${_probe_dir}/probe.c
    COPY_FILE ${_probe_dir}/probe
    OUTPUT_VARIABLE _probe_log)
  if(NOT _probe_built)
    message(FATAL_ERROR "Cannot build a program for the target:\n${_probe_log}")
  endif()
  execute_process(COMMAND ${_probe_dir}/probe RESULT_VARIABLE _native
                  OUTPUT_QUIET ERROR_QUIET)
  if(_native EQUAL 42)
    set(_runner "")
    set(_how "natively")
  else()
    find_program(TARN_QEMU_I386 qemu-i386)
    if(NOT TARN_QEMU_I386)
      message(FATAL_ERROR "This host cannot run i386 programs and qemu-i386 was not found "
                          "(Debian package qemu-user; scripts/install-deps.sh installs it)")
    endif()
    execute_process(COMMAND ${TARN_QEMU_I386} ${_probe_dir}/probe RESULT_VARIABLE _emulated
                    OUTPUT_QUIET ERROR_QUIET)
    if(NOT _emulated EQUAL 42)
      message(FATAL_ERROR "${TARN_QEMU_I386} could not run an i386 program (${_emulated})")
    endif()
    set(_runner ${TARN_QEMU_I386})
    set(_how "through ${TARN_QEMU_I386}")
  endif()
  set(TARN_TARGET_RUNNER "${_runner}" CACHE STRING
      "Command that runs target programs in tests (empty: natively)")
  message(STATUS "Target programs in tests run ${_how}")
else()
  if(TARN_TARGET_RUNNER)
    message(STATUS "Target programs in tests run through ${TARN_TARGET_RUNNER}")
  else()
    message(STATUS "Target programs in tests run natively")
  endif()
endif()

if(TARN_TARGET_RUNNER)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${TARN_TARGET_RUNNER})
endif()
