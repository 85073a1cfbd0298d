// checkdsp: every DSP kernel variant this processor can run, against the
// plain reference form, on the same random inputs; and, with --bench, the
// time each variant takes on them. A mismatch is reported with the inputs
// that caused it and makes the run fail.
//
//   checkdsp [--bench] [--seed N] [--trials N] [--replay TRIAL_SEED]
#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "dsp/adpcm_search.h"
#include "dsp/qmf_kernel.h"
#include "dsp/quant_tables.h"

namespace {

using namespace tavrin;
using Rng = std::mt19937_64;

int failures = 0;

void fail(const char* kernel, const DspKernels& variant, std::uint64_t seed, const std::string& detail) {
  ++failures;
  std::printf("MISMATCH %s [%s] (trial seed %" PRIu64 "): %s\n", kernel, variant.name, seed, detail.c_str());
}

std::string list_of(const double* v, std::size_t n) {
  std::string s;
  char text[40];
  for (std::size_t i = 0; i < n; ++i) {
    std::snprintf(text, sizeof text, "%s%.17g", i ? ", " : "", v[i]);
    s += text;
  }
  return s;
}

// ---- inputs -----------------------------------------------------------------

struct QmfInput {
  std::vector<double> matrix = std::vector<double>(32 * 32);
  std::vector<double> in;
  std::vector<double> out;
  std::size_t count = 0, in_stride = 0, out_stride = 0;
  double scale = 1.0;
};

QmfInput qmf_input(Rng& rng) {
  std::uniform_real_distribution<double> value(-1.0, 1.0);
  QmfInput q;
  for (double& m : q.matrix) m = value(rng);
  q.count = 1 + rng() % 40;
  q.in_stride = q.count + rng() % 3;
  q.out_stride = q.count + rng() % 3;
  q.in.resize(32 * q.in_stride);
  q.out.resize(32 * q.out_stride);
  for (double& v : q.in) v = value(rng) * 4e4;
  for (double& v : q.out) v = value(rng);
  q.scale = value(rng);
  return q;
}

struct QuantInput {
  double x[8];
  double quantum = 1.0;
  unsigned abits = 8;
};

// Samples near the index range's ends and near halves between indexes,
// where the forms' shortcuts have to give way to the exact quotient.
QuantInput quant_input(Rng& rng) {
  QuantInput q;
  q.abits = 8 + rng() % 19;
  q.quantum = kScaleFactor6[rng() % kScaleFactor6Count] * kStepSize[q.abits];
  const double top = std::ldexp(1.0, static_cast<int>(q.abits) - 4);
  std::uniform_real_distribution<double> unit(-top - 2.0, top + 2.0);
  for (double& v : q.x) {
    double u = unit(rng);
    switch (rng() % 4) {
      case 0: u = std::floor(u) + 0.5; break;
      case 1: u = std::nextafter(std::floor(u) + 0.5, rng() % 2 ? 1e300 : -1e300); break;
      default: break;
    }
    v = u * q.quantum;
  }
  if (rng() % 50 == 0) q.x[rng() % 8] = std::numeric_limits<double>::quiet_NaN();
  return q;
}

struct ShortlistInput {
  double target[4];
  std::size_t length = 1;
};

// Targets anywhere in the table's range and right on its entries (where
// distances tie), with short and long lists.
ShortlistInput shortlist_input(Rng& rng) {
  const AdpcmSearchTable& t = adpcm_search_table();
  ShortlistInput s;
  std::uniform_real_distribution<double> value(-2.5, 2.5), tiny(-1e-9, 1e-9);
  const std::size_t near = rng() % kAdpcmVqEntries;
  for (std::size_t k = 0; k < 4; ++k) s.target[k] = rng() % 3 == 0 ? t.coef[k][near] + (rng() % 2 ? tiny(rng) : 0.0) : value(rng);
  // The whole table now and then: its reference costs a thousand short ones.
  const std::size_t lengths[] = {1, 2, 16, 17, 32, 64, 257};
  s.length = rng() % 64 == 0 ? kAdpcmVqEntries : lengths[rng() % std::size(lengths)];
  return s;
}

struct ResidualInput {
  double x[12];
  std::vector<std::uint16_t> list;
};

// Spans as the decisions see them (a tone with a little noise, at any
// level), silence and spikes, with lists of any length.
ResidualInput residual_input(Rng& rng) {
  ResidualInput r;
  std::uniform_real_distribution<double> unit(-1.0, 1.0);
  const double level = std::ldexp(1.0, static_cast<int>(rng() % 48) - 10);
  const double w = 3.1 * (unit(rng) + 1.0) / 2.0;
  for (std::size_t i = 0; i < 12; ++i) {
    switch (rng() % 8) {
      case 0: r.x[i] = 0.0; break;
      case 1: r.x[i] = level * 1e6 * unit(rng); break;
      default: r.x[i] = level * (std::sin(w * static_cast<double>(i)) + 0.01 * unit(rng)); break;
    }
  }
  r.list.resize(1 + rng() % 40);
  for (auto& v : r.list) v = static_cast<std::uint16_t>(rng() % kAdpcmVqEntries);
  return r;
}

// ---- checks -------------------------------------------------------------------

void check_qmf(const DspKernels& v, const DspKernels& ref, Rng& rng, std::uint64_t seed) {
  QmfInput q = qmf_input(rng);
  double a[32], b[32];
  ref.multiply(a, q.matrix.data(), q.in.data());
  v.multiply(b, q.matrix.data(), q.in.data());
  // The vector forms sum in another order: agreement to rounding is all
  // that is asked.
  for (std::size_t r = 0; r < 32; ++r) {
    double scale = 0.0;
    for (std::size_t c = 0; c < 32; ++c) scale += std::abs(q.matrix[r * 32 + c] * q.in[c]);
    if (std::abs(a[r] - b[r]) > 1e-13 * scale + 1e-300) {
      fail("qmf_multiply", v, seed, "row " + std::to_string(r) + ": " + list_of(&a[r], 1) + " vs " + list_of(&b[r], 1));
      return;
    }
  }
  std::vector<double> oa = q.out, ob = q.out;
  ref.multiply_batch(oa.data(), q.out_stride, q.matrix.data(), q.in.data(), q.in_stride, q.count, q.scale);
  v.multiply_batch(ob.data(), q.out_stride, q.matrix.data(), q.in.data(), q.in_stride, q.count, q.scale);
  for (std::size_t i = 0; i < oa.size(); ++i) {
    if (std::abs(oa[i] - ob[i]) > 1e-13 * (std::abs(oa[i]) + 32 * 4e4)) {
      fail("qmf_multiply_batch", v, seed,
           "count " + std::to_string(q.count) + ", element " + std::to_string(i) + ": " + list_of(&oa[i], 1) + " vs " +
               list_of(&ob[i], 1));
      return;
    }
  }
}

void check_quant(const DspKernels& v, const DspKernels& ref, Rng& rng, std::uint64_t seed) {
  const QuantInput q = quant_input(rng);
  const double a = ref.quantization_error8(q.x, q.quantum, 1.0 / q.quantum, q.abits);
  const double b = v.quantization_error8(q.x, q.quantum, 1.0 / q.quantum, q.abits);
  if (!(a == b || (std::isnan(a) && std::isnan(b)))) {
    fail("quantization_error8", v, seed,
         "x = {" + list_of(q.x, 8) + "}, quantum " + list_of(&q.quantum, 1) + ", abits " + std::to_string(q.abits) +
             ": " + list_of(&a, 1) + " vs " + list_of(&b, 1));
  }
}

void check_shortlist(const DspKernels& v, const DspKernels& ref, Rng& rng, std::uint64_t seed) {
  const ShortlistInput s = shortlist_input(rng);
  std::vector<std::uint16_t> a(s.length + 1), b(s.length + 1);
  AdpcmShortlistWork work;
  const std::size_t na = ref.adpcm_shortlist(s.target, s.length, a.data(), work);
  const std::size_t nb = v.adpcm_shortlist(s.target, s.length, b.data(), work);
  a.resize(na);
  b.resize(nb);
  if (a != b) {
    std::size_t at = 0;
    while (at < std::min(na, nb) && a[at] == b[at]) ++at;
    fail("adpcm_shortlist", v, seed,
         "target {" + list_of(s.target, 4) + "}, length " + std::to_string(s.length) + ": lists differ at " + std::to_string(at));
  }
}

void check_residuals(const DspKernels& v, const DspKernels& ref, Rng& rng, std::uint64_t seed) {
  const ResidualInput r = residual_input(rng);
  std::vector<double> a(r.list.size()), b(r.list.size());
  ref.adpcm_residuals(r.x, 12, r.list.data(), r.list.size(), a.data());
  v.adpcm_residuals(r.x, 12, r.list.data(), r.list.size(), b.data());
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i] != b[i]) {
      fail("adpcm_residuals", v, seed,
           "x = {" + list_of(r.x, 12) + "}, entry " + std::to_string(r.list[i]) + " (" + std::to_string(i) + " of " +
               std::to_string(r.list.size()) + "): " + list_of(&a[i], 1) + " vs " + list_of(&b[i], 1));
      return;
    }
  }
}

