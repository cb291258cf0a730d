// The host's utility callbacks (in_data->utils): handles, the ANSI maths and string functions,
// sub-pixel sampling and pixel addressing.
#ifndef VT_SDK_AE_EFFECTCB_H
#define VT_SDK_AE_EFFECTCB_H

#include "AE_Effect.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef A_long PF_SampleEdgeBehav;
enum { PF_SampleEdgeBehav_ZERO = 0 };

typedef A_long PF_TransferMode;
typedef struct {
  PF_TransferMode xfer;
  A_long rand_seed;
  A_u_char opacity;
  PF_Boolean rgb_only;
  A_u_short opacitySu;
} PF_CompositeMode;

// The host's sampling parameter block.
typedef struct {
  PF_Fixed x_radius;
  PF_Fixed y_radius;
  PF_Fixed area;
  PF_EffectWorld* src;
  PF_SampleEdgeBehav samp_behave;
  A_long allow_asynch;
  A_long motion_blur;
  PF_CompositeMode comp_mode;
  PF_PixelPtr mask0;
  A_u_char* fcm_table;
  A_u_char* fcd_table;
  A_long reserved[8];
} PF_SampPB;

typedef struct {
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
  A_long ansi_procs[1];
} PF_ANSICallbacks;

typedef PF_Err (*PF_IteratePixel8Func)(void* refconP, A_long xL, A_long yL, PF_Pixel* inP,
                                       PF_Pixel* outP);
typedef PF_Err (*PF_IteratePixel16Func)(void* refconP, A_long xL, A_long yL, PF_Pixel16* inP,
                                        PF_Pixel16* outP);
typedef PF_Err (*PF_IteratePixelFloatFunc)(void* refconP, A_long xL, A_long yL,
                                           PF_PixelFloat* inP, PF_PixelFloat* outP);

// Only the entries the effect and its substitute host use carry their signatures; the
// others keep their place in the record as untyped pointers.
typedef struct _PF_UtilCallbacks {
  void* begin_sampling;
  PF_Err (*subpixel_sample)(PF_ProgPtr effect_ref, PF_Fixed x, PF_Fixed y,
                            const PF_SampPB* params, PF_Pixel* dst_pixel);
  void* area_sample;
  void* get_batch_func;
  void* end_sampling;
  void* composite_rect;
  void* blend;
  void* convolve;
  void* copy;
  void* fill;
  void* gaussian_kernel;
  PF_Err (*iterate)(PF_InData* in_data, A_long progress_base, A_long progress_final,
                    PF_EffectWorld* src, const PF_Rect* area, void* refcon,
                    PF_IteratePixel8Func pix_fn, PF_EffectWorld* dst);
  void* premultiply;
  void* premultiply_color;
  void* new_world;
  void* dispose_world;
  void* iterate_origin;
  void* iterate_lut;
  void* transfer_rect;
  void* transform_world;
  PF_Handle (*host_new_handle)(A_u_longlong size);
  void* (*host_lock_handle)(PF_Handle pf_handle);
  void (*host_unlock_handle)(PF_Handle pf_handle);
  void (*host_dispose_handle)(PF_Handle pf_handle);
  void* get_callback_addr;
  void* app;
  PF_ANSICallbacks ansi;
  void* colorCB;
  void* get_platform_data;
  A_u_longlong (*host_get_handle_size)(PF_Handle pf_handle);
  void* iterate_origin_non_clip_src;
  void* iterate_generic;
  void* host_resize_handle;
  PF_Err (*subpixel_sample16)(PF_ProgPtr effect_ref, PF_Fixed x, PF_Fixed y,
                              const PF_SampPB* params, PF_Pixel16* dst_pixel);
  void* area_sample16;
  void* fill16;
  void* premultiply_color16;
  PF_Err (*iterate16)(PF_InData* in_data, A_long progress_base, A_long progress_final,
                      PF_EffectWorld* src, const PF_Rect* area, void* refcon,
                      PF_IteratePixel16Func pix_fn, PF_EffectWorld* dst);
  void* iterate_origin16;
  void* iterate_origin_non_clip_src16;
  PF_Err (*get_pixel_data8)(PF_EffectWorld* worldP, PF_PixelPtr pixelsP0, PF_Pixel8** pixPP);
  PF_Err (*get_pixel_data16)(PF_EffectWorld* worldP, PF_PixelPtr pixelsP0, PF_Pixel16** pixPP);
  A_long reserved[1];
} PF_UtilCallbacks;

#ifdef __cplusplus
}
#endif

#endif
