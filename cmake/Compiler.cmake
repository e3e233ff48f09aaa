set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)

add_compile_options(-Wall -Wextra -Wpedantic -Werror -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
                    -Wold-style-cast -Wextra-semi)
# Version 12 takes the alternatives that a moved std::variant does not hold for uninitialised fields.
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
  add_compile_options(-Wno-maybe-uninitialized)
endif()
add_compile_definitions(_FILE_OFFSET_BITS=64)
include_directories(${CMAKE_SOURCE_DIR})

set(STASHWICK_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize= takes them")
if(STASHWICK_SANITIZE)
  add_compile_options(-fsanitize=${STASHWICK_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${STASHWICK_SANITIZE})
  add_compile_definitions(_GLIBCXX_ASSERTIONS)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # The checks that the sanitizers add hide the sizes of vectors from GCC, which then sees copies beyond their ends.
    add_compile_options(-Wno-array-bounds -Wno-stringop-overflow -Wno-stringop-overread)
  endif()
endif()

find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()
