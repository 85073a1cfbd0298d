#include "alloc/multichannel_encoder.h"

#include "alloc/plan_payload.h"
#include "bitstream/multichannel.h"

namespace tavrin {

MultichannelEncoderState open_multichannel_encoder(const MultichannelEncoderConfig& config) {
  MultichannelEncoderState state;
  if (config.layout.has_lfe) state.lfe = make_lfe_filter(config.stream.sample_rate);
  return state;
}

MultichannelFrame encode_multichannel_frame(const FrameRecord& record, const MultichannelEncoderConfig& config,
                                            MultichannelEncoderState& state) {
  const MultichannelFrameSetup setup =
      setup_multichannel_frame(config.layout, record.primary.size(), record.lfe != nullptr,
                               config.stream.sample_rate, config.stream.bitrate, record.frame_bytes);
  MultichannelFrame made;
  CoreFrame& frame = made.frame;
  frame.header = setup.header;

  const AllocationPlan plan = allocate(record.primary, setup.payload_budget, config.allocation, nullptr);
  frame.payload = payload_from_plan(record.primary, plan);
  for (const auto& sub : plan.subframes)
    for (const auto& bands : sub)
      for (const AllocationBand& band : bands) made.active_bands += band.abits != 0 ? 1u : 0u;

  if (record.lfe != nullptr) {
    frame.payload.lff = kMultichannelLff;
    const auto picks = filter_and_pick_lfe(state.lfe, record.lfe);
    for (std::size_t k = 0; k < frame.payload.subframes.size(); ++k)
      code_lfe_subframe(frame.payload.subframes[k], picks.data() + k * kLfeSamplesPerSubframe);
  }
  write_frame(frame, record.frame_bytes, FrameKind::multichannel);
  return made;
}

}  // namespace tavrin
