# What every target of the tree shares: language, warnings, sanitizers, output directories, and the
# rule that a floor sees only the floors below it.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
# As Debian hardens what it ships: the tests try the very code that goes into the packages.
set(CMAKE_CXX_FLAGS_RELEASE
    "-O2 -g1 -DNDEBUG -fno-plt -fno-semantic-interposition -fstack-protector-strong")
if(BREFIR_SANITIZE)
  set(CMAKE_CXX_FLAGS_DEBUG "-O1 -g -fno-omit-frame-pointer")
else()
  set(CMAKE_CXX_FLAGS_DEBUG "-O0 -g")
endif()

find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Werror)
# glibc's buffer checks cost nothing that shows beside a system call.
if(CMAKE_BUILD_TYPE STREQUAL "Release")
  add_compile_definitions(_FORTIFY_SOURCE=2)
  add_link_options(-Wl,-z,relro,-z,now)
endif()

set(BREFIR_SANITIZE "" CACHE STRING "Sanitizers for every target, e.g. address,undefined")
if(BREFIR_SANITIZE)
  # Line numbers are all that a report needs, and what is not optimised compiles in half the time.
  # Fuzz targets live on speed.
  if(NOT BREFIR_FUZZ)
    set(CMAKE_CXX_FLAGS_DEBUG "-O0 -g1 -fno-omit-frame-pointer")
  endif()
  add_compile_options(-fsanitize=${BREFIR_SANITIZE} -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${BREFIR_SANITIZE})
endif()

# The libraries tell the fuzzer which of their branches an input takes.
if(BREFIR_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# brefir_single_source_program(SOURCE OUT DIR LIBRARY...): the program that one source is, in DIR of
# the build; its name in OUT.
function(brefir_single_source_program source out dir)
  get_filename_component(name ${source} NAME_WE)
  add_executable(${name} ${source})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/${dir})
  target_link_libraries(${name} PRIVATE ${ARGN})
  set(${out} ${name} PARENT_SCOPE)
endfunction()

# brefir_library(NAME DIR [INTERNAL HEADER...]): shared library libNAME.so from the headers and
# sources of src/DIR. Its headers are reached as <DIR/...> through an include root that holds nothing
# but DIR, so that a target sees exactly the floors it links to: an include that points up does not
# compile. All its headers are public, installed and checked to stand alone, but the INTERNAL ones.
function(brefir_library name dir)
  cmake_parse_arguments(PARSE_ARGV 2 arg "" "" INTERNAL)
  set(root ${CMAKE_BINARY_DIR}/include-roots/${name})
  file(MAKE_DIRECTORY ${root})
  file(CREATE_LINK ${PROJECT_SOURCE_DIR}/src/${dir} ${root}/${dir} SYMBOLIC)
  file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/${dir}/*.cpp)
  file(GLOB headers CONFIGURE_DEPENDS ${root}/${dir}/*.h)
  foreach(header ${arg_INTERNAL})
    if(NOT ${root}/${dir}/${header} IN_LIST headers)
      message(FATAL_ERROR "src/${dir} has no ${header}, which is listed as internal")
    endif()
    list(REMOVE_ITEM headers ${root}/${dir}/${header})
  endforeach()
  add_library(${name} SHARED ${sources})
  add_library(${name}::${name} ALIAS ${name})
  target_sources(${name} PUBLIC FILE_SET HEADERS BASE_DIRS ${root} FILES ${headers})
  target_compile_features(${name} PUBLIC cxx_std_20)
  target_link_options(${name} PRIVATE -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/exports.map)
  set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION}
                                           SOVERSION ${PROJECT_VERSION_MAJOR}
                                           LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/exports.map
                                           INSTALL_RPATH $ORIGIN)
endfunction()
