# One library per source folder, linked to exactly the folders that it may include.
#
#   add_folder(store LINKS base ports)          store/*.cc -> target store
#   add_folder(platform/posix LINKS ...)        target platform_posix
#   add_folder(image NAME image LINKS ...)
#
# LIBRARIES names third-party targets; they stay private to the folder.
function(add_folder folder)
  cmake_parse_arguments(FOLDER "" "" "LINKS;LIBRARIES" ${ARGN})
  string(REPLACE "/" "_" target ${folder})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${folder}/*.cc)
  if(sources)
    add_library(${target} STATIC ${sources})
    target_link_libraries(${target} PUBLIC ${FOLDER_LINKS} PRIVATE ${FOLDER_LIBRARIES} Threads::Threads)
  else()
    add_library(${target} INTERFACE)
    target_link_libraries(${target} INTERFACE ${FOLDER_LINKS} ${FOLDER_LIBRARIES} Threads::Threads)
  endif()
endfunction()

# A test program of every *_test.cc in a folder of tests/, one ctest entry per test case.
#
#   add_test_folder(tests/store LINKS store platform_fake test_support)   -> target store_tests
# MOUNTS is a filter of the tests that mount images: two volumes of one name are not mounted at once, wherever.
function(add_test_folder folder)
  cmake_parse_arguments(FOLDER "" "MOUNTS" "LINKS;LIBRARIES" ${ARGN})
  string(REGEX REPLACE "^tests/" "" name ${folder})
  string(REPLACE "/" "_" name ${name})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${folder}/*.cc)
  if(NOT sources)
    return()
  endif()
  add_executable(${name}_tests ${sources})
  target_link_libraries(${name}_tests PRIVATE ${FOLDER_LINKS} ${FOLDER_LIBRARIES} GTest::gmock GTest::gtest_main)
  set(discovery TEST_PREFIX ${name}/ DISCOVERY_TIMEOUT 60)
  if(NOT FOLDER_MOUNTS)
    gtest_discover_tests(${name}_tests ${discovery} PROPERTIES TIMEOUT 300)
    return()
  endif()
  gtest_discover_tests(${name}_tests ${discovery} TEST_FILTER -${FOLDER_MOUNTS} TEST_LIST others PROPERTIES TIMEOUT 300)
  gtest_discover_tests(${name}_tests ${discovery} TEST_FILTER ${FOLDER_MOUNTS} TEST_LIST mounts
                       PROPERTIES TIMEOUT 300 RESOURCE_LOCK mounts)
endfunction()
