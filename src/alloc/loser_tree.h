#pragma once
#include <bit>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace tavrin {

// The greedy allocation searches keep their candidates in a loser tree over
// the bands (or units): each inner node holds the loser of the match played
// there, the root slot the overall winner, which is the best pending step.
// Taking a step changes only the winner's key, and replaying its path
// restores the tree; the nodes on that path are known before any comparison,
// so the loads do not wait on each other as a heap's descent or a winner
// tree's sibling look-ups do, and no stale entries pile up as in a heap
// whose entries cannot be updated in place. The order is a max-heap's:
// larger gain first, then the lower leaf.
struct LoserTree {
  struct Entry {
    std::uint64_t key = 0;  // 0 once the band has no step left
    std::uint32_t band = 0;
  };
  std::size_t leaves = 1;    // power of two >= band count
  std::vector<Entry> node;   // [0]: the winner; [1, leaves): losers

  // Orders gains as unsigned integers: sign bit flipped for positives, all
  // bits for negatives, and -0 first made +0 so that it ties with +0 as in
  // a floating-point comparison. Every gain maps above 0, the key of a band
  // that has left the search.
  static std::uint64_t key_of(double gain) {
    const auto bits = std::bit_cast<std::uint64_t>(gain + 0.0);
    return (bits >> 63) != 0 ? ~bits : bits | (std::uint64_t{1} << 63);
  }
  static bool beats(const Entry& a, const Entry& b) { return a.key > b.key || (a.key == b.key && a.band < b.band); }

  void build(const std::vector<std::uint64_t>& keys) {
    leaves = 1;
    while (leaves < keys.size()) leaves *= 2;
    // Winners of every subtree, bottom-up; the losers stay in the nodes.
    std::vector<Entry> win(2 * leaves);
    for (std::size_t i = 0; i < leaves; ++i)
      win[leaves + i] = {i < keys.size() ? keys[i] : 0, static_cast<std::uint32_t>(i)};
    node.assign(leaves, Entry{});
    for (std::size_t k = leaves; k-- > 1;) {
      const Entry& l = win[2 * k];
      const Entry& r = win[2 * k + 1];
      const bool left_wins = beats(l, r) || !beats(r, l);
      win[k] = left_wins ? l : r;
      node[k] = left_wins ? r : l;
    }
    node[0] = win[1];
  }
  // The winner's key changed: replay its matches up to the root.
  void replay(std::uint64_t key) {
    Entry current{key, node[0].band};
    for (std::size_t k = (leaves + current.band) / 2; k >= 1; k /= 2) {
      if (beats(node[k], current)) std::swap(node[k], current);
    }
    node[0] = current;
  }
};

}  // namespace tavrin
