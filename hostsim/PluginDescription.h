// What the host knows of a plug-in before it runs any of its code: the description file
// installed beside the shared library (VeltriscaDistortion.so has
// VeltriscaDistortion.plugin). It is the Linux counterpart of the property-list resource
// that the macOS host reads, and holds one key=value pair per line:
//
//   name=Veltrisca Distortion          the name the host lists the effect under
//   match_name=...                     the constant identifier projects store
//   category=...                       the effect menu the effect appears in
//   entry_point=EntryPointFunc         the exported function the host calls
//   version=0x90001                    must equal my_version reported at global setup
//   out_flags=0x2000040                must equal out_flags reported at global setup
//   out_flags2=0x1409                  must equal out_flags2 reported at global setup
//
// Blank lines and lines starting with '#' are ignored; spaces around keys and values are
// trimmed; numbers are decimal, or hexadecimal with 0x. Every key is required, exactly once;
// an unknown key is an error (a misspelt key must not pass silently).
#ifndef VT_HOSTSIM_PLUGINDESCRIPTION_H
#define VT_HOSTSIM_PLUGINDESCRIPTION_H

#include <cstdint>
#include <stdexcept>
#include <string>

namespace hostsim {

struct PluginDescription {
  std::string path;  // the file it was read from
  std::string name;
  std::string matchName;
  std::string category;
  std::string entryPoint;
  uint32_t version = 0;
  uint32_t outFlags = 0;
  uint32_t outFlags2 = 0;
};

// Parses description text; `origin` names it in error messages ("file:line: ...").
// Throws std::runtime_error on any malformed, missing, repeated or unknown entry.
PluginDescription ParsePluginDescription(const std::string& text, const std::string& origin);
// Reads and parses a description file; throws std::runtime_error naming the path when the
// file cannot be read.
PluginDescription ReadPluginDescription(const std::string& path);
// The description path that belongs to a plug-in library: the library's path with its
// extension replaced by ".plugin" (appended when it has none).
std::string DescriptionPathFor(const std::string& modulePath);

// Thrown by Host::GlobalSetup when what the effect reports differs from its description.
class DescriptionMismatch : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace hostsim

#endif
