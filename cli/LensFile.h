// Lens files: the lens options of render, info and stmap as one JSON object, keyed by the
// options' long names in lower camel case ("distortion", "pixelAspect", "distortedSize"...).
// Options given on the command line override the file.
#ifndef VT_CLI_LENSFILE_H
#define VT_CLI_LENSFILE_H

#include <functional>
#include <string>
#include <vector>

#include "Options.h"

namespace veltrisca {

// Reads the lens file at `path` and copies each value into the field of `lens` whose option
// `givenOnCommandLine("--distortion")` reports as not given. Every value in the file is checked,
// taken or not. Returns the keys it took. A missing, unreadable or malformed file throws
// CliError(kExitIo) naming the file, and for a bad or unknown key, the key and its line.
// "comment" is allowed and ignored.
std::vector<std::string> MergeLensFile(
    const std::string& path, LensOptionText* lens,
    const std::function<bool(const std::string& option)>& givenOnCommandLine);

// The lens file of `settings` (every option; sizes only when set), with a "comment" member
// when `comment` is not empty; ends with a line break.
std::string LensFileText(const LensSettings& settings, const std::string& comment);

}  // namespace veltrisca

#endif
