# For the build of this project and of its clients, whether they find an installed copy or have the sources in a
# subfolder.
#
# qx_kernel_sources(<files>): sources that contain kernels, whatever their suffix. nvcc compiles them where Qx::Cuda is built
# for CUDA, the C++ compiler everywhere else. To be called in the folder of the target that has the sources, before the
# target is made. A macro, since languages are enabled for the folder that asks.
#
# Without optimisation a kernel takes several times as long on the CPU, so a Debug build has them optimised as far as a
# debugger still follows (-Og), each a function of its own at which one can stop. Not under a sanitizer, and not where
# the flags of the project choose the optimisation themselves.
macro(qx_kernel_sources)
    foreach(qx_source IN ITEMS ${ARGN})
        get_filename_component(qx_path "${qx_source}" ABSOLUTE)
        get_source_file_property(qx_generated "${qx_source}" GENERATED)
        if(NOT qx_generated AND NOT EXISTS "${qx_path}")
            message(FATAL_ERROR "qx_kernel_sources: there is no file ${qx_source} in ${CMAKE_CURRENT_SOURCE_DIR}")
        endif()
    endforeach()
    get_target_property(qx_platform Qx::Cuda QX_PLATFORM)
    if(qx_platform STREQUAL "CUDA")
        if(NOT DEFINED CMAKE_CUDA_COMPILER AND CUDAToolkit_NVCC_EXECUTABLE)
            set(CMAKE_CUDA_COMPILER "${CUDAToolkit_NVCC_EXECUTABLE}")
        endif()
        # Shared, never static: a client's kernels and constants are registered in the one runtime of the process.
        set(CMAKE_CUDA_RUNTIME_LIBRARY Shared)
        enable_language(CUDA)
        set_source_files_properties(${ARGN} PROPERTIES LANGUAGE CUDA)
    else()
        # The option, because CMake leaves it out for clients of its version 3.19 and before.
        set_source_files_properties(${ARGN} PROPERTIES LANGUAGE CXX)
        set_property(SOURCE ${ARGN} APPEND PROPERTY COMPILE_OPTIONS -xc++)
        if(NOT QX_SANITIZE AND NOT " ${CMAKE_CXX_FLAGS} ${CMAKE_CXX_FLAGS_DEBUG}" MATCHES " -(O|fsanitize)")
            set_property(SOURCE ${ARGN} APPEND PROPERTY COMPILE_OPTIONS $<$<CONFIG:Debug>:-Og>)
            set_property(SOURCE ${ARGN} APPEND PROPERTY COMPILE_DEFINITIONS $<$<CONFIG:Debug>:QX_HOSTCUDA_KERNELS_APART>)
        endif()
    endif()
endmacro()
