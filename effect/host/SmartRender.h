// PF_Cmd_SMART_RENDER: renders one frame from the input the pre-render checked out, through
// the lens record the pre-render left in the sequence data.
#ifndef VT_HOST_SMARTRENDER_H
#define VT_HOST_SMARTRENDER_H

#include "AE_Effect.h"

// Returns the first error; a missing sampling or iterate suite is thrown as the integer
// PF_Err_BAD_CALLBACK_PARAM after the suites acquired here have been released.
PF_Err SmartRender(PF_InData* in_data, PF_OutData* out_data, PF_SmartRenderExtra* extra);

#endif
