# For the build of this project and of its clients, whether they find an installed copy or have the sources in a
# subfolder.
#
# qx_kernel_sources(<files>): sources that contain kernels. nvcc compiles them where Qx::Cuda is built for CUDA, the C++
# compiler everywhere else. To be called in the folder of the target that has the sources, before the target is made. A
# macro, since languages are enabled for the folder that asks.
macro(qx_kernel_sources)
    get_target_property(qx_platform Qx::Cuda QX_PLATFORM)
    if(qx_platform STREQUAL "CUDA")
        if(NOT DEFINED CMAKE_CUDA_COMPILER AND CUDAToolkit_NVCC_EXECUTABLE)
            set(CMAKE_CUDA_COMPILER "${CUDAToolkit_NVCC_EXECUTABLE}")
        endif()
        # Shared, never static: a client's kernels and constants are registered in the one runtime of the process.
        set(CMAKE_CUDA_RUNTIME_LIBRARY Shared)
        enable_language(CUDA)
        set_source_files_properties(${ARGN} PROPERTIES LANGUAGE CUDA)
    endif()
endmacro()
