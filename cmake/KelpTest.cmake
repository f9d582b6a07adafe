# kelp_unit_test(NAME SOURCES a.cpp b.cpp LIBS kelp_feed ...)
# One GoogleTest binary per subsystem, registered with CTest.
function(kelp_unit_test name)
  cmake_parse_arguments(T "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gtest_main GTest::gmock)
  # TZ is fixed so that date parsing is exact in every environment.
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES ENVIRONMENT "TZ=UTC" TIMEOUT 300)
endfunction()

# kelp_module(NAME LIBS dep ... EXCLUDE file ...): a static library of every
# .cpp file in the calling directory except those in EXCLUDE. A directory
# without sources yet still yields a (empty) static library, so that the
# modules above it can always name it. LIBS names only lower layers.
function(kelp_module name)
  cmake_parse_arguments(M "" "" "LIBS;EXCLUDE" ${ARGN})
  file(GLOB srcs CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  foreach(x ${M_EXCLUDE})
    list(REMOVE_ITEM srcs ${CMAKE_CURRENT_SOURCE_DIR}/${x})
  endforeach()
  if(NOT srcs)
    file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/${name}_empty.cpp "// no sources yet\n")
    set(srcs ${CMAKE_CURRENT_BINARY_DIR}/${name}_empty.cpp)
  endif()
  add_library(${name} STATIC ${srcs})
  target_link_libraries(${name} PUBLIC ${M_LIBS})
endfunction()
