#include "host/Strings.h"

StringEntry g_strs[kStrCount] = {
    {kStrNone, ""},
    {kStrName, "Veltrisca Distortion"},
    {kStrDescription, "Veltrisca camera-matching lens distortion plugin."},
    {kStrErrorLoadingSuite, "Error loading suite."},
    {kStrErrorReleasingSuite, "Error releasing suite."},
    {kStrModeName, "DistortMode"},
    {kStrModeChoices, "Remove|Apply"},
    {kStrFilterName, "FilterType"},
    {kStrFilterChoices, "Built-in|Nearest|BiLinear|Lanczos-2|Lanczos-3|Mitchell-Netravali"},
    {kStrDistortionName, "DistortionX1000"},
    {kStrCubicName, "CubicX1000"},
    {kStrQuarticName, "QuarticX1000"},
    {kStrZoomName, "ZoomFactor"},
    {kStrDistortedSizeName, "DistortedImgSize"},
    {kStrUndistortedSizeName, "UndistortedImgSize"},
    {kStrPixelAspectName, "PixelAspect"},
};

char* GetStringPtr(int32_t id) { return g_strs[id].text; }
