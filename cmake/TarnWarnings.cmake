# Warnings are errors for everything the project itself compiles; third-party
# sources (GoogleTest built from source) keep their own flags.
function(tarn_target_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wformat=2 -Wcast-align -Wundef
    -Wmissing-declarations -Werror
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual>
    $<$<COMPILE_LANGUAGE:C>:-Wstrict-prototypes -Wmissing-prototypes>)
endfunction()

# The library proper: no exceptions, no RTTI, nothing thrown across the C ABI.
function(tarn_library_flags target)
  tarn_target_warnings(${target})
  target_compile_options(${target} PRIVATE
    $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti>)
endfunction()
