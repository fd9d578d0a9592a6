# How every target of the project is built. A parent project that takes the tree in is left alone: settings are
# made per target.

get_filename_component(KAVRO_ROOT "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)

# kavro_target(TARGET [UNINSTRUMENTED]): warnings, sanitizers and visibility for one target. An uninstrumented one is
# linked to the sanitizers, which look at the libraries in it, and not at its own code.
function(kavro_target target)
  target_compile_features(${target} PUBLIC cxx_std_17)
  set_target_properties(${target} PROPERTIES
    CXX_EXTENSIONS OFF
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN OFF
    POSITION_INDEPENDENT_CODE ON)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow -Wconversion)
  if(KAVRO_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # A unique symbol would pin its library in memory: dlclose could never unload it.
    target_compile_options(${target} PRIVATE -fno-gnu-unique)
  endif()
  get_target_property(type ${target} TYPE)
  if(kavro_headers AND NOT type STREQUAL "EXECUTABLE")
    target_precompile_headers(${target} REUSE_FROM ${kavro_headers})
  endif()
  if(KAVRO_SANITIZE)
    target_link_options(${target} PRIVATE -fsanitize=${KAVRO_SANITIZE})
    if(NOT "UNINSTRUMENTED" IN_LIST ARGN)
      target_compile_options(${target} PRIVATE -fsanitize=${KAVRO_SANITIZE} -fno-omit-frame-pointer)
      if(KAVRO_SANITIZE MATCHES "undefined")
        target_compile_options(${target} PRIVATE -fno-sanitize-recover=undefined)
      endif()
    endif()
  endif()
endfunction()

# kavro_precompiled_headers(TARGET HEADER): reads a header once for all libraries that kavro_target makes afterwards, in this
# directory and below, for they are compiled with the same options; programs are not. clang's would have to be sanitized
# alike as well.
macro(kavro_precompiled_headers target header)
  set(kavro_headers "")
  file(GENERATE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/${target}.cpp CONTENT "")
  add_library(${target} OBJECT ${CMAKE_CURRENT_BINARY_DIR}/${target}.cpp)
  kavro_target(${target})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_precompile_headers(${target} PRIVATE ${header})
    set(kavro_headers ${target})
  endif()
endmacro()

# A shared library of the device: a soname, and no symbol left undefined. Its name is that of an installed one too.
function(kavro_shared_library target)
  add_library(${target} SHARED ${ARGN})
  add_library(kavro-upgrade::${target} ALIAS ${target})
  kavro_target(${target})
  set_target_properties(${target} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION 1)
  target_link_options(${target} PRIVATE -Wl,--as-needed)
  # clang's sanitizers are in the program alone.
  if(NOT (KAVRO_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang"))
    target_link_options(${target} PRIVATE -Wl,-z,defs)
  endif()
endfunction()

# Code that two libraries share; linked into each, exported by none.
function(kavro_private_library target)
  add_library(${target} STATIC ${ARGN})
  kavro_target(${target})
endfunction()
