// Pixel format codes of effect worlds (four-character codes).
#ifndef VT_SDK_AE_EFFECTPIXELFORMAT_H
#define VT_SDK_AE_EFFECTPIXELFORMAT_H

#include "A.h"

typedef A_long PF_PixelFormat;

enum {
  PF_PixelFormat_ARGB32 = 0x62677261,
  PF_PixelFormat_ARGB64 = 0x36316561,
  PF_PixelFormat_ARGB128 = 0x32336561,
  PF_PixelFormat_INVALID = 0x66646162
};

#endif
