// Relocatable memory handles of the operating system: a handle is a pointer to a master
// pointer that points at the block. The effect falls back on these when the host offers no
// handle callbacks. On macOS they come from the system; elsewhere the effect carries its own.
#ifndef VT_SDK_OSHANDLES_H
#define VT_SDK_OSHANDLES_H

#include <stddef.h>

#if defined(__APPLE__)
#include <CoreServices/CoreServices.h>
#else
typedef char* Ptr;
typedef Ptr* Handle;
typedef long Size;

Handle NewHandle(Size byteCount);
void DisposeHandle(Handle h);
#endif

#endif
