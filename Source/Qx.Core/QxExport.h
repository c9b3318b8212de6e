#pragma once

/// @file
/// Visibility macros. The libraries are built with hidden symbols; what clients may use is marked with one of these.
/// Exception classes and interop interfaces carry QX_EXPORT_TYPE in every library, so that there is one type
/// identity per process and they can be caught on the other side of a library boundary.

/// A class that crosses library boundaries.
#define QX_EXPORT_TYPE __attribute__((visibility("default")))

/// What `libQx.Core` exports.
#define QX_CORE_API __attribute__((visibility("default")))
/// What `libQx.GPU.ResourceManager` exports.
#define QX_GPU_API __attribute__((visibility("default")))
/// What `libQx.Cuda` exports.
#define QX_CUDA_API __attribute__((visibility("default")))
