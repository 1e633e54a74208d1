# One module is one folder: its sources make a library, the *_test.cpp beside them one test
# program, each *_fuzzer.cpp a fuzzer. The folder is the map, so nothing is listed twice.

add_library(orla_options INTERFACE)
target_compile_options(orla_options INTERFACE -Wall -Wextra -Wshadow -Wformat=2 -Werror)
target_compile_options(orla_options INTERFACE $<$<CONFIG:Release>:-g1>)
target_include_directories(orla_options INTERFACE ${PROJECT_SOURCE_DIR}/src)
if(ORLA_SANITIZE)
  string(REPLACE ";" "," _sanitizers "${ORLA_SANITIZE}")
  add_compile_options(-fsanitize=${_sanitizers} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer -g1 -O1)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # The instrumentation hides from gcc what is initialised, in the library's own headers too.
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
  add_link_options(-fsanitize=${_sanitizers})
endif()
if(ORLA_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
if(NOT ORLA_SANITIZE)
  # Everything from outside is hostile. Sanitizers check more than these options do, and would not
  # see the library calls that _FORTIFY_SOURCE replaces.
  add_compile_options(-fstack-protector-strong
    "$<$<CONFIG:Release,RelWithDebInfo>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
  add_link_options(-Wl,-z,relro,-z,now)
  include(CheckPIESupported)
  check_pie_supported()  # links programs as CMAKE_POSITION_INDEPENDENT_CODE compiles them
endif()

# Every test runs in the sandbox: private /var, /home and SysV queues, so that the paths of a
# device are the ones that are tested and nothing of the machine is touched.
set(ORLA_SANDBOX ${PROJECT_SOURCE_DIR}/platform/standins/orla-sandbox)
set(ORLA_RUN ${ORLA_SANDBOX} --quiet -- ${CMAKE_CROSSCOMPILING_EMULATOR})

# orla_module(<name> DIR <folder> [SHARED] [DEPENDS …] [PRIVATE_DEPENDS …])
function(orla_module name)
  cmake_parse_arguments(ARG "SHARED" "DIR" "DEPENDS;PRIVATE_DEPENDS" ${ARGN})
  set(ARG_DIR ${PROJECT_SOURCE_DIR}/${ARG_DIR})
  file(GLOB sources CONFIGURE_DEPENDS ${ARG_DIR}/*.cpp ${ARG_DIR}/*.c)
  file(GLOB tests CONFIGURE_DEPENDS ${ARG_DIR}/*_test.cpp)
  file(GLOB fuzzers CONFIGURE_DEPENDS ${ARG_DIR}/*_fuzzer.cpp)
  file(GLOB protos CONFIGURE_DEPENDS ${ARG_DIR}/*.proto)
  list(FILTER sources EXCLUDE REGEX "_(test|fuzzer)\\.cpp$|/main\\.cpp$")

  set(target orla_${name})
  if(NOT sources AND NOT protos)
    add_library(${target} INTERFACE)
    target_link_libraries(${target} INTERFACE ${ARG_DEPENDS})
    return()
  endif()
  if(ARG_SHARED)
    add_library(${target} SHARED ${sources})
  else()
    add_library(${target} STATIC ${sources})
  endif()
  target_link_libraries(${target} PUBLIC ${ARG_DEPENDS} PRIVATE orla_options ${ARG_PRIVATE_DEPENDS})
  if(protos)
    # Included as "<name>/<proto>.pb.h". Generated code is not ours to warn about.
    set(generated_dir ${CMAKE_BINARY_DIR}/generated)
    file(MAKE_DIRECTORY ${generated_dir}/${name})
    protobuf_generate(TARGET ${target} LANGUAGE cpp PROTOS ${protos} APPEND_PATH
                      PROTOC_OUT_DIR ${generated_dir}/${name} OUT_VAR generated)
    set_source_files_properties(${generated} PROPERTIES COMPILE_OPTIONS "-w")
    target_include_directories(${target} SYSTEM PUBLIC ${generated_dir})
  endif()

  if(BUILD_TESTING AND tests)
    orla_test(${name}_test SOURCES ${tests} DEPENDS ${target} ${ARG_PRIVATE_DEPENDS})
  endif()
  foreach(source ${fuzzers})
    orla_fuzzer(${source} ${target})
  endforeach()
endfunction()

# orla_program(<name> MAIN <source> DEPENDS …)
function(orla_program name)
  cmake_parse_arguments(ARG "" "MAIN" "DEPENDS" ${ARGN})
  add_executable(${name} ${ARG_MAIN})
  target_link_libraries(${name} PRIVATE orla_options ${ARG_DEPENDS})
endfunction()

# orla_test(<name> SOURCES … DEPENDS …): one program, one entry of ctest, in the sandbox.
function(orla_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})  # platform/emulation/control.h
  target_link_libraries(${name} PRIVATE orla_options ${ARG_DEPENDS} ${ORLA_PLATFORM_TARGETS}
                        GTest::gmock GTest::gtest_main)
  if(ORLA_SANITIZE MATCHES "undefined")
    # It is looked for in the code under test; in the tests it doubles the time of the compiler.
    target_compile_options(${name} PRIVATE -fno-sanitize=undefined)
  endif()
  add_test(NAME ${name} COMMAND ${ORLA_RUN} $<TARGET_FILE:${name}>)
  set_tests_properties(${name} PROPERTIES TIMEOUT 300)
endfunction()

# A fuzzer is LLVMFuzzerTestOneInput in one file. With ORLA_FUZZ it becomes a libFuzzer
# program; otherwise it replays its corpus, tests/corpus/<name>, as a test.
function(orla_fuzzer source module)
  get_filename_component(name ${source} NAME_WE)
  set(corpus ${PROJECT_SOURCE_DIR}/tests/corpus/${name})
  if(ORLA_FUZZ)
    add_executable(${name} ${source})
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  elseif(BUILD_TESTING)
    add_executable(${name} ${source} ${PROJECT_SOURCE_DIR}/tests/fuzz_replay.cpp)
    add_test(NAME ${name} COMMAND ${ORLA_RUN} $<TARGET_FILE:${name}> ${corpus})
    set_tests_properties(${name} PROPERTIES TIMEOUT 300)
  else()
    return()
  endif()
  target_link_libraries(${name} PRIVATE orla_options ${module})
endfunction()
