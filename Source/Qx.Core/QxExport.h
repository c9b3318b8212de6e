#pragma once

// Before anything else: what differs here from the build of the libraries would link, and crash. A wrong standard ends
// the compilation, because a hundred errors would follow that say nothing.
#if __cplusplus < 202002L
#error "Qx.Cuda needs C++20: compile with -std=c++20"
#include "Qx.Cuda needs C++20"
#endif

#include <cstddef>

#if defined(_GLIBCXX_USE_CXX11_ABI) && !_GLIBCXX_USE_CXX11_ABI
#error "Qx.Cuda is built with the strings of C++11: compile without _GLIBCXX_USE_CXX11_ABI=0"
#endif
#ifdef _GLIBCXX_DEBUG
#error "Qx.Cuda is built with the containers of a release: compile without _GLIBCXX_DEBUG"
#endif

/// @file
/// Visibility macros. The libraries are built with hidden symbols; what clients may use is marked with one of these.
/// Exception classes and interop interfaces carry QX_EXPORT_TYPE in every library, so that there is one type
/// identity per process and they can be caught on the other side of a library boundary.

///
/// A class with virtual operations has one out of line, in the library that is its home: otherwise every library that
/// uses it brings the class's tables along, those of the SDK bind to the ones of the plug-in that came first, and the
/// plug-in cannot be unloaded. The same is true of variables that are inline, which therefore carry QX_LOCAL.

/// A variable that every library has for itself.
#define QX_LOCAL __attribute__((visibility("hidden")))

/// A class that crosses library boundaries.
#define QX_EXPORT_TYPE __attribute__((visibility("default")))

/// What `libQx.Core` exports.
#define QX_CORE_API __attribute__((visibility("default")))
/// What `libQx.GPU.ResourceManager` exports.
#define QX_GPU_API __attribute__((visibility("default")))
/// What `libQx.Cuda` exports.
#define QX_CUDA_API __attribute__((visibility("default")))
