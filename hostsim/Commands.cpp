// The commands the substitute host sends: what it hands the effect for each one and what it
// keeps afterwards.
#include "hostsim/Host.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "hostsim/HostCallbacks.h"

namespace hostsim {

namespace {

struct FlagGuard {
  bool& flag;
  explicit FlagGuard(bool& f) : flag(f) { flag = true; }
  ~FlagGuard() { flag = false; }
};

std::string Hex(uint32_t v) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%X", v);
  return text;
}

}  // namespace

// --- Commands -------------------------------------------------------------------------
PF_Err Host::Send(PF_Cmd cmd, void* extra) {
  HostCallbacks::SetHandleCallbacks(&utils_, handleCallbacks);
  in_.pica_basicP = basicSuitePresent ? &basic_ : nullptr;
  HostCallbacks::Scope scope(this);
  // Parameter values reach the effect only through checkout_param; the params array and
  // the old-style output world are not handed over.
  return entry_(cmd, &in_, &out_, nullptr, nullptr, extra);
}

PF_Err Host::About() {
  out_.return_msg[0] = '\0';
  return Send(PF_Cmd_ABOUT);
}

PF_Err Host::GlobalSetup() {
  out_.my_version = 0;
  out_.out_flags = 0;
  out_.out_flags2 = 0;
  const PF_Err err = Send(PF_Cmd_GLOBAL_SETUP);
  globalOutFlags = static_cast<A_u_long>(out_.out_flags);
  globalOutFlags2 = static_cast<A_u_long>(out_.out_flags2);
  if (err != PF_Err_NONE || !description_) return err;

  std::string differences;
  auto compare = [&](const char* what, uint32_t reported, uint32_t described) {
    if (reported == described) return;
    if (!differences.empty()) differences += "; ";
    differences += std::string(what) + " " + Hex(reported) + " where the description says " +
                   Hex(described);
  };
  compare("my_version", out_.my_version, description_->version);
  compare("out_flags", static_cast<uint32_t>(out_.out_flags), description_->outFlags);
  compare("out_flags2", static_cast<uint32_t>(out_.out_flags2), description_->outFlags2);
  if (!differences.empty()) {
    throw DescriptionMismatch("plug-in \"" + description_->name + "\" does not match " +
                              description_->path + ": at global setup it reports " +
                              differences);
  }
  return err;
}

PF_Err Host::ParamsSetup() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    addedParams_.clear();
  }
  const PF_Err err = Send(PF_Cmd_PARAMS_SETUP);
  in_.num_params = out_.num_params;
  return err;
}

PF_Err Host::SequenceSetup() {
  const PF_Err err = Send(PF_Cmd_SEQUENCE_SETUP);
  in_.sequence_data = out_.sequence_data;
  return err;
}

PF_Err Host::SequenceResetup() {
  const PF_Err err = Send(PF_Cmd_SEQUENCE_RESETUP);
  in_.sequence_data = out_.sequence_data;
  return err;
}

PF_Err Host::SequenceSetdown() {
  const PF_Err err = Send(PF_Cmd_SEQUENCE_SETDOWN);
  // The instance is gone for the host, whatever the effect did with its handle (a handle
  // the effect did not free is freed with the host).
  in_.sequence_data = nullptr;
  out_.sequence_data = nullptr;
  return err;
}

void Host::ReleasePreRenderData() {
  if (lastPreRender_.delete_pre_render_data_func && lastPreRender_.pre_render_data) {
    HostCallbacks::Scope scope(this);
    lastPreRender_.delete_pre_render_data_func(lastPreRender_.pre_render_data);
  }
  lastPreRender_.pre_render_data = nullptr;
  lastPreRender_.delete_pre_render_data_func = nullptr;
}

PF_Err Host::SmartPreRender(const PF_LRect& request, PreRenderReport* report) {
  ReleasePreRenderData();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    paramCheckouts_.clear();
    // Each frame starts a new log, so that a long run of frames does not grow the host.
    suiteEvents_.clear();
  }
  preRender_ = PreRenderReport{};
  haveCheckout_ = false;
  checkedOutInput_.reset();
  checkedOutOutput_.reset();

  PF_PreRenderInput input{};
  input.output_request.rect = request;
  input.output_request.field = PF_Field_FRAME;
  input.output_request.channel_mask = kChannelMaskARGB;
  input.bitdepth = static_cast<short>(static_cast<int>(HostCallbacks::RenderDepth(this)));
  PF_PreRenderOutput output = preRenderOutputPreset;
  PF_PreRenderCallbacks callbacks{HostCallbacks::CheckoutLayer, HostCallbacks::GuidMixIn};
  PF_PreRenderExtra extra{&input, &output, &callbacks};
  preRender_.outputRequest = input.output_request;

  PF_Err err;
  {
    FlagGuard during(inPreRender_);
    err = Send(PF_Cmd_SMART_PRE_RENDER, &extra);
  }
  lastOutputRequest_ = input.output_request;
  lastPreRender_ = output;
  havePreRender_ = true;
  preRender_.output = output;
  if (report) *report = preRender_;
  return err;
}

PF_Err Host::SmartRender(std::unique_ptr<World>* output) {
  if (!havePreRender_) throw std::logic_error("SmartRender needs a SmartPreRender first");
  checkedOutInput_.reset();
  checkedOutOutput_.reset();
  if (reuseOutput && output) spareOutput_ = std::move(*output);

  PF_SmartRenderInput input{};
  input.output_request = lastOutputRequest_;
  input.bitdepth = static_cast<short>(static_cast<int>(HostCallbacks::RenderDepth(this)));
  input.pre_render_data = lastPreRender_.pre_render_data;
  PF_SmartRenderCallbacks callbacks{HostCallbacks::CheckoutLayerPixels,
                                    HostCallbacks::CheckinLayerPixels,
                                    HostCallbacks::CheckoutOutput};
  PF_SmartRenderExtra extra{&input, &callbacks};

  PF_Err err;
  {
    FlagGuard during(inRender_);
    err = Send(PF_Cmd_SMART_RENDER, &extra);
  }
  if (output) *output = std::move(checkedOutOutput_);
  checkedOutOutput_.reset();
  checkedOutInput_.reset();
  spareOutput_.reset();
  ReleasePreRenderData();
  return err;
}

}  // namespace hostsim
