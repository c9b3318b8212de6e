# The third-party code of tests, examples and benchmarks: the system's package, or a source folder named by a cache
# variable where there is no package registry.

set(QX_GTEST_SOURCE_DIR "" CACHE PATH "GoogleTest's source folder; empty to use the installed package")
set(QX_RAPIDCHECK_SOURCE_DIR "" CACHE PATH "RapidCheck's source folder; empty to use the installed package")
set(QX_BENCHMARK_SOURCE_DIR "" CACHE PATH "Google Benchmark's source folder; empty to use the installed package")
set(QX_EIGEN_INCLUDE_DIR "" CACHE PATH "Folder that holds Eigen/Dense; empty to search the system's")
set(QX_STB_INCLUDE_DIR "" CACHE PATH "Folder of stb_image.h and stb_image_write.h; empty to search the system's")

# _qx_add_source_folder(<cache variable>): adds the folder that the variable names, without its own tests and warnings.
function(_qx_add_source_folder variable)
    if(NOT EXISTS "${${variable}}/CMakeLists.txt")
        message(FATAL_ERROR "${variable} is '${${variable}}', which holds no CMakeLists.txt")
    endif()
    string(TOLOWER "${variable}" folder)
    add_subdirectory("${${variable}}" "${CMAKE_BINARY_DIR}/third-party/${folder}" EXCLUDE_FROM_ALL SYSTEM)
endfunction()

# qx_require_gtest(): provides GTest::gtest and GTest::gtest_main.
macro(qx_require_gtest)
    if(NOT TARGET GTest::gtest)
        if(QX_GTEST_SOURCE_DIR)
            set(BUILD_GMOCK OFF)
            set(INSTALL_GTEST OFF)
            _qx_add_source_folder(QX_GTEST_SOURCE_DIR)
        else()
            find_package(GTest REQUIRED)
        endif()
    endif()
endmacro()

# qx_require_rapidcheck(): provides rapidcheck. By header and library: the package's CMake files define targets of one
# build type only.
function(qx_require_rapidcheck)
    if(TARGET rapidcheck)
        return()
    endif()
    if(QX_RAPIDCHECK_SOURCE_DIR)
        _qx_add_source_folder(QX_RAPIDCHECK_SOURCE_DIR)
        return()
    endif()
    find_path(QX_RAPIDCHECK_FOLDER NAMES rapidcheck.h)
    find_library(QX_RAPIDCHECK_LIBRARY NAMES rapidcheck)
    mark_as_advanced(QX_RAPIDCHECK_FOLDER QX_RAPIDCHECK_LIBRARY)
    if(NOT QX_RAPIDCHECK_FOLDER OR NOT QX_RAPIDCHECK_LIBRARY)
        message(FATAL_ERROR "The tests need RapidCheck: install librapidcheck-dev, or name its source folder with "
                            "-DQX_RAPIDCHECK_SOURCE_DIR=..., or configure with -DQX_BUILD_TESTS=OFF")
    endif()
    add_library(rapidcheck INTERFACE IMPORTED GLOBAL)
    target_include_directories(rapidcheck INTERFACE "${QX_RAPIDCHECK_FOLDER}")
    target_link_libraries(rapidcheck INTERFACE "${QX_RAPIDCHECK_LIBRARY}")
endfunction()

# qx_require_benchmark(): provides benchmark::benchmark and benchmark::benchmark_main.
macro(qx_require_benchmark)
    if(NOT TARGET benchmark::benchmark)
        if(QX_BENCHMARK_SOURCE_DIR)
            set(BENCHMARK_ENABLE_TESTING OFF)
            set(BENCHMARK_ENABLE_INSTALL OFF)
            set(BENCHMARK_ENABLE_WERROR OFF)
            _qx_add_source_folder(QX_BENCHMARK_SOURCE_DIR)
        else()
            find_package(benchmark REQUIRED)
        endif()
    endif()
endmacro()

# qx_require_stb(): provides QxStb, the folder of the stb headers, whose warnings are not ours.
function(qx_require_stb)
    if(TARGET QxStb)
        return()
    endif()
    find_path(QX_STB_FOLDER NAMES stb_image.h HINTS "${QX_STB_INCLUDE_DIR}" PATH_SUFFIXES stb)
    mark_as_advanced(QX_STB_FOLDER)
    if(NOT QX_STB_FOLDER OR NOT EXISTS "${QX_STB_FOLDER}/stb_image_write.h")
        message(FATAL_ERROR "The examples need stb_image.h and stb_image_write.h: install libstb-dev, or name their "
                            "folder with -DQX_STB_INCLUDE_DIR=..., or configure with -DQX_BUILD_EXAMPLES=OFF")
    endif()
    add_library(QxStb INTERFACE)
    target_include_directories(QxStb SYSTEM INTERFACE "${QX_STB_FOLDER}")
endfunction()

# qx_require_eigen(): provides QxEigen, the folder of Eigen's headers, whose warnings are not ours.
function(qx_require_eigen)
    if(TARGET QxEigen)
        return()
    endif()
    find_path(QX_EIGEN_FOLDER NAMES Eigen/Dense HINTS "${QX_EIGEN_INCLUDE_DIR}" PATH_SUFFIXES eigen3)
    mark_as_advanced(QX_EIGEN_FOLDER)
    if(NOT QX_EIGEN_FOLDER)
        message(FATAL_ERROR "The examples need Eigen: install libeigen3-dev, or name the folder that holds Eigen/Dense "
                            "with -DQX_EIGEN_INCLUDE_DIR=..., or configure with -DQX_BUILD_EXAMPLES=OFF")
    endif()
    add_library(QxEigen INTERFACE)
    target_include_directories(QxEigen SYSTEM INTERFACE "${QX_EIGEN_FOLDER}")
endfunction()
