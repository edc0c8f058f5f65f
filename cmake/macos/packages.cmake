# Answers find_package() when building for macOS on Linux: the distribution's packages hold the
# libraries for Linux, but headers and sources are the same everywhere.
set(CMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE PRE_TEST)  # what is built cannot be run

# Links to what is needed of /usr/include, whose other headers are another system's.
set(ZK_HEADERS ${CMAKE_BINARY_DIR}/include)
file(MAKE_DIRECTORY ${ZK_HEADERS})
foreach(library fmt nlohmann CLI)
  file(CREATE_LINK /usr/include/${library} ${ZK_HEADERS}/${library} SYMBOLIC)
endforeach()
set(ZK_GTEST /usr/src/googletest/googletest)

macro(zk_find_package method package)
  if("${package}" MATCHES "^(fmt|nlohmann_json|CLI11)$")
    if(NOT TARGET ${package}::${package})
      add_library(${package}::${package} INTERFACE IMPORTED GLOBAL)
      target_include_directories(${package}::${package} SYSTEM INTERFACE ${ZK_HEADERS})
      if("${package}" STREQUAL "fmt")  # in one place, not again in every file
        add_library(fmt-macos STATIC ${CMAKE_SOURCE_DIR}/cmake/macos/fmt.cpp)
        target_include_directories(fmt-macos SYSTEM PUBLIC ${ZK_HEADERS})
        set_target_properties(fmt-macos PROPERTIES CXX_STANDARD 20)
        target_link_libraries(fmt::fmt INTERFACE fmt-macos)
      endif()
    endif()
    set(${package}_FOUND TRUE)
  elseif("${package}" STREQUAL "GTest")
    if(NOT TARGET GTest::gtest_main)
      add_library(gtest STATIC ${ZK_GTEST}/src/gtest-all.cc ${ZK_GTEST}/src/gtest_main.cc)
      target_include_directories(gtest PRIVATE ${ZK_GTEST})
      target_include_directories(gtest SYSTEM INTERFACE ${ZK_GTEST}/include)
      target_compile_options(gtest PRIVATE -w -I${ZK_GTEST}/include)
      add_library(GTest::gtest_main ALIAS gtest)
    endif()
    set(GTest_FOUND TRUE)
  endif()
endmacro()
cmake_language(SET_DEPENDENCY_PROVIDER zk_find_package SUPPORTED_METHODS FIND_PACKAGE)
