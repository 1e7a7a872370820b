// Runs a libFuzzer target without libFuzzer, as a bounded CTest test: every
// file named on the command line, or found in a directory named there (the
// target's seed corpus), then
// pseudo-random and mutated inputs from a fixed seed for at most the given
// number of seconds. With clang, the same targets build against libFuzzer
// (VELT_BUILD_FUZZ=ON) for longer runs on demand.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

static double secondsSince(const timespec& t0) {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (now.tv_sec - t0.tv_sec) + (now.tv_nsec - t0.tv_nsec) / 1e9;
}

int main(int argc, char** argv) {
  double budget = 5.0;
  unsigned long maxLen = 4096;
  std::vector<std::vector<uint8_t>> corpus;
  for (int i = 1; i < argc; ++i) {
    if (strncmp(argv[i], "-max_total_time=", 16) == 0) {
      budget = atof(argv[i] + 16);
    } else if (strncmp(argv[i], "-max_len=", 9) == 0) {
      maxLen = strtoul(argv[i] + 9, nullptr, 10);
    } else {
      std::vector<std::string> files;
      std::error_code ec;
      if (std::filesystem::is_directory(argv[i], ec)) {
        for (const auto& e : std::filesystem::directory_iterator(argv[i], ec)) {
          if (e.is_regular_file()) files.push_back(e.path().string());
        }
        std::sort(files.begin(), files.end());  // the same order on every run
        if (files.empty()) {
          fprintf(stderr, "no corpus files in %s\n", argv[i]);
          return 1;
        }
      } else {
        files.push_back(argv[i]);
      }
      for (const std::string& file : files) {
        std::ifstream in(file, std::ios::binary);
        if (!in) {
          fprintf(stderr, "cannot read corpus file %s\n", file.c_str());
          return 1;
        }
        corpus.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
      }
    }
  }
  for (auto& c : corpus) LLVMFuzzerTestOneInput(c.data(), c.size());
  if (corpus.empty()) corpus.push_back({});

  std::mt19937_64 rng(20261121);
  timespec t0;
  clock_gettime(CLOCK_MONOTONIC, &t0);
  unsigned long runs = 0;
  while (secondsSince(t0) < budget) {
    std::vector<uint8_t> input = corpus[rng() % corpus.size()];
    switch (rng() % 3) {
      case 0:  // fresh random bytes
        input.resize(rng() % (maxLen + 1));
        for (auto& b : input) b = static_cast<uint8_t>(rng());
        break;
      case 1:  // flip a few bytes of a corpus entry
        for (int k = 0, n = 1 + rng() % 8; k < n && !input.empty(); ++k)
          input[rng() % input.size()] = static_cast<uint8_t>(rng());
        break;
      default:  // cut or extend a corpus entry
        input.resize(rng() % (maxLen + 1), static_cast<uint8_t>(rng()));
        break;
    }
    LLVMFuzzerTestOneInput(input.data(), input.size());
    ++runs;
  }
  printf("fuzz: %lu inputs in %.1f s, no findings\n", runs, secondsSince(t0));
  return 0;
}
