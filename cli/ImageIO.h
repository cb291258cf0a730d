// Image files in and out of the host's pixel layout, through OpenImageIO.
//
// 8-bit files travel at 8 bits, 16-bit files at 16 bits (the host's range is 0..32768), and
// every other sample type in 32-bit float. Grey images (1 channel, or grey + alpha) are
// expanded to RGB(A) and written back as grey; images without alpha get an opaque one. Colour
// values pass through unchanged: nothing is premultiplied or un-premultiplied on the way.
#ifndef VT_CLI_IMAGEIO_H
#define VT_CLI_IMAGEIO_H

#include <OpenImageIO/imageio.h>

#include <cstdint>
#include <memory>
#include <string>

#include "AE_Effect.h"
#include "hostsim/World.h"

namespace veltrisca {

// 16-bit samples between a file (0..65535) and the host (0..32768), rounded to nearest both
// ways; host values above 32768 are clamped.
uint16_t FileToHost16(uint16_t fileValue);
uint16_t HostToFile16(uint16_t hostValue);

struct InputImage {
  std::string path;
  std::unique_ptr<OIIO::ImageInput> reader;  // open on subimage 0, mip level 0
  OIIO::ImageSpec spec;
  hostsim::Depth depth = hostsim::Depth::k8;
  int channels = 0;     // 1..4
  bool grey = false;    // 1 or 2 channels
  int alphaIndex = -1;  // channel of alpha in the file, -1 without
};

// Opens a file and reads its header only; throws CliError(kExitIo) for a missing or
// unreadable file, one that is not a regular file, a cut-off or damaged PNG (its chunks are
// checked first), or an unsupported channel count.
InputImage OpenInputImage(const std::string& path);
// Reads the pixels into a new world at layer origin (0, 0); closes the file.
std::unique_ptr<hostsim::World> ReadLayer(InputImage& image);

// Bytes of one interleaved file buffer and of one host world.
uint64_t FileBufferBytes(long long pixels, int channels, hostsim::Depth depth);
uint64_t WorldBytes(long long pixels, hostsim::Depth depth);

// The output file's layout, decided from the input before any rendering.
struct OutputLayout {
  int channels = 0;  // 1..4
  bool grey = false;
  bool alpha = false;
};
OutputLayout ChooseOutputLayout(const InputImage& input, bool forceAlpha);

// Writes `rendered` (placed in the layer at its origin; may be null) into an image of the
// window's size, pixels outside the rendered area being 0, with the input's sample format
// and metadata. `path` is written directly; the caller arranges atomicity. Throws
// CliError(kExitIo).
void WriteRenderedImage(const std::string& path, const std::string& shownPath,
                        const InputImage& input, const OutputLayout& layout,
                        const hostsim::World* rendered, const PF_LRect& window);

// Writes one image with `writer` (created for `path`; destroyed here) and fails
// (CliError(kExitIo)) on any failed write, also those the format's writer overlooks;
// `shownPath` names the file in messages.
void WriteImageFile(std::unique_ptr<OIIO::ImageOutput> writer, const std::string& path,
                    const std::string& shownPath, const OIIO::ImageSpec& spec,
                    OIIO::TypeDesc type, const void* pixels);

// Fails early (CliError(kExitIo)) when no writer exists for the name's extension or the
// format cannot hold the layout's alpha channel.
void CheckWritable(const std::string& path, const OutputLayout& layout);

}  // namespace veltrisca

#endif
