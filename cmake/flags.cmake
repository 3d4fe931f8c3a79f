# torvasin_flags: the compiler and linker options of every target.

add_library(torvasin_flags INTERFACE)
if(TORVASIN_WARNINGS)
  target_compile_options(torvasin_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wformat=2 -Wshadow -Wconversion -Wsign-conversion -Wcast-align
    -Wcast-qual -Wundef -Wvla -Wdouble-promotion -Wimplicit-fallthrough
    $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual>)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(torvasin_flags INTERFACE
      -Wduplicated-cond -Wduplicated-branches -Wlogical-op -Wformat-overflow=2
      -Wformat-truncation=2 -Wstrict-overflow=2
      $<$<COMPILE_LANGUAGE:CXX>:-Wuseless-cast>)
  endif()
endif()

# Hardening. _FORTIFY_SOURCE needs an optimised build and does not work with sanitizers.
target_compile_options(torvasin_flags INTERFACE -fstack-protector-strong -fno-plt)
target_link_options(torvasin_flags INTERFACE
  -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,--as-needed)
if(TORVASIN_SANITIZE)
  target_compile_options(torvasin_flags INTERFACE
    -fsanitize=${TORVASIN_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(torvasin_flags INTERFACE -fsanitize=${TORVASIN_SANITIZE})
else()
  target_compile_options(torvasin_flags INTERFACE
    $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
endif()
if(TORVASIN_FUZZ)
  target_compile_options(torvasin_flags INTERFACE
    -fsanitize=fuzzer-no-link,float-cast-overflow -fno-sanitize-recover=all)
endif()
if(TORVASIN_COVERAGE)
  target_compile_options(torvasin_flags INTERFACE -fprofile-instr-generate -fcoverage-mapping)
  target_link_options(torvasin_flags INTERFACE -fprofile-instr-generate)
endif()

# torvasin_module_flags: restricts C++ to a subset that needs no C++ runtime library.
add_library(torvasin_module_flags INTERFACE)
target_link_libraries(torvasin_module_flags INTERFACE torvasin_flags)
target_compile_options(torvasin_module_flags INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>
  -fno-asynchronous-unwind-tables)
