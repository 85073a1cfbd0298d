#include "dsp/qmf.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <stdexcept>
#include <utility>

namespace tavrin {

namespace {

constexpr std::size_t kN = kQmfBands;
constexpr std::size_t kHalf = kN / 2;
constexpr std::size_t kSynthesisSteps = 2 * kQmfPolyphaseBlocks - 1;  // 31

// The decoder's cosine modulation of 32 subband values into 32 FIR inputs.
// The cosines are tabulated once per matrix: building the matrix column by
// column would otherwise cost some 16,000 cosine calls.
struct ModulationTables {
  std::array<std::array<double, kHalf>, kHalf> odd{};   // cos((2i+1)(2k+1)pi/64)
  std::array<std::array<double, kHalf>, kHalf> even{};  // cos(i(2k+1)pi/32)
  std::array<double, kHalf> sum_scale{};
  std::array<double, kHalf> difference_scale{};
};

ModulationTables modulation_tables() {
  const double pi = std::numbers::pi;
  ModulationTables t;
  for (std::size_t k = 0; k < kHalf; ++k) {
    const double kk = static_cast<double>(2 * k + 1);
    for (std::size_t i = 0; i < kHalf; ++i) {
      t.odd[k][i] = std::cos(static_cast<double>(2 * i + 1) * kk * pi / 64.0);
      t.even[k][i] = std::cos(static_cast<double>(i) * kk * pi / 32.0);
    }
    t.sum_scale[k] = 0.25 / (2.0 * std::cos(kk * pi / 128.0));
    t.difference_scale[k] = -0.25 / (2.0 * std::sin(kk * pi / 128.0));
  }
  return t;
}

QmfVector modulate(const ModulationTables& t, const QmfVector& s) {
  QmfVector x{};
  for (std::size_t k = 0; k < kHalf; ++k) {
    double a = 0.0;
    for (std::size_t i = 0; i < kHalf; ++i) a += (s[2 * i] + s[2 * i + 1]) * t.odd[k][i];
    double b = s[0] * std::cos(0.0);
    for (std::size_t i = 1; i < kHalf; ++i) b += (s[2 * i] + s[2 * i - 1]) * t.even[k][i];
    x[k] = (a + b) * t.sum_scale[k];
    x[kN - 1 - k] = (a - b) * t.difference_scale[k];
  }
  return x;
}

// Gauss-Jordan on [C | I] with partial pivoting.
QmfMatrix invert(const QmfMatrix& c) {
  std::array<std::array<double, 2 * kN>, kN> aug{};
  for (std::size_t r = 0; r < kN; ++r) {
    for (std::size_t k = 0; k < kN; ++k) aug[r][k] = c[r * kN + k];
    aug[r][kN + r] = 1.0;
  }
  for (std::size_t col = 0; col < kN; ++col) {
    std::size_t pivot = col;
    for (std::size_t r = col + 1; r < kN; ++r)
      if (std::fabs(aug[r][col]) > std::fabs(aug[pivot][col])) pivot = r;
    if (std::fabs(aug[pivot][col]) < 1e-14) throw std::runtime_error("DTS QMF modulation matrix is singular");
    std::swap(aug[pivot], aug[col]);
    const double scale = 1.0 / aug[col][col];
    for (double& v : aug[col]) v *= scale;
    for (std::size_t r = 0; r < kN; ++r) {
      if (r == col) continue;
      const double factor = aug[r][col];
      if (std::fabs(factor) < 1e-20) continue;
      for (std::size_t k = 0; k < 2 * kN; ++k) aug[r][k] -= factor * aug[col][k];
    }
  }
  QmfMatrix inverse{};
  for (std::size_t r = 0; r < kN; ++r)
    for (std::size_t k = 0; k < kN; ++k) inverse[r * kN + k] = aug[r][kN + k];
  return inverse;
}

void check_prototype(QmfPrototype h) {
  for (std::size_t i = 0; i < h.size(); ++i)
    if (std::fabs(h[i] + h[h.size() - 1 - i]) > 1e-18)
      throw std::runtime_error("DTS perfect-reconstruction FIR table validation failed");
}

// A fresh synthesis fed the unit vector of `band` and then silence; returns
// its first `steps` output blocks.
// `pristine` is a just-built synthesis: every construction yields the same
// matrices, so copying one is the same as building anew, without 66 inversions.
std::array<QmfVector, kSynthesisSteps> impulse_response(const QmfReferenceSynthesis& pristine, QmfPrototype h,
                                                        const QmfKernel& kernel, std::size_t band, std::size_t steps) {
  check_prototype(h);
  QmfReferenceSynthesis synthesis = pristine;
  std::array<QmfVector, kSynthesisSteps> blocks{};
  QmfVector input{};
  for (std::size_t t = 0; t < steps; ++t) {
    input.fill(0.0);
    if (t == 0) input[band] = 1.0;
    qmf_synthesis_step(synthesis, h, kernel, input.data(), blocks[t].data());
  }
  return blocks;
}

// gain * sum over t of M_t * s_{15-t}: the analysis of a synthesised impulse
// at the block where it should reappear.
QmfVector analyse_response(const QmfAnalysisBank& bank, const QmfKernel& kernel,
                           const std::array<QmfVector, kSynthesisSteps>& s) {
  QmfVector sum{};
  QmfVector y{};
  for (std::size_t t = 0; t < kQmfPolyphaseBlocks; ++t) {
    kernel.multiply(y.data(), bank.polyphase[t].data(), s[kQmfPolyphaseBlocks - 1 - t].data());
    for (std::size_t r = 0; r < kN; ++r) sum[r] += bank.gain * y[r];
  }
  return sum;
}

}  // namespace

QmfReferenceSynthesis make_qmf_reference_synthesis(const QmfKernel& kernel) {
  QmfReferenceSynthesis synthesis;
  const ModulationTables tables = modulation_tables();
  QmfVector unit{};
  for (std::size_t k = 0; k < kN; ++k) {
    unit.fill(0.0);
    unit[k] = 1.0;
    const QmfVector column = modulate(tables, unit);
    for (std::size_t r = 0; r < kN; ++r) synthesis.modulation[r * kN + k] = column[r];
  }
  synthesis.inverse = invert(synthesis.modulation);
  QmfVector column{};
  QmfVector product{};
  for (std::size_t k = 0; k < kN; ++k) {
    for (std::size_t r = 0; r < kN; ++r) column[r] = synthesis.inverse[r * kN + k];
    kernel.multiply(product.data(), synthesis.modulation.data(), column.data());
    for (std::size_t r = 0; r < kN; ++r)
      synthesis.inverse_error = std::max(synthesis.inverse_error, std::fabs(product[r] - (r == k ? 1.0 : 0.0)));
  }
  if (synthesis.inverse_error > 1e-10) throw std::runtime_error("DTS QMF modulation inverse failed validation");
  return synthesis;
}

void qmf_synthesis_step(QmfReferenceSynthesis& synthesis, QmfPrototype h, const QmfKernel& kernel,
                        const double* subbands, double* pcm) {
  auto& hist = synthesis.history;
  kernel.multiply(hist.data(), synthesis.modulation.data(), subbands);
  for (std::size_t i = 0; i < kN; ++i) {
    for (std::size_t m = 0; m < 8; ++m) {
      const std::size_t j = i + 64 * m;
      const std::size_t mirror = kN - 1 - i + 64 * m;
      synthesis.a[i] += (hist[j] - hist[mirror]) * h[j];
      synthesis.b[i] += (-hist[j] - hist[mirror]) * h[j + 32];
    }
  }
  std::copy(synthesis.a.begin(), synthesis.a.end(), pcm);
  std::copy_backward(hist.begin(), hist.end() - kN, hist.end());
  synthesis.a = synthesis.b;
  synthesis.b.fill(0.0);
}

void derive_qmf_analysis_bank(QmfAnalysisBank& bank, QmfPrototype h, const QmfKernel& kernel) {
  const QmfReferenceSynthesis pristine = make_qmf_reference_synthesis(kernel);
  // Impulse responses S_t[j][k] and their matched (transposed, time-reversed) bank.
  for (std::size_t k = 0; k < kN; ++k) {
    const auto s = impulse_response(pristine, h, kernel, k, kQmfPolyphaseBlocks);
    for (std::size_t t = 0; t < kQmfPolyphaseBlocks; ++t)
      for (std::size_t j = 0; j < kN; ++j) bank.polyphase[kQmfPolyphaseBlocks - 1 - t][k * kN + j] = s[t][j];
  }

  bank.gain = 1.0;
  const QmfVector a = analyse_response(bank, kernel, impulse_response(pristine, h, kernel, 0, kSynthesisSteps));
  if (std::fabs(a[0]) < 1e-15) throw std::runtime_error("DTS QMF analysis normalization could not be derived");
  bank.gain = 1.0 / a[0];
  bank.max_basis_error = 0.0;

  for (std::size_t k = 0; k < kN; ++k) {
    const QmfVector out = analyse_response(bank, kernel, impulse_response(pristine, h, kernel, k, kSynthesisSteps));
    for (std::size_t r = 0; r < kN; ++r)
      bank.max_basis_error = std::max(bank.max_basis_error, std::fabs(out[r] - (r == k ? 1.0 : 0.0)));
  }
  if (bank.max_basis_error > kQmfBasisTolerance)
    throw std::runtime_error("DTS QMF derived analysis bank failed basis validation");
}

namespace {
// Every stream's banks derive to the same matrices; deriving once per
// process keeps opening a stream cheap (it dominated short encodes).
const QmfAnalysisBank& default_bank() {
  static const QmfAnalysisBank bank(qmf_perfect_prototype(), qmf_kernel());
  return bank;
}
}  // namespace

QmfAnalysisBank::QmfAnalysisBank() : QmfAnalysisBank(default_bank()) {}

QmfAnalysisBank::QmfAnalysisBank(QmfPrototype prototype, const QmfKernel& kernel) {
  derive_qmf_analysis_bank(*this, prototype, kernel);
  for (auto& block : history) block.fill(0.0);
  position = 0;
}

QmfVector analyse_block(QmfAnalysisBank& bank, const double* block) { return analyse_block(bank, block, qmf_kernel()); }

QmfVector analyse_block(QmfAnalysisBank& bank, const double* block, const QmfKernel& kernel) {
  std::copy(block, block + kN, bank.history[bank.position].begin());
  QmfVector out{};
  QmfVector y{};
  for (std::size_t t = 0; t < kQmfPolyphaseBlocks; ++t) {
    const std::size_t slot = (bank.position + kQmfPolyphaseBlocks - t) % kQmfPolyphaseBlocks;
    kernel.multiply(y.data(), bank.polyphase[t].data(), bank.history[slot].data());
    for (std::size_t r = 0; r < kN; ++r) out[r] += bank.gain * y[r];
  }
  bank.position = (bank.position + 1) % kQmfPolyphaseBlocks;
  return out;
}

SubbandBlock analyse_frame(QmfAnalysisBank& bank, const double* pcm) { return analyse_frame(bank, pcm, qmf_kernel()); }

SubbandBlock analyse_frame(QmfAnalysisBank& bank, const double* pcm, const QmfKernel& kernel) {
  if (pcm == nullptr) throw std::invalid_argument("null PCM input");
  constexpr std::size_t kPast = kQmfPolyphaseBlocks - 1;     // 15 blocks still in reach
  constexpr std::size_t kColumns = kPast + kQmfBlocksPerFrame + 1;  // padded to 48
  // The 15 remembered blocks and the frame's 32, one block per column: each
  // M_t then multiplies all 32 of its blocks as one 32 x 32 by 32 x 32 product,
  // a contiguous window shifted by t columns.
  alignas(64) std::array<double, kN * kColumns> columns{};
  for (std::size_t b = 0; b < kPast; ++b) {
    const QmfVector& block = bank.history[(bank.position + 1 + b) % kQmfPolyphaseBlocks];
    for (std::size_t c = 0; c < kN; ++c) columns[c * kColumns + b] = block[c];
  }
  for (std::size_t j = 0; j < kQmfBlocksPerFrame; ++j)
    for (std::size_t c = 0; c < kN; ++c) columns[c * kColumns + kPast + j] = pcm[j * kN + c] * kQmfInputScale;

  alignas(64) std::array<double, kN * kQmfBlocksPerFrame> sum{};  // [band][slot]
  for (std::size_t t = 0; t < kQmfPolyphaseBlocks; ++t)
    kernel.multiply_batch(sum.data(), kQmfBlocksPerFrame, bank.polyphase[t].data(), columns.data() + (kPast - t),
                          kColumns, kQmfBlocksPerFrame, bank.gain);

  SubbandBlock out;
  for (std::size_t r = 0; r < kN; ++r)
    for (std::size_t j = 0; j < kQmfBlocksPerFrame; ++j) out.samples[j * kN + r] = sum[r * kQmfBlocksPerFrame + j];

  // The last 16 blocks become the history; 32 blocks bring the ring back to
  // the same position.
  for (std::size_t j = kQmfBlocksPerFrame - kQmfPolyphaseBlocks; j < kQmfBlocksPerFrame; ++j) {
    QmfVector& slot = bank.history[(bank.position + j) % kQmfPolyphaseBlocks];
    for (std::size_t c = 0; c < kN; ++c) slot[c] = columns[c * kColumns + kPast + j];
  }
  return out;
}

}  // namespace tavrin
