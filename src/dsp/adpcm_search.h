#pragma once
// The shortlist scan over the format's predictor table: the entries nearest
// to a least-squares predictor, in the order and with the ties of the
// reference scan (shortlist_adpcm_entries). It runs for every band that
// prediction might serve, so it has a pruned and vectorised form; every form
// gives the reference's list.
#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "dsp/adpcm_vq_table.h"

namespace tavrin {

inline constexpr std::size_t kAdpcmLeafSize = 16;
inline constexpr std::size_t kAdpcmLeaves = kAdpcmVqEntries / kAdpcmLeafSize;
inline constexpr std::size_t kAdpcmTreeNodes = 2 * kAdpcmLeaves;  // node 1 is the root; 0 is unused

// The table as the scans read it, made once: each coefficient (times 2^-13)
// in its own array, in index order; and again in the order of a k-d tree
// (split at the median of the widest coefficient down to leaves of 16
// entries), with the range each node's entries span, which bounds the
// distance of all of them at once. Node n has children 2n and 2n + 1; the
// leaves are nodes kAdpcmLeaves and up, in table order.
struct AdpcmSearchTable {
  std::array<std::array<double, kAdpcmVqEntries>, 4> coef{};
  std::array<std::array<double, kAdpcmVqEntries>, 4> sorted{};  // tree order
  std::array<std::uint16_t, kAdpcmVqEntries> sorted_index{};
  std::array<std::array<double, kAdpcmTreeNodes>, 4> low{}, high{};
};

const AdpcmSearchTable& adpcm_search_table();

// Room a scan reuses from call to call.
struct AdpcmShortlistWork {
  std::vector<double> heap;                               // the smallest distances so far (a max-heap)
  std::vector<std::pair<double, std::uint16_t>> pending;  // tree nodes still to visit, with their floors
  std::vector<std::pair<std::uint16_t, double>> offered;  // entries that may make the list
  std::vector<double> list_distance;  // the last list's distances, in its order
  std::vector<std::uint16_t> list;     // what select_pvq shortlisted last
};

// The growing shortlist. Entries are offered in index order; one goes
// before a kept one only when it is nearer by more than the tie tolerance
// (max(1e-8 * max(|d1|, |d2|), 1e-24)), and the list keeps its first
// `keep`. An entry at or beyond bound() can never enter.
struct ShortlistBuilder {
  std::uint16_t* index = nullptr;  // room for keep + 1
  double* distance = nullptr;      // room for keep + 1
  std::size_t size = 0;
  std::size_t keep = 0;

  double bound() const;
  void offer(std::uint16_t entry, double d);
};

// Squared distance of index-order entry v to target, summed in coefficient
// order from 0.
inline double adpcm_distance(const AdpcmSearchTable& t, const double* target, std::size_t v) {
  double d = 0.0;
  for (std::size_t k = 0; k < 4; ++k) {
    const double diff = target[k] - t.coef[k][v];
    d += diff * diff;
  }
  return d;
}

// The pruned scan with distances formed four at a time by `distance4`:
// d[0..3] for sorted entries i..i+3, with the reference's operations in its
// order, and a mask of those at or below `limit` (bit j for entry i + j).
using Distance4Fn = int (*)(const AdpcmSearchTable& t, const double* target, std::size_t i, double limit, double* d);
std::size_t adpcm_shortlist_pruned(const double* target, std::size_t length, std::uint16_t* out,
                                   AdpcmShortlistWork& work, Distance4Fn distance4);

}  // namespace tavrin
