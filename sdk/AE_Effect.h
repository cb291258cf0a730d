// The effect command protocol of the host: commands, errors, flags, the in and out records,
// parameter definitions, worlds, pixels, rectangles and the smart rendering records.
// Only the subset that Veltrisca Distortion and its substitute host use is declared; names,
// field order and values follow the host's published API.
#ifndef VT_SDK_AE_EFFECT_H
#define VT_SDK_AE_EFFECT_H

#include "A.h"
#include "SPBasic.h"
#include "AE_EffectPixelFormat.h"

#ifdef __cplusplus
extern "C" {
#endif

#define PF_PLUG_IN_VERSION 13
#define PF_PLUG_IN_SUBVERS 28

#define PF_MAX_EFFECT_NAME_LEN 31
#define PF_MAX_EFFECT_MSG_LEN 255
#define PF_MAX_EFFECT_PARAM_NAME_LEN 31

typedef A_long PF_Err;
typedef A_long PF_Fixed;
typedef A_u_long PF_UFixed;
typedef A_u_char PF_Boolean;
typedef A_FpLong PF_FpLong;
typedef A_FpShort PF_FpShort;
typedef A_long PF_ParamIndex;
typedef A_long PF_ParamType;
typedef A_long PF_ParamFlags;
typedef A_long PF_ParamUIFlags;
typedef A_long PF_ValueDisplayFlags;
typedef A_long PF_OutFlags;
typedef A_long PF_OutFlags2;
typedef A_long PF_InFlags;
typedef A_long PF_WorldFlags;
typedef A_long PF_Field;
typedef A_long PF_Quality;
typedef A_long PF_ChannelMask;
typedef A_long PF_RenderOutputFlags;
typedef A_short PF_FSliderFlags;
typedef struct _PF_PixelOpaque* PF_PixelOpaquePtr;
typedef void* PF_PixelPtr;
typedef struct _PF_LayerAudio* PF_LayerAudio;
typedef void* PF_SndSamplePtr;
typedef char** PF_Handle;
typedef struct _PF_ProgressInfo* PF_ProgPtr;
typedef struct _PF_CustomUIInfo PF_CustomUIInfo;

// Host commands.
typedef A_long PF_Cmd;
enum {
  PF_Cmd_ABOUT = 0,
  PF_Cmd_GLOBAL_SETUP,
  PF_Cmd_UNUSED_0,
  PF_Cmd_GLOBAL_SETDOWN,
  PF_Cmd_PARAMS_SETUP,
  PF_Cmd_SEQUENCE_SETUP,
  PF_Cmd_SEQUENCE_RESETUP,
  PF_Cmd_SEQUENCE_FLATTEN,
  PF_Cmd_SEQUENCE_SETDOWN,
  PF_Cmd_DO_DIALOG,
  PF_Cmd_FRAME_SETUP,
  PF_Cmd_RENDER,
  PF_Cmd_FRAME_SETDOWN,
  PF_Cmd_USER_CHANGED_PARAM,
  PF_Cmd_UPDATE_PARAMS_UI,
  PF_Cmd_EVENT,
  PF_Cmd_GET_EXTERNAL_DEPENDENCIES,
  PF_Cmd_COMPLETELY_GENERAL,
  PF_Cmd_QUERY_DYNAMIC_FLAGS,
  PF_Cmd_AUDIO_RENDER,
  PF_Cmd_AUDIO_SETUP,
  PF_Cmd_AUDIO_SETDOWN,
  PF_Cmd_ARBITRARY_CALLBACK,
  PF_Cmd_SMART_PRE_RENDER,
  PF_Cmd_SMART_RENDER,
  PF_Cmd_RESERVED1,
  PF_Cmd_RESERVED2,
  PF_Cmd_RESERVED3,
  PF_Cmd_GET_FLATTENED_SEQUENCE_DATA,
  PF_Cmd_TRANSLATE_PARAMS_TO_PREFS,
  PF_Cmd_RESERVED4,
  PF_Cmd_SMART_RENDER_GPU,
  PF_Cmd_GPU_DEVICE_SETUP,
  PF_Cmd_GPU_DEVICE_SETDOWN,
  PF_Cmd_NUM_CMDS
};

// Error codes.
enum {
  PF_Err_NONE = 0,
  PF_Err_OUT_OF_MEMORY = 4,
  PF_Err_INTERNAL_STRUCT_DAMAGED = 512,
  PF_Err_INVALID_INDEX,
  PF_Err_UNRECOGNIZED_PARAM_TYPE,
  PF_Err_INVALID_CALLBACK,
  PF_Err_BAD_CALLBACK_PARAM,
  PF_Interrupt_CANCEL,
  PF_Err_CANNOT_PARSE_KEYFRAME_TEXT
};

// Version packing: build in bits 0-8, stage in 9-10, fix level in 11-14, subversion in
// 15-18, version in 19-21 (and the bits above 21 of the version in 26-29).
#define PF_VERS_BUILD_BITS 0x1ffL
#define PF_VERS_BUILD_SHIFT 0
#define PF_VERS_STAGE_BITS 0x3L
#define PF_VERS_STAGE_SHIFT 9
#define PF_VERS_BUGFIX_BITS 0xfL
#define PF_VERS_BUGFIX_SHIFT 11
#define PF_VERS_SUBVERS_BITS 0xfL
#define PF_VERS_SUBVERS_SHIFT 15
#define PF_VERS_VERS_BITS 0x7L
#define PF_VERS_VERS_SHIFT 19
#define PF_VERS_VERS_HIGH_BITS 0xfL
#define PF_VERS_VERS_HIGH_SHIFT 26
#define PF_VERS_VERS_LOW_SHIFT 3

#define PF_VERSION(vers, subvers, bugvers, stage, build)                                         \
  (A_u_long)(((((A_u_long)(vers) >> PF_VERS_VERS_LOW_SHIFT) & PF_VERS_VERS_HIGH_BITS)           \
              << PF_VERS_VERS_HIGH_SHIFT) |                                                      \
             (((A_u_long)(vers) & PF_VERS_VERS_BITS) << PF_VERS_VERS_SHIFT) |                    \
             (((A_u_long)(subvers) & PF_VERS_SUBVERS_BITS) << PF_VERS_SUBVERS_SHIFT) |           \
             (((A_u_long)(bugvers) & PF_VERS_BUGFIX_BITS) << PF_VERS_BUGFIX_SHIFT) |             \
             (((A_u_long)(stage) & PF_VERS_STAGE_BITS) << PF_VERS_STAGE_SHIFT) |                 \
             (((A_u_long)(build) & PF_VERS_BUILD_BITS) << PF_VERS_BUILD_SHIFT))

enum { PF_Stage_DEVELOP = 0, PF_Stage_ALPHA, PF_Stage_BETA, PF_Stage_RELEASE };

// Output flags (out_data->out_flags).
enum {
  PF_OutFlag_NONE = 0L,
  PF_OutFlag_KEEP_RESOURCE_OPEN = 1L << 0,
  PF_OutFlag_WIDE_TIME_INPUT = 1L << 1,
  PF_OutFlag_NON_PARAM_VARY = 1L << 2,
  PF_OutFlag_RESERVED6 = 1L << 3,
  PF_OutFlag_SEQUENCE_DATA_NEEDS_FLATTENING = 1L << 4,
  PF_OutFlag_I_DO_DIALOG = 1L << 5,
  PF_OutFlag_USE_OUTPUT_EXTENT = 1L << 6,
  PF_OutFlag_SEND_DO_DIALOG = 1L << 7,
  PF_OutFlag_DISPLAY_ERROR_MESSAGE = 1L << 8,
  PF_OutFlag_I_EXPAND_BUFFER = 1L << 9,
  PF_OutFlag_PIX_INDEPENDENT = 1L << 10,
  PF_OutFlag_I_WRITE_INPUT_BUFFER = 1L << 11,
  PF_OutFlag_I_SHRINK_BUFFER = 1L << 12,
  PF_OutFlag_WORKS_IN_PLACE = 1L << 13,
  PF_OutFlag_RESERVED8 = 1L << 14,
  PF_OutFlag_CUSTOM_UI = 1L << 15,
  PF_OutFlag_RESERVED7 = 1L << 16,
  PF_OutFlag_REFRESH_UI = 1L << 17,
  PF_OutFlag_NOP_RENDER = 1L << 18,
  PF_OutFlag_I_USE_SHUTTER_ANGLE = 1L << 19,
  PF_OutFlag_I_USE_AUDIO = 1L << 20,
  PF_OutFlag_I_AM_OBSOLETE = 1L << 21,
  PF_OutFlag_FORCE_RERENDER = 1L << 22,
  PF_OutFlag_PiPL_OVERRIDES_OUTDATA_OUTFLAGS = 1L << 23,
  PF_OutFlag_I_HAVE_EXTERNAL_DEPENDENCIES = 1L << 24,
  PF_OutFlag_DEEP_COLOR_AWARE = 1L << 25,
  PF_OutFlag_SEND_UPDATE_PARAMS_UI = 1L << 26,
  PF_OutFlag_AUDIO_FLOAT_ONLY = 1L << 27,
  PF_OutFlag_AUDIO_IIR = 1L << 28,
  PF_OutFlag_I_SYNTHESIZE_AUDIO = 1L << 29,
  PF_OutFlag_AUDIO_EFFECT_TOO = 1L << 30
};

// Second output flags (out_data->out_flags2).
enum {
  PF_OutFlag2_NONE = 0L,
  PF_OutFlag2_SUPPORTS_QUERY_DYNAMIC_FLAGS = 1L << 0,
  PF_OutFlag2_I_USE_3D_CAMERA = 1L << 1,
  PF_OutFlag2_I_USE_3D_LIGHTS = 1L << 2,
  PF_OutFlag2_PARAM_GROUP_START_COLLAPSED_FLAG = 1L << 3,
  PF_OutFlag2_I_AM_THREADSAFE = 1L << 4,
  PF_OutFlag2_CAN_COMBINE_WITH_DESTINATION = 1L << 5,
  PF_OutFlag2_DOESNT_NEED_EMPTY_PIXELS = 1L << 6,
  PF_OutFlag2_REVEALS_ZERO_ALPHA = 1L << 7,
  PF_OutFlag2_PRESERVES_FULLY_OPAQUE_PIXELS = 1L << 8,
  PF_OutFlag2_SUPPORTS_SMART_RENDER = 1L << 10,
  PF_OutFlag2_FLOAT_COLOR_AWARE = 1L << 12,
  PF_OutFlag2_I_USE_COLORSPACE_ENUMERATION = 1L << 13,
  PF_OutFlag2_I_AM_DEPRECATED = 1L << 14,
  PF_OutFlag2_PPRO_DO_NOT_CLONE_SEQUENCE_DATA_FOR_RENDER = 1L << 15,
  PF_OutFlag2_AUTOMATIC_WIDE_TIME_INPUT = 1L << 17,
  PF_OutFlag2_I_USE_TIMECODE = 1L << 18,
  PF_OutFlag2_DEPENDS_ON_UNREFERENCED_MASKS = 1L << 19,
  PF_OutFlag2_OUTPUT_IS_WATERMARKED = 1L << 20,
  PF_OutFlag2_I_MIX_GUID_DEPENDENCIES = 1L << 21,
  PF_OutFlag2_SUPPORTS_THREADED_RENDERING = 1L << 27
};

enum { PF_Field_FRAME = 0L, PF_Field_UPPER = 1L, PF_Field_LOWER = 2L };

enum {
  PF_RenderOutputFlag_RETURNS_EXTRA_PIXELS = 0x1,
  PF_RenderOutputFlag_GPU_RENDER_POSSIBLE = 0x2,
  PF_RenderOutputFlag_RESERVED1 = 0x4
};

// Parameter types.
enum {
  PF_Param_RESERVED = -1,
  PF_Param_LAYER = 0,
  PF_Param_SLIDER,
  PF_Param_FIX_SLIDER,
  PF_Param_ANGLE,
  PF_Param_CHECKBOX,
  PF_Param_COLOR,
  PF_Param_POINT,
  PF_Param_POPUP,
  PF_Param_CUSTOM,
  PF_Param_NO_DATA,
  PF_Param_FLOAT_SLIDER,
  PF_Param_ARBITRARY_DATA,
  PF_Param_PATH,
  PF_Param_GROUP_START,
  PF_Param_GROUP_END,
  PF_Param_BUTTON,
  PF_Param_RESERVED2,
  PF_Param_RESERVED3,
  PF_Param_POINT_3D
};

// Parameter flags.
enum {
  PF_ParamFlag_RESERVED1 = 1L << 0,
  PF_ParamFlag_CANNOT_TIME_VARY = 1L << 1,
  PF_ParamFlag_CANNOT_INTERP = 1L << 2,
  PF_ParamFlag_RESERVED2 = 1L << 3,
  PF_ParamFlag_RESERVED3 = 1L << 4,
  PF_ParamFlag_COLLAPSE_TWIRLY = 1L << 5,
  PF_ParamFlag_SUPERVISE = 1L << 6,
  PF_ParamFlag_START_COLLAPSED = PF_ParamFlag_COLLAPSE_TWIRLY,
  PF_ParamFlag_USE_VALUE_FOR_OLD_PROJECTS = 1L << 7,
  PF_ParamFlag_LAYER_PARAM_IS_TRACKMATTE = 1L << 7,
  PF_ParamFlag_EXCLUDE_FROM_HAVE_INPUTS_CHANGED = 1L << 8,
  PF_ParamFlag_SKIP_REVEAL_WHEN_UNHIDDEN = 1L << 9
};

enum { PF_ValueDisplayFlag_NONE = 0, PF_ValueDisplayFlag_PERCENT = 1 << 0, PF_ValueDisplayFlag_PIXEL = 1 << 1 };

// Pixels: channels in memory in the order alpha, red, green, blue.
typedef struct {
  A_u_char alpha, red, green, blue;
} PF_Pixel;
typedef PF_Pixel PF_Pixel8;
typedef PF_Pixel PF_UnionablePixel;

typedef struct {
  A_u_short alpha, red, green, blue;
} PF_Pixel16;

typedef struct {
  PF_FpShort alpha, red, green, blue;
} PF_PixelFloat, PF_Pixel32;

#define PF_MAX_CHAN8 255
#define PF_HALF_CHAN8 128
#define PF_MAX_CHAN16 32768
#define PF_HALF_CHAN16 16384

// Rectangles: right and bottom are exclusive.
typedef struct {
  A_long left, top, right, bottom;
} PF_LRect;
typedef PF_LRect PF_Rect;
typedef PF_Rect PF_UnionableRect;

typedef struct {
  A_long h, v;
} PF_Point;

typedef struct {
  A_long num;
  A_u_long den;
} PF_RationalScale;

typedef struct {
  A_short major;
  A_short minor;
} PF_SpecVersion;

// An image buffer as the host hands it to an effect.
typedef struct PF_LayerDef {
  void* reserved0;
  void* reserved1;
  PF_WorldFlags world_flags;
  PF_PixelPtr data;
  A_long rowbytes;
  A_long width;
  A_long height;
  PF_UnionableRect extent_hint;
  void* platform_ref;
  A_long reserved_long1;
  void* reserved_long4;
  PF_RationalScale pix_aspect_ratio;
  void* reserved_long2;
  A_long origin_x;
  A_long origin_y;
  A_long reserved_long3;
  A_long dephault;
} PF_LayerDef;
typedef PF_LayerDef PF_EffectWorld;

enum {
  PF_WorldFlag_DEEP = 1L << 0,
  PF_WorldFlag_WRITEABLE = 1L << 1,
  PF_WorldFlag_RESERVED0 = 1L << 24,
  PF_WorldFlag_RESERVED1 = 1L << 25,
  PF_WorldFlag_RESERVED2 = 1L << 26,
  PF_WorldFlag_RESERVED3 = 1L << 27,
  PF_WorldFlag_RESERVED4 = 1L << 28,
  PF_WorldFlag_RESERVED5 = 1L << 29,
  PF_WorldFlag_RESERVED6 = 1L << 30,
  PF_WorldFlag_RESERVED = 1L << 31
};

typedef struct {
  A_long num_channels;
  A_long format;
  A_long sample_size;
  A_long reserved;
  A_long dur;
  PF_SndSamplePtr data;
} PF_SoundWorld;

// Parameter definitions.
typedef struct {
  A_long value;
  A_char reserved[32];
  A_long valid_min, valid_max;
  A_long slider_min, slider_max;
  A_long dephault;
} PF_SliderDef;

typedef struct {
  PF_Fixed value;
  A_char reserved[32];
  PF_Fixed valid_min, valid_max;
  PF_Fixed slider_min, slider_max;
  PF_Fixed dephault;
  A_short precision;
  A_short display_flags;
} PF_FixedSliderDef;

typedef struct {
  PF_FpLong value;
  PF_FpLong phase;
  PF_ValueDisplayFlags display_flags;
  PF_FpShort valid_min, valid_max;
  PF_FpShort slider_min, slider_max;
  PF_FpShort dephault;
  A_short precision;
  A_short reserved;
  PF_FSliderFlags fs_flags;
  PF_FpShort curve_tolerance;
  PF_Boolean useExponent;
  PF_FpShort exponent;
} PF_FloatSliderDef;

typedef struct {
  PF_Fixed value;
  PF_Fixed dephault;
  PF_Fixed valid_min, valid_max;
} PF_AngleDef;

typedef struct {
  A_long value;
  A_long reserved;
  PF_Boolean dephault;
  A_char reserved1;
  A_short reserved2;
  union {
    A_long id;
    const A_char* nameptr;
  } u;
} PF_CheckBoxDef;

typedef struct {
  PF_UnionablePixel value;
  PF_UnionablePixel dephault;
} PF_ColorDef;

typedef struct {
  PF_Fixed x_value;
  PF_Fixed y_value;
  A_char reserved[3];
  PF_Boolean restrict_bounds;
  PF_Fixed x_dephault;
  PF_Fixed y_dephault;
} PF_PointDef;

typedef struct {
  A_long value;
  A_short num_choices;
  A_short dephault;
  union {
    A_long id;
    const A_char* namesptr;
  } u;
} PF_PopupDef;

typedef struct {
  PF_FpLong x_value, y_value, z_value;
  PF_FpLong x_dephault, y_dephault, z_dephault;
  char reserved[16];
} PF_Point3DDef;

typedef union {
  PF_LayerDef ld;
  PF_SliderDef sd;
  PF_FixedSliderDef fd;
  PF_AngleDef ad;
  PF_CheckBoxDef bd;
  PF_ColorDef cd;
  PF_PointDef td;
  PF_PopupDef pd;
  PF_FloatSliderDef fs_d;
  PF_Point3DDef point3d_d;
} PF_ParamDefUnion;

typedef struct PF_ParamDef {
  union {
    A_long id;
    A_long change_flags;
  } uu;
  PF_ParamUIFlags ui_flags;
  A_short ui_width;
  A_short ui_height;
  PF_ParamType param_type;
  A_char name[PF_MAX_EFFECT_PARAM_NAME_LEN + 1];
  PF_ParamFlags flags;
  A_long unused;
  PF_ParamDefUnion u;
} PF_ParamDef, *PF_ParamDefPtr, **PF_ParamDefH;
typedef PF_ParamDef** PF_ParamList;

// Host callbacks for parameters and interaction.
typedef struct {
  PF_Err (*checkout_param)(PF_ProgPtr effect_ref, PF_ParamIndex index, A_long what_time,
                           A_long time_step, A_u_long time_scale, PF_ParamDef* param);
  PF_Err (*checkin_param)(PF_ProgPtr effect_ref, PF_ParamDef* param);
  PF_Err (*add_param)(PF_ProgPtr effect_ref, PF_ParamIndex index, PF_ParamDefPtr def);
  PF_Err (*abort)(PF_ProgPtr effect_ref);
  PF_Err (*progress)(PF_ProgPtr effect_ref, A_long current, A_long total);
  PF_Err (*register_ui)(PF_ProgPtr effect_ref, PF_CustomUIInfo* cust_info);
  PF_Err (*checkout_layer_audio)(PF_ProgPtr effect_ref, PF_ParamIndex index, A_long start_time,
                                 A_long duration, A_u_long time_scale, PF_UFixed rate,
                                 A_long bytes_per_sample, A_long num_channels, A_long fmt_signed,
                                 PF_LayerAudio* audio);
  PF_Err (*checkin_layer_audio)(PF_ProgPtr effect_ref, PF_LayerAudio audio);
  PF_Err (*get_audio_data)(PF_ProgPtr effect_ref, PF_LayerAudio audio, PF_SndSamplePtr* data0,
                           A_long* num_samples0, PF_UFixed* rate0, A_long* bytes_per_sample0,
                           A_long* num_channels0, A_long* fmt_signed0);
  void* reserved_str[3];
  void* reserved[10];
} PF_InteractCallbacks;

struct _PF_UtilCallbacks;

// What the host passes to every command.
typedef struct PF_InData {
  PF_InteractCallbacks inter;
  struct _PF_UtilCallbacks* utils;
  PF_ProgPtr effect_ref;
  PF_Quality quality;
  PF_SpecVersion version;
  A_long serial_num;
  A_long appl_id;
  A_long num_params;
  A_long reserved;
  A_long what_cpu;
  A_long what_fpu;
  A_long current_time;
  A_long time_step;
  A_long total_time;
  A_long local_time_step;
  A_u_long time_scale;
  PF_Field field;
  PF_Fixed shutter_angle;
  A_long width;
  A_long height;
  PF_Rect extent_hint;
  A_long output_origin_x;
  A_long output_origin_y;
  PF_RationalScale downsample_x;
  PF_RationalScale downsample_y;
  PF_RationalScale pixel_aspect_ratio;
  PF_InFlags in_flags;
  PF_Handle global_data;
  PF_Handle sequence_data;
  PF_Handle frame_data;
  A_long start_sampL;
  A_long dur_sampL;
  A_long total_sampL;
  PF_SoundWorld src_snd;
  SPBasicSuite* pica_basicP;
  A_long pre_effect_source_origin_x;
  A_long pre_effect_source_origin_y;
  PF_Fixed shutter_phase;
} PF_InData;

// What the effect hands back.
typedef struct {
  A_u_long my_version;
  A_char name[PF_MAX_EFFECT_NAME_LEN + 1];
  PF_Handle global_data;
  A_long num_params;
  PF_Handle sequence_data;
  A_long flat_sdata_size;
  PF_Handle frame_data;
  A_long width;
  A_long height;
  PF_Point origin;
  PF_OutFlags out_flags;
  A_char return_msg[PF_MAX_EFFECT_MSG_LEN + 1];
  A_long start_sampL;
  A_long dur_sampL;
  PF_SoundWorld dest_snd;
  PF_OutFlags2 out_flags2;
} PF_OutData;

// Smart rendering.
typedef struct {
  PF_LRect rect;
  PF_Field field;
  PF_ChannelMask channel_mask;
  PF_Boolean preserve_rgb_of_zero_alpha;
  char unused[3];
  A_long reserved[4];
} PF_RenderRequest;

typedef struct {
  PF_LRect result_rect;
  PF_LRect max_result_rect;
  PF_RationalScale par;
  A_long solid;
  PF_Boolean reservedB[3];
  A_long ref_width;
  A_long ref_height;
  A_long reserved[6];
} PF_CheckoutResult;

typedef void (*PF_DeletePreRenderDataFunc)(void* pre_render_data);

typedef A_long PF_GPU_Framework;
enum { PF_GPU_Framework_NONE = 0 };

typedef struct {
  PF_RenderRequest output_request;
  short bitdepth;
  const void* gpu_data;
  PF_GPU_Framework what_gpu;
  A_u_long device_index;
} PF_PreRenderInput;

typedef struct {
  PF_LRect result_rect;
  PF_LRect max_result_rect;
  PF_Boolean solid;
  PF_Boolean reserved;
  PF_RenderOutputFlags flags;
  void* pre_render_data;
  PF_DeletePreRenderDataFunc delete_pre_render_data_func;
} PF_PreRenderOutput;

typedef struct {
  PF_Err (*checkout_layer)(PF_ProgPtr effect_ref, PF_ParamIndex index, A_long checkout_idL,
                           const PF_RenderRequest* req, A_long what_time, A_long time_step,
                           A_u_long time_scale, PF_CheckoutResult* checkout_result);
  PF_Err (*GuidMixInPtr)(PF_ProgPtr effect_ref, A_u_long buf_sizeLu, const void* buf);
} PF_PreRenderCallbacks;

typedef struct {
  PF_PreRenderInput* input;
  PF_PreRenderOutput* output;
  PF_PreRenderCallbacks* cb;
} PF_PreRenderExtra;

typedef struct {
  PF_RenderRequest output_request;
  short bitdepth;
  void* pre_render_data;
  const void* gpu_data;
  PF_GPU_Framework what_gpu;
  A_u_long device_index;
} PF_SmartRenderInput;

typedef struct {
  PF_Err (*checkout_layer_pixels)(PF_ProgPtr effect_ref, A_long checkout_idL,
                                  PF_EffectWorld** pixels);
  PF_Err (*checkin_layer_pixels)(PF_ProgPtr effect_ref, A_long checkout_idL);
  PF_Err (*checkout_output)(PF_ProgPtr effect_ref, PF_EffectWorld** output);
} PF_SmartRenderCallbacks;

typedef struct {
  PF_SmartRenderInput* input;
  PF_SmartRenderCallbacks* cb;
} PF_SmartRenderExtra;

// The effect's one exported function.
typedef PF_Err (*PF_FilterProc)(PF_Cmd cmd, PF_InData* in_data, PF_OutData* out_data,
                                PF_ParamDef* params[], PF_LayerDef* output, void* extra);

#ifdef __cplusplus
}
#endif

#endif
