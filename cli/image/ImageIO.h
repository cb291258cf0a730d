// Image files in and out of the host's pixel layout, through OpenImageIO.
//
// 8-bit files travel at 8 bits, 16-bit files at 16 bits (the host's range is 0..32768), and
// every other sample type in 32-bit float (half files' buffers hold half; see PixelBuffer). The host's pixels hold an alpha and three colour
// slots; an image with any number of channels goes through the effect in passes, each pass
// rendering up to three of its non-alpha channels that share a filter (ChannelFilters.h) in
// the colour slots and its alpha (or an opaque one) in the alpha slot, so that only the alpha
// channel is ever treated as alpha.
// Values pass through unchanged: nothing is premultiplied or un-premultiplied on the way.
//
// Windows: positions in a file are those of its data window (the pixels it holds) and display
// window (its frame), in the file's own pixel coordinates; the layer the effect sees has its
// origin at a point of the file chosen by the caller (see cli/image/ImageGeometry.h).
#ifndef VT_CLI_IMAGEIO_H
#define VT_CLI_IMAGEIO_H

#include <OpenImageIO/imageio.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "AE_Effect.h"
#include "cli/shared/Memory.h"
#include "hostsim/World.h"

namespace veltrisca {

// 16-bit samples between a file (0..65535) and the host (0..32768), rounded to nearest both
// ways; host values above 32768 are clamped.
uint16_t FileToHost16(uint16_t fileValue);
uint16_t HostToFile16(uint16_t hostValue);
// The sample type of a file buffer (PixelBuffer) of a host depth: uint8, uint16 or float.
OIIO::TypeDesc BufferTypeOf(Depth depth);

struct InputImage {
  std::string path;
  std::unique_ptr<OIIO::ImageInput> reader;  // open on subimage 0, mip level 0
  OIIO::ImageSpec spec;
  std::string format;  // the reader's name ("openexr", "png", ...)
  Depth depth = Depth::k8;
  int channels = 0;
  int alphaIndex = -1;      // channel of alpha in the file, -1 without
  std::vector<int> colour;  // every other channel, in file order
  PF_LRect dataWindow{};     // file coordinates
  PF_LRect displayWindow{};  // file coordinates; the data window for formats without one
};

// True for the formats whose data and display windows the tool reads and writes: OpenEXR.
// The offsets that DPX and TIFF can record are not a frame to most programs; files of every
// other format are one image at 0,0.
bool RecordsWindows(const std::string& format);

// Opens a file and reads its header only. `alpha` chooses the alpha channel: empty for the
// file's own (OpenImageIO's alpha_channel, or a channel named A or alpha), "none" for no
// alpha, else a channel name. Throws CliError(kExitIo) for a missing or unreadable file, one
// that is not a regular file, a cut-off or damaged PNG (its chunks are checked first), a DPX or
// TIFF shorter than its header declares, a file of several parts (named in the message), or
// an alpha name that is not a channel; CliError(kExitUsage) never.
InputImage OpenInputImage(const std::string& path, const std::string& alpha);

// The header of an image file that is whole (render --skip-existing): checked as OpenInputImage
// checks, an OpenEXR file's chunk table against its length too, and a file of a format with no
// such check by reading every pixel. Throws CliError(kExitIo) saying what is wrong.
OIIO::ImageSpec CheckWholeImage(const std::string& path);

// Every channel of the image, interleaved, in the host's sample type (8-bit, 16-bit file
// values, or float).
// Float images whose file holds half samples keep them as half (`half`): read and written
// without OpenImageIO widening the whole image into a buffer of its own, and converted a row
// at a time on the way into and out of the host's layer (half to float is exact; float to half
// rounds as OpenImageIO's writer does).
struct PixelBuffer {
  int width = 0, height = 0, channels = 0;
  Depth depth = Depth::k8;
  bool half = false;  // Depth::kFloat samples stored as half
  std::vector<uint8_t> bytes;
};
// The sample type of the buffer's bytes.
OIIO::TypeDesc SampleTypeOf(const PixelBuffer& px);
// True when a file's samples (its format and per-channel formats, as ImageSpec and OutputPlan
// hold them; none listed: all of the format) are all of `type`.
bool AllChannelsAre(OIIO::TypeDesc format, const std::vector<OIIO::TypeDesc>& channelFormats,
                    OIIO::TypeDesc type);
// True when every channel of the image is stored as half: ReadPixels(image, ..., true) keeps
// them so.
bool StoredAsHalf(const InputImage& image);
// Reads the pixels; closes the file. Throws CliError(kExitIo) on a failed read. `storage` is
// a buffer to read into (its bytes are overwritten), so that a sequence reuses its buffers:
// the first touch of fresh memory costs a page fault for every 4 KiB. `keepHalf`: an image
// StoredAsHalf is read as half.
PixelBuffer ReadPixels(InputImage& image, std::vector<uint8_t> storage = {},
                       bool keepHalf = false);
// One render through the effect: its filter, the file channels in the colour slots (-1: an
// empty slot, 0) and in the alpha slot (the image's alpha in every pass; -1: opaque), and
// whether the output's alpha channel is taken from this pass.
struct Pass {
  int filter = 0;
  int alpha = -1;
  int colour[3] = {-1, -1, -1};
  bool storesAlpha = false;
};
// The host world of one pass covering `layer` (layer coordinates), the pixels placed at
// (originX, originY) in it and transparent black around them; `reuse` is filled instead of a
// new world when it covers the same rectangle at the same depth.
std::unique_ptr<hostsim::World> PassLayer(const PixelBuffer& pixels, const Pass& pass,
                                          int originX, int originY, const PF_LRect& layer,
                                          std::unique_ptr<hostsim::World> reuse = nullptr);

// The output file's channels, decided from the input before any rendering: the input's
// channels in their order, with an alpha channel "A" added at the end when addAlpha is set
// and the input has none.
struct OutputLayout {
  int channels = 0;
  bool addedAlpha = false;
  int alphaIndex = -1;
  std::vector<std::string> names;
};
OutputLayout ChooseOutputLayout(const InputImage& input, bool addAlpha);

// The passes of an image whose output channel c is rendered with filters[c]: the non-alpha
// channels grouped by filter (groups in the order of their first channel, three channels a
// pass in file order); the output's alpha comes from the first pass of its own filter, or
// from a pass of its own when no other channel shares that filter.
std::vector<Pass> PlanPasses(const InputImage& input, const OutputLayout& layout,
                             const std::vector<int>& filters);

// An empty (zero) output buffer covering `window` (layer coordinates) in the input's host
// type (`half`: a float image's samples as half), in `storage` when given.
PixelBuffer NewOutputBuffer(const InputImage& input, const OutputLayout& layout,
                            const PF_LRect& window, std::vector<uint8_t> storage = {},
                            bool half = false);
// The buffer resampled to `width` columns (OpenImageIO's resize and its default filter for the
// scale), its rows unchanged: render --desqueeze.
PixelBuffer StretchWidth(const PixelBuffer& pixels, int width);

// Copies the channels of one pass from `rendered` (placed in the layer at its origin; may be
// null) into the output buffer covering `window`, its alpha slot when the pass stores alpha.
void StorePass(const InputImage& input, const OutputLayout& layout, const Pass& pass,
               const hostsim::World* rendered, const PF_LRect& window, PixelBuffer* out);

// Writes one image with `writer` (created for `path`; destroyed here) and fails
// (CliError(kExitIo)) on any failed write, also those the format's writer overlooks;
// `shownPath` names the file in messages. *writtenType receives the sample type the writer
// chose for the file.
void WriteImageFile(std::unique_ptr<OIIO::ImageOutput> writer, const std::string& path,
                    const std::string& shownPath, const OIIO::ImageSpec& spec,
                    OIIO::TypeDesc type, const void* pixels,
                    OIIO::TypeDesc* writtenType = nullptr);

// Turns OpenImageIO's message into one line that names the file.
std::string FileError(const std::string& path, const std::string& why);

}  // namespace veltrisca

#endif
