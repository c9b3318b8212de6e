#pragma once

// The short vector types of kernels, laid out and aligned as in CUDA. uint3 and dim3 come with the C interface.

#include "cuda_runtime_api.h"

#if defined(__cplusplus)

// NOLINTBEGIN(bugprone-macro-parentheses): types cannot be put in parentheses

#define QX_VECTOR2(name, type, alignment)                                                                              \
    struct alignas(alignment) name                                                                                     \
    {                                                                                                                  \
        type x;                                                                                                        \
        type y;                                                                                                        \
    }
#define QX_VECTOR3(name, type)                                                                                         \
    struct name                                                                                                        \
    {                                                                                                                  \
        type x;                                                                                                        \
        type y;                                                                                                        \
        type z;                                                                                                        \
    }
#define QX_VECTOR4(name, type, alignment)                                                                              \
    struct alignas(alignment) name                                                                                     \
    {                                                                                                                  \
        type x;                                                                                                        \
        type y;                                                                                                        \
        type z;                                                                                                        \
        type w;                                                                                                        \
    }

QX_VECTOR2(uchar2, unsigned char, 2);
QX_VECTOR3(uchar3, unsigned char);
QX_VECTOR4(uchar4, unsigned char, 4);
QX_VECTOR2(short2, short, 4);
QX_VECTOR4(short4, short, 8);
QX_VECTOR2(ushort2, unsigned short, 4);
QX_VECTOR3(ushort3, unsigned short);
QX_VECTOR4(ushort4, unsigned short, 8);
QX_VECTOR2(int2, int, 8);
QX_VECTOR3(int3, int);
QX_VECTOR4(int4, int, 16);
QX_VECTOR2(uint2, unsigned int, 8);
QX_VECTOR4(uint4, unsigned int, 16);
QX_VECTOR2(float2, float, 8);
QX_VECTOR3(float3, float);
QX_VECTOR4(float4, float, 16);
QX_VECTOR2(double2, double, 16);

#undef QX_VECTOR2
#undef QX_VECTOR3
#undef QX_VECTOR4

// NOLINTEND(bugprone-macro-parentheses)

#endif
