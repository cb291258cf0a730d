// World and pixel data suites of the host.
#ifndef VT_SDK_AE_EFFECTSUITES_H
#define VT_SDK_AE_EFFECTSUITES_H

#include "AE_Effect.h"
#include "AE_EffectPixelFormat.h"

#ifdef __cplusplus
extern "C" {
#endif

#define kPFWorldSuite "PF World Suite"
#define kPFWorldSuiteVersion2 2

typedef struct PF_WorldSuite2 {
  PF_Err (*PF_NewWorld)(PF_ProgPtr effect_ref, A_long widthL, A_long heightL,
                        PF_Boolean clear_pixB, PF_PixelFormat pixel_format,
                        PF_EffectWorld* worldP);
  PF_Err (*PF_DisposeWorld)(PF_ProgPtr effect_ref, PF_EffectWorld* worldP);
  PF_Err (*PF_GetPixelFormat)(const PF_EffectWorld* worldP, PF_PixelFormat* pixel_formatP);
} PF_WorldSuite2;

#define kPFPixelDataSuite "PF Pixel Data Suite"
#define kPFPixelDataSuiteVersion1 1

typedef struct PF_PixelDataSuite1 {
  PF_Err (*get_pixel_data8)(PF_EffectWorld* worldP, PF_PixelPtr pixelsP0, PF_Pixel8** pixPP);
  PF_Err (*get_pixel_data16)(PF_EffectWorld* worldP, PF_PixelPtr pixelsP0, PF_Pixel16** pixPP);
  PF_Err (*get_pixel_data_float)(PF_EffectWorld* worldP, PF_PixelPtr pixelsP0,
                                 PF_PixelFloat** pixPP);
} PF_PixelDataSuite1;

#ifdef __cplusplus
}
#endif

#endif
