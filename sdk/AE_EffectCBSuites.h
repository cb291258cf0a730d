// Function suites of the host reached through the basic suite: ANSI maths, sub-pixel
// sampling and iteration over worlds at each pixel depth.
#ifndef VT_SDK_AE_EFFECTCBSUITES_H
#define VT_SDK_AE_EFFECTCBSUITES_H

#include "AE_EffectCB.h"

#ifdef __cplusplus
extern "C" {
#endif

#define kPFANSISuite "PF ANSI Suite"
#define kPFANSISuiteVersion1 1

typedef struct PF_ANSICallbacksSuite1 {
  A_FpLong (*atan)(A_FpLong);
  A_FpLong (*atan2)(A_FpLong y, A_FpLong x);
  A_FpLong (*ceil)(A_FpLong);
  A_FpLong (*cos)(A_FpLong);
  A_FpLong (*exp)(A_FpLong);
  A_FpLong (*fabs)(A_FpLong);
  A_FpLong (*floor)(A_FpLong);
  A_FpLong (*fmod)(A_FpLong x, A_FpLong y);
  A_FpLong (*hypot)(A_FpLong x, A_FpLong y);
  A_FpLong (*log)(A_FpLong);
  A_FpLong (*log10)(A_FpLong);
  A_FpLong (*pow)(A_FpLong x, A_FpLong y);
  A_FpLong (*sin)(A_FpLong);
  A_FpLong (*sinh)(A_FpLong);
  A_FpLong (*sqrt)(A_FpLong);
  A_FpLong (*tan)(A_FpLong);
  int (*sprintf)(A_char*, const A_char*, ...);
  A_char* (*strcpy)(A_char*, const A_char*);
  A_FpLong (*asin)(A_FpLong);
  A_FpLong (*acos)(A_FpLong);
} PF_ANSICallbacksSuite1;

#define kPFSampling8Suite "PF Sampling8 Suite"
#define kPFSampling8SuiteVersion1 1

typedef struct PF_Sampling8Suite1 {
  PF_Err (*nn_sample)(PF_ProgPtr effect_ref, PF_Fixed x, PF_Fixed y, const PF_SampPB* params,
                      PF_Pixel* dst_pixel);
  PF_Err (*subpixel_sample)(PF_ProgPtr effect_ref, PF_Fixed x, PF_Fixed y,
                            const PF_SampPB* params, PF_Pixel* dst_pixel);
  PF_Err (*area_sample)(PF_ProgPtr effect_ref, PF_Fixed x, PF_Fixed y, const PF_SampPB* params,
                        PF_Pixel* dst_pixel);
} PF_Sampling8Suite1;

#define kPFSampling16Suite "PF Sampling16 Suite"
#define kPFSampling16SuiteVersion1 1

typedef struct PF_Sampling16Suite1 {
  PF_Err (*nn_sample16)(PF_ProgPtr effect_ref, PF_Fixed x, PF_Fixed y, const PF_SampPB* params,
                        PF_Pixel16* dst_pixel);
  PF_Err (*subpixel_sample16)(PF_ProgPtr effect_ref, PF_Fixed x, PF_Fixed y,
                              const PF_SampPB* params, PF_Pixel16* dst_pixel);
  PF_Err (*area_sample16)(PF_ProgPtr effect_ref, PF_Fixed x, PF_Fixed y,
                          const PF_SampPB* params, PF_Pixel16* dst_pixel);
} PF_Sampling16Suite1;

#define kPFSamplingFloatSuite "PF SamplingFloat Suite"
#define kPFSamplingFloatSuiteVersion1 1

typedef struct PF_SamplingFloatSuite1 {
  PF_Err (*nn_sample_float)(PF_ProgPtr effect_ref, PF_Fixed x, PF_Fixed y,
                            const PF_SampPB* params, PF_PixelFloat* dst_pixel);
  PF_Err (*subpixel_sample_float)(PF_ProgPtr effect_ref, PF_Fixed x, PF_Fixed y,
                                  const PF_SampPB* params, PF_PixelFloat* dst_pixel);
  PF_Err (*area_sample_float)(PF_ProgPtr effect_ref, PF_Fixed x, PF_Fixed y,
                              const PF_SampPB* params, PF_PixelFloat* dst_pixel);
} PF_SamplingFloatSuite1;

#define kPFIterate8Suite "PF Iterate8 Suite"
#define kPFIterate8SuiteVersion1 1

typedef struct PF_Iterate8Suite1 {
  PF_Err (*iterate)(PF_InData* in_data, A_long progress_base, A_long progress_final,
                    PF_EffectWorld* src, const PF_Rect* area, void* refcon,
                    PF_Err (*pix_fn)(void* refcon, A_long x, A_long y, PF_Pixel* in,
                                     PF_Pixel* out),
                    PF_EffectWorld* dst);
  void* iterate_origin;
  void* iterate_lut;
  void* iterate_origin_non_clip_src;
  void* iterate_generic;
} PF_Iterate8Suite1;

#define kPFIterate16Suite "PF iterate16 Suite"
#define kPFIterate16SuiteVersion1 1

typedef struct PF_iterate16Suite1 {
  PF_Err (*iterate)(PF_InData* in_data, A_long progress_base, A_long progress_final,
                    PF_EffectWorld* src, const PF_Rect* area, void* refcon,
                    PF_Err (*pix_fn)(void* refcon, A_long x, A_long y, PF_Pixel16* in,
                                     PF_Pixel16* out),
                    PF_EffectWorld* dst);
  void* iterate_origin;
  void* iterate_origin_non_clip_src;
} PF_iterate16Suite1;

#define kPFIterateFloatSuite "PF iterateFloat Suite"
#define kPFIterateFloatSuiteVersion1 1

typedef struct PF_iterateFloatSuite1 {
  PF_Err (*iterate)(PF_InData* in_data, A_long progress_base, A_long progress_final,
                    PF_EffectWorld* src, const PF_Rect* area, void* refcon,
                    PF_Err (*pix_fn)(void* refcon, A_long x, A_long y, PF_PixelFloat* in,
                                     PF_PixelFloat* out),
                    PF_EffectWorld* dst);
  void* iterate_origin;
  void* iterate_origin_non_clip_src;
} PF_iterateFloatSuite1;

#ifdef __cplusplus
}
#endif

#endif