struct Kernel {
  const char* name;
  std::function<void(const DspKernels&, const DspKernels&, Rng&, std::uint64_t)> check;
  std::function<void(const DspKernels&, Rng&)> run_once;  // for timing
};

std::vector<Kernel> kernels() {
  return {
      {"qmf_multiply", check_qmf,
       [](const DspKernels& v, Rng& rng) {
         static QmfInput q = qmf_input(rng);
         double out[32];
         v.multiply(out, q.matrix.data(), q.in.data());
       }},
      {"quantization_error8", check_quant,
       [](const DspKernels& v, Rng& rng) {
         static QuantInput q = quant_input(rng);
         volatile double sink = v.quantization_error8(q.x, q.quantum, 1.0 / q.quantum, q.abits);
         (void)sink;
       }},
      {"adpcm_shortlist(16)", check_shortlist,
       [](const DspKernels& v, Rng& rng) {
         static std::vector<ShortlistInput> inputs = [&] {
           std::vector<ShortlistInput> all;
           for (int i = 0; i < 64; ++i) all.push_back(shortlist_input(rng));
           return all;
         }();
         static std::size_t next = 0;
         const ShortlistInput& s = inputs[next++ % inputs.size()];
         static AdpcmShortlistWork work;
         std::uint16_t out[17];
         v.adpcm_shortlist(s.target, 16, out, work);
       }},
      {"adpcm_residuals(16)", check_residuals,
       [](const DspKernels& v, Rng& rng) {
         static ResidualInput r = [&] {
           ResidualInput in = residual_input(rng);
           in.list.resize(16, 0);
           return in;
         }();
         double sums[16];
         v.adpcm_residuals(r.x, 12, r.list.data(), 16, sums);
       }},
  };
}

