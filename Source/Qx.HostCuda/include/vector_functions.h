#pragma once

// make_T for the short vector types.

#include "vector_types.h"

#if defined(__cplusplus)

#define QX_MAKE2(name, type)                                                                                           \
    constexpr name make_##name(type x, type y)                                                                         \
    {                                                                                                                  \
        return {x, y};                                                                                                 \
    }
#define QX_MAKE3(name, type)                                                                                           \
    constexpr name make_##name(type x, type y, type z)                                                                 \
    {                                                                                                                  \
        return {x, y, z};                                                                                              \
    }
#define QX_MAKE4(name, type)                                                                                           \
    constexpr name make_##name(type x, type y, type z, type w)                                                         \
    {                                                                                                                  \
        return {x, y, z, w};                                                                                           \
    }

QX_MAKE2(uchar2, unsigned char)
QX_MAKE3(uchar3, unsigned char)
QX_MAKE4(uchar4, unsigned char)
QX_MAKE2(short2, short)
QX_MAKE4(short4, short)
QX_MAKE2(ushort2, unsigned short)
QX_MAKE3(ushort3, unsigned short)
QX_MAKE4(ushort4, unsigned short)
QX_MAKE2(int2, int)
QX_MAKE3(int3, int)
QX_MAKE4(int4, int)
QX_MAKE2(uint2, unsigned int)
QX_MAKE3(uint3, unsigned int)
QX_MAKE4(uint4, unsigned int)
QX_MAKE2(float2, float)
QX_MAKE3(float3, float)
QX_MAKE4(float4, float)
QX_MAKE2(double2, double)

#undef QX_MAKE2
#undef QX_MAKE3
#undef QX_MAKE4

#endif
