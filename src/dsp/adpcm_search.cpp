#include "dsp/adpcm_search.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <utility>

#include "dsp/qmf_kernel.h"

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#endif

namespace tavrin {

namespace {

constexpr std::size_t kEntries = kAdpcmVqEntries;

// Splits entries [first, last) at the median of their widest coefficient
// until the parts are leaves.
void split(AdpcmSearchTable& t, std::uint16_t* first, std::uint16_t* last) {
  if (last - first <= static_cast<std::ptrdiff_t>(kAdpcmLeafSize)) return;
  std::size_t widest = 0;
  double widest_range = -1.0;
  for (std::size_t k = 0; k < 4; ++k) {
    const auto [lo, hi] = std::minmax_element(first, last, [&](std::uint16_t a, std::uint16_t b) {
      return t.coef[k][a] < t.coef[k][b];
    });
    const double range = t.coef[k][*hi] - t.coef[k][*lo];
    if (range > widest_range) {
      widest_range = range;
      widest = k;
    }
  }
  // Ties go by index, so the tree is the same wherever it is built.
  std::uint16_t* middle = first + (last - first) / 2;
  std::nth_element(first, middle, last, [&](std::uint16_t a, std::uint16_t b) {
    return t.coef[widest][a] < t.coef[widest][b] || (t.coef[widest][a] == t.coef[widest][b] && a < b);
  });
  split(t, first, middle);
  split(t, middle, last);
}

AdpcmSearchTable make_search_table() {
  AdpcmSearchTable t;
  for (std::size_t v = 0; v < kEntries; ++v)
    for (std::size_t k = 0; k < 4; ++k) t.coef[k][v] = kAdpcmVq[v][k] / 8192.0;
  std::iota(t.sorted_index.begin(), t.sorted_index.end(), std::uint16_t{0});
  split(t, t.sorted_index.data(), t.sorted_index.data() + kEntries);
  for (std::size_t i = 0; i < kEntries; ++i)
    for (std::size_t k = 0; k < 4; ++k) t.sorted[k][i] = t.coef[k][t.sorted_index[i]];
  for (std::size_t k = 0; k < 4; ++k) {
    for (std::size_t leaf = 0; leaf < kAdpcmLeaves; ++leaf) {
      const double* first = t.sorted[k].data() + leaf * kAdpcmLeafSize;
      const auto [lo, hi] = std::minmax_element(first, first + kAdpcmLeafSize);
      t.low[k][kAdpcmLeaves + leaf] = *lo;
      t.high[k][kAdpcmLeaves + leaf] = *hi;
    }
    for (std::size_t node = kAdpcmLeaves; node-- > 1;) {
      t.low[k][node] = std::min(t.low[k][2 * node], t.low[k][2 * node + 1]);
      t.high[k][node] = std::max(t.high[k][2 * node], t.high[k][2 * node + 1]);
    }
  }
  return t;
}

// Distances beyond this much over the list's bound cannot make the list,
// ties within the tolerance included.
double reach(double bound) { return bound * (1.0 + 2e-8) + 1e-24; }

double sorted_distance(const AdpcmSearchTable& t, const double* target, std::size_t i) {
  double sum = 0.0;
  for (std::size_t k = 0; k < 4; ++k) {
    const double diff = target[k] - t.sorted[k][i];
    sum += diff * diff;
  }
  return sum;
}

// The squared distance from target to the nearest point of a node's range:
// no entry of the node is nearer.
double node_floor(const AdpcmSearchTable& t, const double* target, std::size_t node) {
  double f = 0.0;
  for (std::size_t k = 0; k < 4; ++k) {
    const double gap = std::max(std::max(t.low[k][node] - target[k], target[k] - t.high[k][node]), 0.0);
    f += gap * gap;
  }
  return f;
}

int distance4_plain(const AdpcmSearchTable& t, const double* target, std::size_t i, double limit, double* d) {
  int mask = 0;
  for (std::size_t j = 0; j < 4; ++j) {
    d[j] = sorted_distance(t, target, i + j);
    mask |= (d[j] <= limit ? 1 : 0) << j;
  }
  return mask;
}

}  // namespace

const AdpcmSearchTable& adpcm_search_table() {
  static const AdpcmSearchTable table = make_search_table();
  return table;
}

double ShortlistBuilder::bound() const {
  return size == keep ? distance[keep - 1] : std::numeric_limits<double>::infinity();
}

void ShortlistBuilder::offer(std::uint16_t entry, double d) {
  std::size_t at = size;
  while (at > 0 && d < distance[at - 1] - std::max(1e-8 * std::max(std::abs(d), std::abs(distance[at - 1])), 1e-24))
    --at;
  if (at == keep) return;
  for (std::size_t i = size; i > at; --i) {
    index[i] = index[i - 1];
    distance[i] = distance[i - 1];
  }
  index[at] = entry;
  distance[at] = d;
  if (size < keep) ++size;
}

// Walks the tree nearer child first, skipping every node whose range puts
// all its entries beyond the list's reach, and keeps the best distances in
// a heap. The entries that could make the list are then offered in index
// order, as the reference scan offers them, which gives its list exactly.
std::size_t adpcm_shortlist_pruned(const double* target, std::size_t length, std::uint16_t* out,
                                   AdpcmShortlistWork& work, Distance4Fn distance4) {
  const AdpcmSearchTable& t = adpcm_search_table();
  const std::size_t keep = std::min(length, kEntries);
  auto& heap = work.heap;
  auto& offered = work.offered;
  heap.clear();
  offered.clear();
  const auto bound = [&] { return heap.size() < keep ? std::numeric_limits<double>::infinity() : heap.front(); };
  // Every entry within reach of the bound as it stands is kept as a
  // candidate; the bound only falls, so the final one sorts them out.
  const auto consider = [&](std::uint16_t entry, double d) {
    if (!(d <= reach(bound()))) return;
    offered.emplace_back(entry, d);
    if (heap.size() < keep) {
      heap.push_back(d);
      std::push_heap(heap.begin(), heap.end());
    } else if (d < heap.front()) {
      std::pop_heap(heap.begin(), heap.end());
      heap.back() = d;
      std::push_heap(heap.begin(), heap.end());
    }
  };
  double d[4];
  auto& stack = work.pending;
  stack.assign(1, {node_floor(t, target, 1), std::uint16_t{1}});
  while (!stack.empty()) {
    const auto [floor, node] = stack.back();
    stack.pop_back();
    if (floor > reach(bound())) continue;
    if (node >= kAdpcmLeaves) {
      const std::size_t first = (node - kAdpcmLeaves) * kAdpcmLeafSize;
      for (std::size_t i = first; i < first + kAdpcmLeafSize; i += 4) {
        const int mask = distance4(t, target, i, reach(bound()), d);
        for (std::size_t j = 0; mask >> j != 0; ++j)
          if ((mask >> j & 1) != 0) consider(t.sorted_index[i + j], d[j]);
      }
      continue;
    }
    const auto left = static_cast<std::uint16_t>(2 * node), right = static_cast<std::uint16_t>(left + 1);
    const double fl = node_floor(t, target, left), fr = node_floor(t, target, right);
    // The nearer child goes on top, so it is visited first.
    if (fl <= fr) {
      stack.emplace_back(fr, right);
      stack.emplace_back(fl, left);
    } else {
      stack.emplace_back(fl, left);
      stack.emplace_back(fr, right);
    }
  }
  const double limit = reach(bound());
  std::erase_if(offered, [limit](const auto& e) { return !(e.second <= limit); });
  std::sort(offered.begin(), offered.end());
  work.list_distance.resize(keep + 1);
  ShortlistBuilder list{out, work.list_distance.data(), 0, keep};
  for (const auto& [entry, distance] : offered) list.offer(entry, distance);
  return list.size;
}

std::size_t adpcm_shortlist_scalar(const double* target, std::size_t length, std::uint16_t* out,
                                   AdpcmShortlistWork& work) {
  const AdpcmSearchTable& t = adpcm_search_table();
  work.list_distance.resize(std::min(length, kEntries) + 1);
  ShortlistBuilder list{out, work.list_distance.data(), 0, std::min(length, kEntries)};
  for (std::size_t v = 0; v < kEntries; ++v) list.offer(static_cast<std::uint16_t>(v), adpcm_distance(t, target, v));
  return list.size;
}

void adpcm_residuals_scalar(const double* x, std::size_t n, const std::uint16_t* list, std::size_t count,
                            double* sums) {
  const AdpcmSearchTable& t = adpcm_search_table();
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint16_t v = list[i];
    const double c0 = t.coef[0][v], c1 = t.coef[1][v], c2 = t.coef[2][v], c3 = t.coef[3][v];
    double sum = 0.0;
    for (std::size_t j = 4; j < n; ++j) {
      const double e = x[j] - (c0 * x[j - 1] + c1 * x[j - 2] + c2 * x[j - 3] + c3 * x[j - 4]);
      sum += e * e;
    }
    sums[i] = sum;
  }
}

