// One applied instance of the effect, driven through the substitute host the way the real host
// drives it: about, global setup, parameter setup, sequence setup, then smart pre-render and
// smart render, and sequence setdown at the end.
#ifndef VT_CLI_SESSION_EFFECTSESSION_H
#define VT_CLI_SESSION_EFFECTSESSION_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "hostsim/Host.h"
#include "hostsim/World.h"
#include "lens/LensData.h"

namespace veltrisca {

// What a smart pre-render left behind, read back from the host.
struct PreRenderReadBack {
  PF_LRect request{};               // the output rectangle asked of the effect
  VtAFXLensData lens{};             // the sequence data block after the command
  hostsim::PreRenderReport report;  // input request, supplied rectangle, pre-render output
};

// Where the tool looks for its plug-in when neither --plugin nor $VELTRISCA_PLUGIN names
// one, relative to its own executable: the installed layout, then the build tree's.
std::vector<std::string> PluginCandidates();
// The plug-in path: --plugin, else $VELTRISCA_PLUGIN, else the first candidate that exists;
// throws CliError(kExitEffect) naming the places it looked when none does.
std::string ResolvePluginPath(const std::string& option);
// The build identity the plug-in file at `path` carries (effect/host/BuildStamp.h); "" when
// it carries none.
std::string PluginBuildId(const std::string& path);
// Loads the plug-in; throws CliError(kExitEffect) with the loader's reason, or when the
// plug-in is not of the build whose code the tool links (its build identity differs): the tool
// maps positions (stmap, lens --from) and reads the lens record with its own copy.
std::unique_ptr<hostsim::PluginModule> LoadEffect(const std::string& path);
// "516 (PF_Err_BAD_CALLBACK_PARAM)".
std::string EffectErrorText(PF_Err err);

class EffectSession {
 public:
  // Sends about, global setup, parameter setup and sequence setup; throws CliError.
  EffectSession(const hostsim::PluginModule& module, const hostsim::ParamValues& params,
                int threads);
  ~EffectSession();
  EffectSession(const EffectSession&) = delete;
  EffectSession& operator=(const EffectSession&) = delete;

  // The effect's about text, as it wrote it.
  const std::string& about() const { return about_; }
  // The parameter values the next smart pre-render checks out (a pass's filter).
  void SetParams(const hostsim::ParamValues& params) { host_.params = params; }
  // The input layer (not owned; must outlive the session's renders).
  void SetInputLayer(const hostsim::World* layer) { host_.SetInputLayer(layer); }
  // Called on the render threads as rows are done (see hostsim::Host::rowProgress).
  void SetRowProgress(std::function<void(int64_t done, int64_t total)> progress) {
    host_.rowProgress = std::move(progress);
  }
  // Make the host supply this input rectangle instead of request ∩ layer.
  void OverrideSuppliedRect(const PF_LRect& rect) { host_.OverrideSuppliedRect(rect); }

  PreRenderReadBack PreRender(const PF_LRect& request);
  // Renders the frame of the last pre-render; the world is placed at result_rect. `reuse`, an
  // earlier output, is cleared and rendered into when it has the size the render needs.
  std::unique_ptr<hostsim::World> Render(std::unique_ptr<hostsim::World> reuse = nullptr);
  // Sequence setdown; the destructor does it too, silently, if this was not called.
  void Finish();

 private:
  void Check(const char* command, PF_Err err);

  hostsim::Host host_;
  std::string about_;
  bool sequenceUp_ = false;
};

}  // namespace veltrisca

#endif
