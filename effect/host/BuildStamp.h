// The identity of this build of the effect's code: a digest of its sources, carried by the
// plug-in and by every program that links the effect's code itself. The command-line tool
// maps positions and reads the lens record with its linked copy and renders with the
// plug-in it loads, so it refuses a plug-in of another build. The stamp is plain data in the
// library (kBuildStampPrefix followed by the digest), not an exported name: the tool finds
// it in the plug-in's file.
#ifndef VT_HOST_BUILDSTAMP_H
#define VT_HOST_BUILDSTAMP_H

#define VT_BUILD_STAMP_PREFIX "veltrisca-effect-build:"
constexpr const char kBuildStampPrefix[] = VT_BUILD_STAMP_PREFIX;
constexpr int kBuildIdLength = 16;  // hex digits

// The digest of this build, kBuildIdLength hex digits.
const char* EffectBuildId();

#endif
