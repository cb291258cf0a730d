// Basic integer and floating-point types of the host API, with their published names.
#ifndef VT_SDK_A_H
#define VT_SDK_A_H

#include <stdint.h>

typedef int32_t A_long;
typedef uint32_t A_u_long;
typedef int16_t A_short;
typedef uint16_t A_u_short;
typedef char A_char;
typedef uint8_t A_u_char;
typedef uint8_t A_Boolean;
typedef int64_t A_longlong;
typedef uint64_t A_u_longlong;
typedef double A_FpLong;
typedef float A_FpShort;
typedef int32_t A_Err;

#endif
