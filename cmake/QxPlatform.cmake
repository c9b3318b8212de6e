# Chooses what stands behind the CUDA calls: the toolkit's runtime or the host stand-in. Everything above links
# Qx::CudaRuntime and is compiled from the same lines for both.

set(QX_PLATFORM "AUTO" CACHE STRING "CUDA (the toolkit's runtime), HOST (the stand-in) or AUTO")
set_property(CACHE QX_PLATFORM PROPERTY STRINGS AUTO HOST CUDA)

function(qx_choose_platform outPlatform outReason)
    find_package(CUDAToolkit QUIET)
    if(NOT CUDAToolkit_FOUND)
        set(${outPlatform} HOST PARENT_SCOPE)
        set(${outReason} "no CUDA toolkit found" PARENT_SCOPE)
        return()
    endif()
    if(NOT DEFINED QX_DEVICE_ANSWERS)
        file(WRITE "${CMAKE_BINARY_DIR}/QxProbe/probe.cpp" [[
#include <cuda_runtime_api.h>
int main()
{
    int iCount = 0;
    return cudaGetDeviceCount(&iCount) == cudaSuccess && iCount > 0 ? 0 : 1;
}
]])
        try_run(probeRuns probeCompiles "${CMAKE_BINARY_DIR}/QxProbe" "${CMAKE_BINARY_DIR}/QxProbe/probe.cpp"
                LINK_LIBRARIES CUDA::cudart)
        set(answers FALSE)
        if(probeCompiles AND "${probeRuns}" STREQUAL "0")
            set(answers TRUE)
        endif()
        set(QX_DEVICE_ANSWERS ${answers} CACHE INTERNAL "A CUDA device answered when the build was configured")
    endif()
    if(QX_DEVICE_ANSWERS)
        set(${outPlatform} CUDA PARENT_SCOPE)
        set(${outReason} "CUDA toolkit ${CUDAToolkit_VERSION} found and a device answers" PARENT_SCOPE)
    else()
        set(${outPlatform} HOST PARENT_SCOPE)
        set(${outReason} "CUDA toolkit ${CUDAToolkit_VERSION} found but no device answers" PARENT_SCOPE)
    endif()
endfunction()

if(QX_PLATFORM STREQUAL "AUTO")
    qx_choose_platform(QX_CHOSEN_PLATFORM platformReason)
elseif(QX_PLATFORM MATCHES "^(HOST|CUDA)$")
    set(QX_CHOSEN_PLATFORM ${QX_PLATFORM})
    set(platformReason "asked for")
else()
    message(FATAL_ERROR "QX_PLATFORM is '${QX_PLATFORM}'; it must be AUTO, HOST or CUDA")
endif()
message(STATUS "Qx.Cuda platform: ${QX_CHOSEN_PLATFORM} (${platformReason})")

add_library(QxCudaRuntime INTERFACE)
add_library(Qx::CudaRuntime ALIAS QxCudaRuntime)
set_target_properties(QxCudaRuntime PROPERTIES EXPORT_NAME CudaRuntime)
if(QX_CHOSEN_PLATFORM STREQUAL "CUDA")
    find_package(CUDAToolkit REQUIRED)
    # The kernels of examples and tests: embedded and server GPUs from Turing to Hopper, and by its PTX any later one.
    if(NOT DEFINED CMAKE_CUDA_ARCHITECTURES)
        set(CMAKE_CUDA_ARCHITECTURES 75 87 90 CACHE STRING "GPU architectures that kernels are compiled for")
    endif()
    if(NOT DEFINED CMAKE_CUDA_COMPILER AND CUDAToolkit_NVCC_EXECUTABLE)
        set(CMAKE_CUDA_COMPILER "${CUDAToolkit_NVCC_EXECUTABLE}")
    endif()
    set(CMAKE_CUDA_RUNTIME_LIBRARY Shared)
    enable_language(CUDA)
    # CMake before 3.26 does not know that nvcc speaks this standard.
    if(NOT CMAKE_CUDA20_STANDARD_COMPILE_OPTION)
        set(CMAKE_CUDA20_STANDARD_COMPILE_OPTION "-std=c++20")
        set(CMAKE_CUDA20_EXTENSION_COMPILE_OPTION "-std=c++20")
        set(CMAKE_CUDA_COMPILE_FEATURES ${CMAKE_CUDA_COMPILE_FEATURES} cuda_std_20)
    endif()
    set(CMAKE_CUDA_STANDARD 20)
    set(CMAKE_CUDA_STANDARD_REQUIRED ON)
    set(CMAKE_CUDA_EXTENSIONS OFF)
    set(CMAKE_CUDA_VISIBILITY_PRESET hidden)
    # Shared, never static: a client's kernels and constants are registered in the one runtime of the process.
    target_link_libraries(QxCudaRuntime INTERFACE CUDA::cudart)
else()
    target_link_libraries(QxCudaRuntime INTERFACE QxHostCuda)
endif()
install(TARGETS QxCudaRuntime EXPORT QxCudaTargets)

string(TOLOWER "${CMAKE_SYSTEM_PROCESSOR}" processor)
if(processor MATCHES "^(aarch64|arm64)$")
    set(QX_ARCHITECTURE "arm64")
elseif(processor MATCHES "^(x86_64|amd64)$")
    set(QX_ARCHITECTURE "x64")
else()
    message(FATAL_ERROR "Processor '${CMAKE_SYSTEM_PROCESSOR}' is not supported: 64-bit ARM and x86-64 are")
endif()
