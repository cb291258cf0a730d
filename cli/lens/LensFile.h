// Lens files: the lens options of render, info and stmap as one JSON object, keyed by the
// options' long names in lower camel case ("distortion", "pixelAspect", "distortedSize"...).
// Options given on the command line override the file.
//
// Recorded lenses: render records the lens of each output in its header, as veltrisca:*
// attributes named by the same keys ("veltrisca:distortion"). A command reading an image that
// records a lens takes the lens from it for the options neither the command line nor --lens
// gives, and --lens takes such an image in place of a lens file.
#ifndef VT_CLI_LENSFILE_H
#define VT_CLI_LENSFILE_H

#include <OpenImageIO/imageio.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "cli/lens/LensOptions.h"

namespace veltrisca {

// Reads the lens file at `path` and copies each value into the field of `lens` whose option
// `givenOnCommandLine("--distortion")` reports as not given. Every value in the file is checked,
// taken or not. Returns the keys it took. A missing, unreadable or malformed file throws
// CliError(kExitIo) naming the file, and for a bad or unknown key, the key and its line.
// "comment" is allowed and ignored. `path` may also be an image that records a lens
// (ReadRecordedLens): then every key but "mode" is taken from the record, since the mode it
// records is what was done to that image, not what to do to another.
std::vector<std::string> MergeLensFile(
    const std::string& path, LensOptionText* lens,
    const std::function<bool(const std::string& option)>& givenOnCommandLine);

// The keys of the lens options given on the command line or taken from --lens (`taken`).
std::vector<std::string> GivenLensKeys(
    const std::function<bool(const std::string& option)>& givenOnCommandLine,
    const std::vector<std::string>& taken);

// The lens file of `settings` (every option; sizes only when set), with a "comment" member
// when `comment` is not empty; ends with a line break.
std::string LensFileText(const LensSettings& settings, const std::string& comment);

// The lens an image records, every key in lens-file form ("mode" "remove", "distortion" "-50",
// "distortedSize" "1920x1080"), in the order of a lens file.
struct RecordedLens {
  std::vector<std::pair<std::string, std::string>> values;
  std::string Value(const std::string& key) const;  // "" when absent
  // "remove, lanczos2, distortion -50.0, ..., undistorted-size 2000x1126"
  std::string Text() const;
  std::string LensFile() const;  // as a lens file (LensFileText)
};

// The veltrisca:* attributes that record `settings` and `sizes` in an output's header.
void RecordLens(const LensSettings& settings, const LensSizes& sizes,
                OIIO::ParamValueList* header);

// The lens `spec` records, or nullopt when it records none. Only a whole record counts: PNG,
// for one, keeps the text attributes alone. A recorded value of the wrong type or outside its
// option's range throws CliError(kExitIo) naming `path` and the attribute.
std::optional<RecordedLens> ReadRecordedLens(const OIIO::ImageSpec& spec,
                                             const std::string& path);

// The lens a command uses on an image. `given` holds the options given (lens.given names them)
// over the defaults. A record fills the options not given, in the mode that undoes what the
// record says was done (Apply on an image whose lens was removed) unless the mode is given, or
// --fit chooses Remove; a render in the recorded mode itself does not use the record. The
// size tied to the image (the undistorted size in Apply) stays its frame's, so the record
// gives the other: in Apply, the plate's frame.
struct ImageLens {
  LensOptionText lens;  // what the command uses; its `given` gains the keys the record gave
  std::vector<std::string> notes;  // one line each: "note: ..." or "warning: ..."
};
ImageLens LensForImage(const LensOptionText& given, const std::optional<RecordedLens>& recorded,
                       bool fit);

// True when two records hold the same lens: every key, numbers compared at the precision a
// record may hold (single precision). Else *difference names the first key that differs, with
// `recorded`'s value first ("distortion -30.0, not -50.0").
bool SameRecord(const RecordedLens& recorded, const RecordedLens& wanted, std::string* difference);

}  // namespace veltrisca

#endif
