// Marks the few names the host looks up in the plug-in. Everything else is compiled with
// hidden visibility, and the linker's export list (exports.map) names exactly these seven:
// EntryPointFunc, g_strs, GetStringPtr and the four AEFX_ suite functions.
#ifndef VT_HOST_EXPORTS_H
#define VT_HOST_EXPORTS_H

#define VT_EXPORT __attribute__((visibility("default")))

#endif
