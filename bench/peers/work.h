// The work that all stores do: the same seeded postings and the same seeded questions.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <span>
#include <vector>

struct posting {
  std::uint32_t term = 0;  // word 1; the words beside it are constant
  std::uint64_t id = 0;
};

// Term ascending, id descending: the order in which our store keeps them. The others keep ids rising, to
// which the order within a batch of distinct postings makes no difference that could be measured.
inline bool operator<(const posting &a, const posting &b) {
  return a.term != b.term ? a.term < b.term : a.id > b.id;
}

inline constexpr std::uint32_t term_count = 1'000'000;
inline constexpr std::size_t batch_size = 8192;
inline constexpr int terms_a_document = 100;

// Terms by Zipf's law with exponent 1, the frequent ones scattered over the range.
class zipf {
 public:
  zipf() : sums_(term_count) {
    double sum = 0;
    for (std::uint32_t rank = 0; rank < term_count; ++rank)
      sums_[rank] = sum += 1.0 / (rank + 1);
  }
  template <class Random>
  std::uint32_t operator()(Random &random) const {
    const double drawn = std::uniform_real_distribution<double>(0, sums_.back())(random);
    const auto rank = std::lower_bound(sums_.begin(), sums_.end(), drawn) - sums_.begin();
    return static_cast<std::uint32_t>(static_cast<std::uint64_t>(rank) * 7919 % term_count);
  }

 private:
  std::vector<double> sums_;
};

// Documents of 100 distinct terms each, ids rising from `first_id`.
class documents {
 public:
  documents(std::uint64_t seed, std::uint64_t first_id)
      : random_(seed), id_(first_id), last_with_(term_count) {}
  void append(std::vector<posting> &to) {
    for (int terms = 0; terms < terms_a_document;) {
      const std::uint32_t term = terms_(random_);
      if (last_with_[term] == id_) continue;
      last_with_[term] = id_;
      to.push_back({term, id_});
      ++terms;
    }
    ++id_;
  }

 private:
  std::mt19937_64 random_;
  zipf terms_;
  std::uint64_t id_;
  std::vector<std::uint64_t> last_with_;
};

// Sorts each batch.
inline void sort_batches(std::vector<posting> &postings) {
  for (std::size_t i = 0; i < postings.size(); i += batch_size)
    std::sort(
        postings.begin() + static_cast<std::ptrdiff_t>(i),
        postings.begin() + static_cast<std::ptrdiff_t>(std::min(postings.size(), i + batch_size)));
}

enum class spread { zipf, uniform };

// `count` postings, sorted batch by batch.
inline std::vector<posting> make_postings(spread how, std::size_t count) {
  constexpr std::uint64_t seed = 7;
  std::vector<posting> postings;
  postings.reserve(count + terms_a_document);
  if (how == spread::zipf) {
    documents source(seed, 1);
    while (postings.size() < count)
      source.append(postings);
  } else {
    std::mt19937_64 random(seed);
    while (postings.size() < count)
      postings.push_back({static_cast<std::uint32_t>(random() % term_count), random() | 1});
  }
  postings.resize(count);
  sort_batches(postings);
  return postings;
}

// Terms to ask for.
inline std::vector<std::uint32_t> make_questions(spread how, std::size_t count,
                                                 std::uint64_t seed) {
  std::mt19937_64 random(seed);
  const zipf by_zipf;
  std::vector<std::uint32_t> terms(count);
  for (std::uint32_t &term : terms)
    term =
        how == spread::zipf ? by_zipf(random) : static_cast<std::uint32_t>(random() % term_count);
  return terms;
}

// What all stores must agree on, in whatever order the ids come.
inline std::uint64_t checksum(std::uint32_t term, std::span<const std::uint64_t> ids) {
  std::uint64_t sum = 0;
  for (const std::uint64_t id : ids)
    sum += (id + term) * 0x9e3779b97f4a7c15ULL;
  return sum;
}
