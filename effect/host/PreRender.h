// PF_Cmd_SMART_PRE_RENDER: reads the parameters into the lens record, rebuilds the record,
// asks the host for the input area that the requested output needs and reports the output
// rectangles the effect will deliver.
#ifndef VT_HOST_PRERENDER_H
#define VT_HOST_PRERENDER_H

#include "AE_Effect.h"
#include "lens/LensData.h"

PF_Err SmartPreRender(PF_InData* in_data, PF_PreRenderExtra* extra);

// The lens record behind the sequence-data handle, or null when there is none.
VtAFXLensData* SequenceLensData(PF_Handle sequenceData);

#endif
