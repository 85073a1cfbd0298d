#pragma once
// 32-band pseudo-QMF analysis. The bank is not designed directly: it is
// measured from the decoder's interpolation filter bank (running on its
// perfect-reconstruction prototype) as that bank's matched filter bank, so
// that what it produces is exactly what a decoder turns back into the input,
// 15 blocks (480 samples) later.
#include <array>
#include <cstddef>
#include <span>

#include "dsp/qmf_kernel.h"
#include "dsp/qmf_prototype.h"

namespace tavrin {

inline constexpr std::size_t kQmfBlocksPerFrame = 32;
inline constexpr std::size_t kQmfFrameSamples = kQmfBands * kQmfBlocksPerFrame;  // 1024
inline constexpr std::size_t kQmfPolyphaseBlocks = 16;
inline constexpr double kQmfBasisTolerance = 4e-8;
// Input level at which the derived bank's subband samples fit the decoder's
// integer domain: full scale 1.0 becomes 32768 * sqrt(2).
inline constexpr double kQmfInputScale = 46340.950011841574;

using QmfMatrix = std::array<double, kQmfBands * kQmfBands>;  // row-major
using QmfVector = std::array<double, kQmfBands>;
using QmfPrototype = std::span<const double, kQmfPrototypeTaps>;

// One channel's frame of subband samples: 32 time slots x 32 bands,
// sample of slot s and band b at [s*32 + b].
struct SubbandBlock {
  std::array<double, kQmfFrameSamples> samples{};
};

// The decoder's interpolation bank with its cosine modulation held as a
// dense matrix. Only used while a bank is derived.
struct QmfReferenceSynthesis {
  QmfMatrix modulation{};
  QmfMatrix inverse{};
  double inverse_error = 0.0;
  std::array<double, kQmfPrototypeTaps> history{};  // newest 32 values at 0..31
  QmfVector a{};
  QmfVector b{};
};

// Builds the modulation matrix and checks that it inverts cleanly
// ("DTS QMF modulation matrix is singular",
//  "DTS QMF modulation inverse failed validation").
QmfReferenceSynthesis make_qmf_reference_synthesis(const QmfKernel& kernel);

// One interpolation step: 32 subband values in, 32 PCM samples out.
void qmf_synthesis_step(QmfReferenceSynthesis& synthesis, QmfPrototype prototype, const QmfKernel& kernel,
                        const double* subbands, double* pcm);

struct QmfAnalysisBank {
  std::array<QmfMatrix, kQmfPolyphaseBlocks> polyphase{};  // M_0..M_15, row = band
  std::array<QmfVector, kQmfPolyphaseBlocks> history{};    // ring of input blocks
  unsigned position = 0;                                   // slot of the next block
  double gain = 1.0;
  double max_basis_error = 0.0;

  // Derives the bank from the compiled-in prototype with the process-wide kernel.
  QmfAnalysisBank();
  // Derives it from the given prototype (lets a damaged table be tried).
  QmfAnalysisBank(QmfPrototype prototype, const QmfKernel& kernel);
};

// The derivation itself: matched bank, normalisation and basis validation.
// Leaves the history as it found it.
void derive_qmf_analysis_bank(QmfAnalysisBank& bank, QmfPrototype prototype, const QmfKernel& kernel);

// Analyses one block of 32 samples already at the bank's input scale.
QmfVector analyse_block(QmfAnalysisBank& bank, const double* block);
QmfVector analyse_block(QmfAnalysisBank& bank, const double* block, const QmfKernel& kernel);

// Analyses one frame of 1024 samples at full scale 1.0 ("null PCM input").
SubbandBlock analyse_frame(QmfAnalysisBank& bank, const double* pcm);
SubbandBlock analyse_frame(QmfAnalysisBank& bank, const double* pcm, const QmfKernel& kernel);

}  // namespace tavrin