double time_ns(const std::function<void(const DspKernels&, Rng&)>& run_once, const DspKernels& v) {
  Rng rng(7);
  double best = 1e300;
  for (int rep = 0; rep < 5; ++rep) {
    constexpr int kCalls = 2000;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kCalls; ++i) run_once(v, rng);
    const std::chrono::duration<double, std::nano> took = std::chrono::steady_clock::now() - start;
    best = std::min(best, took.count() / kCalls);
  }
  return best;
}

}  // namespace

int main(int argc, char** argv) {
  bool bench = false;
  std::uint64_t seed = 1;
  int trials = 500;
  bool replay = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--bench") == 0) bench = true;
    else if (std::strcmp(argv[i], "--seed") == 0 && i + 1 < argc) seed = std::strtoull(argv[++i], nullptr, 10);
    else if (std::strcmp(argv[i], "--trials") == 0 && i + 1 < argc) trials = std::atoi(argv[++i]);
    else if (std::strcmp(argv[i], "--replay") == 0 && i + 1 < argc) {
      seed = std::strtoull(argv[++i], nullptr, 10);
      replay = true;
      trials = 1;
    }
    else {
      std::fprintf(stderr, "usage: checkdsp [--bench] [--seed N] [--trials N] [--replay TRIAL_SEED]\n");
      return 2;
    }
  }
  const DspKernels* reference = qmf_kernel_by_id(QmfKernelId::scalar);
  std::vector<const DspKernels*> variants;
  for (const QmfKernelId id : {QmfKernelId::scalar, QmfKernelId::sse2, QmfKernelId::avx2})
    if (const DspKernels* k = qmf_kernel_by_id(id)) variants.push_back(k);
  for (const Kernel& kernel : kernels()) {
    for (const DspKernels* v : variants) {
      const int before = failures;
      for (int t = 0; t < trials && failures - before < 5; ++t) {
        // Each trial has its own seed, printed with a mismatch, so that one
        // case can be replayed alone.
        const std::uint64_t trial_seed = replay ? seed : seed * 1000003u + static_cast<std::uint64_t>(t);
        Rng rng(trial_seed);
        kernel.check(*v, *reference, rng, trial_seed);
      }
      std::printf("%-27s %-7s %s", kernel.name, v->name, failures == before ? "ok" : "FAILED");
      if (bench) std::printf("  %10.1f ns/call", time_ns(kernel.run_once, *v));
      std::printf("\n");
    }
  }
  return failures == 0 ? 0 : 1;
}