#if defined(__SSE2__) || defined(_M_X64)
// Two entries at a time, each lane with the reference's operations in its
// order.
void adpcm_residuals_sse2(const double* x, std::size_t n, const std::uint16_t* list, std::size_t count,
                          double* sums) {
  const AdpcmSearchTable& t = adpcm_search_table();
  std::size_t i = 0;
  for (; i + 2 <= count; i += 2) {
    __m128d c[4];
    for (std::size_t k = 0; k < 4; ++k) c[k] = _mm_set_pd(t.coef[k][list[i + 1]], t.coef[k][list[i]]);
    __m128d sum = _mm_setzero_pd();
    for (std::size_t j = 4; j < n; ++j) {
      __m128d p = _mm_mul_pd(c[0], _mm_set1_pd(x[j - 1]));
      p = _mm_add_pd(p, _mm_mul_pd(c[1], _mm_set1_pd(x[j - 2])));
      p = _mm_add_pd(p, _mm_mul_pd(c[2], _mm_set1_pd(x[j - 3])));
      p = _mm_add_pd(p, _mm_mul_pd(c[3], _mm_set1_pd(x[j - 4])));
      const __m128d e = _mm_sub_pd(_mm_set1_pd(x[j]), p);
      sum = _mm_add_pd(sum, _mm_mul_pd(e, e));
    }
    _mm_storeu_pd(sums + i, sum);
  }
  adpcm_residuals_scalar(x, n, list + i, count - i, sums + i);
}
#else
void adpcm_residuals_sse2(const double* x, std::size_t n, const std::uint16_t* list, std::size_t count,
                          double* sums) {
  adpcm_residuals_scalar(x, n, list, count, sums);
}
#endif

std::size_t adpcm_shortlist_sse2(const double* target, std::size_t length, std::uint16_t* out,
                                 AdpcmShortlistWork& work) {
  return adpcm_shortlist_pruned(target, length, out, work, distance4_plain);
}

}  // namespace tavrin
