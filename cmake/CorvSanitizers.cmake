# Instrumented builds, included at the very end of the top-level CMakeLists.txt so that every
# target of the project already exists and gets the same flags.
#
#   CORV_SANITIZE=ON  AddressSanitizer + UndefinedBehaviorSanitizer on every C++ target; an
#                     undefined-behaviour report ends the process, so it fails its test.
#   CORV_FUZZ=ON      (clang only) coverage instrumentation + AddressSanitizer for the libraries,
#                     and the libFuzzer targets of tests/fuzz. Build them with scripts/fuzz.sh.
option(CORV_SANITIZE "Build everything with AddressSanitizer and UndefinedBehaviorSanitizer" OFF)
option(CORV_FUZZ "Build the libFuzzer targets (clang) with coverage and AddressSanitizer" OFF)

if(CORV_SANITIZE AND CORV_FUZZ)
  message(FATAL_ERROR "CORV_SANITIZE and CORV_FUZZ need separate build directories")
endif()
if(CORV_FUZZ AND NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  message(FATAL_ERROR "CORV_FUZZ needs clang (configure with -DCMAKE_CXX_COMPILER=clang++)")
endif()

# Every compiled target below `dir`, recursively.
function(corv_collect_targets dir out)
  get_property(targets DIRECTORY "${dir}" PROPERTY BUILDSYSTEM_TARGETS)
  get_property(subdirs DIRECTORY "${dir}" PROPERTY SUBDIRECTORIES)
  foreach(sub IN LISTS subdirs)
    corv_collect_targets("${sub}" sub_targets)
    list(APPEND targets ${sub_targets})
  endforeach()
  set(compiled "")
  foreach(t IN LISTS targets)
    get_target_property(type ${t} TYPE)
    if(type MATCHES "^(EXECUTABLE|STATIC_LIBRARY|SHARED_LIBRARY|MODULE_LIBRARY|OBJECT_LIBRARY)$")
      list(APPEND compiled ${t})
    endif()
  endforeach()
  set(${out} ${compiled} PARENT_SCOPE)
endfunction()

if(CORV_SANITIZE)
  set(corv_sanitize_flags -fsanitize=address,undefined -fno-omit-frame-pointer
                          -fno-sanitize-recover=undefined)
  # After the build type's own flags, so these win: -O1 and line tables only compile in about
  # half the time of -O2 -g, the instrumented tests run as fast (most of their time is Qt's,
  # OpenSSL's and the kernel's), and reports still name file and line.
  set(corv_sanitize_compile_flags ${corv_sanitize_flags} -O1 -g1)
  # Default runtime options compiled into every executable, so that ctest, the tests and the
  # processes they start all run the same way without environment variables.
  set(CORV_LSAN_SUPPRESSIONS "${PROJECT_SOURCE_DIR}/tests/sanitizer/lsan.supp")
  # Where every sanitizer report is written (report.<pid>); scripts/test.sh fails when one of
  # them holds a finding after the suite.
  set(CORV_SANITIZER_REPORTS "${CMAKE_BINARY_DIR}/sanitizer-reports")
  file(MAKE_DIRECTORY "${CORV_SANITIZER_REPORTS}")
  configure_file("${PROJECT_SOURCE_DIR}/tests/sanitizer/sanitizer_defaults.cpp.in"
                 "${CMAKE_BINARY_DIR}/generated/sanitizer_defaults.cpp" @ONLY)
  corv_collect_targets("${PROJECT_SOURCE_DIR}" corv_all_targets)
  foreach(t IN LISTS corv_all_targets)
    target_compile_options(${t} PRIVATE ${corv_sanitize_compile_flags})
    target_link_options(${t} PRIVATE ${corv_sanitize_flags})
    get_target_property(type ${t} TYPE)
    if(type STREQUAL "EXECUTABLE")
      target_sources(${t} PRIVATE "${CMAKE_BINARY_DIR}/generated/sanitizer_defaults.cpp")
    endif()
  endforeach()
  message(STATUS "CORV_SANITIZE: ASan + UBSan on ${corv_all_targets}")
endif()

if(CORV_FUZZ)
  if(NOT TARGET corv_fuzz_targets)
    add_subdirectory(tests/fuzz "${CMAKE_BINARY_DIR}/fuzz")
  endif()
  corv_collect_targets("${PROJECT_SOURCE_DIR}" corv_all_targets)
  foreach(t IN LISTS corv_all_targets)
    target_compile_options(${t} PRIVATE -fsanitize=fuzzer-no-link,address -fno-omit-frame-pointer)
    target_link_options(${t} PRIVATE -fsanitize=address)
  endforeach()
endif()
