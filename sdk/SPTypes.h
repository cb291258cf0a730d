// Plug-in architecture base types used by the basic suite.
#ifndef VT_SDK_SPTYPES_H
#define VT_SDK_SPTYPES_H

#include <stdint.h>

typedef int32_t SPErr;
typedef uint8_t SPBoolean;
#define SPAPI

enum { kSPNoError = 0 };

#endif
