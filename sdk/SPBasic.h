// The basic suite: how a plug-in acquires and releases the host's function suites by name
// and version.
#ifndef VT_SDK_SPBASIC_H
#define VT_SDK_SPBASIC_H

#include <stddef.h>
#include "SPTypes.h"

#define kSPBasicSuite "SP Basic Suite"
#define kSPBasicSuiteVersion 4

#ifdef __cplusplus
extern "C" {
#endif

typedef struct SPBasicSuite {
  SPAPI SPErr (*AcquireSuite)(const char* name, int32_t version, const void** suite);
  SPAPI SPErr (*ReleaseSuite)(const char* name, int32_t version);
  SPAPI SPBoolean (*IsEqual)(const char* token1, const char* token2);
  SPAPI SPErr (*AllocateBlock)(size_t size, void** block);
  SPAPI SPErr (*FreeBlock)(void* block);
  SPAPI SPErr (*ReallocateBlock)(void* block, size_t newSize, void** newblock);
  SPAPI SPErr (*Undefined)(void);
} SPBasicSuite;

#ifdef __cplusplus
}
#endif

#endif
