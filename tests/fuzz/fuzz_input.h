// Pieces the fuzz targets share: reading a target's input as a script of
// bytes, numbers and length-prefixed strings, and one scratch state
// directory per run.
#ifndef VELT_TESTS_FUZZ_FUZZ_INPUT_H_
#define VELT_TESTS_FUZZ_FUZZ_INPUT_H_

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <string>

namespace velt_fuzz {

// Reads an input front to back; past its end every read gives zeros or
// empty strings. Thread-compatible.
class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  bool done() const { return at_ >= size_; }
  uint8_t byte() { return at_ < size_ ? data_[at_++] : 0; }
  // Little-endian.
  uint32_t u32() {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v |= static_cast<uint32_t>(byte()) << (8 * i);
    return v;
  }
  // A 2-byte length (little-endian) and that many bytes, or what is left.
  std::string bytes16() {
    size_t len = byte();
    len |= static_cast<size_t>(byte()) << 8;
    len = std::min(len, size_ - at_);
    std::string out(reinterpret_cast<const char*>(data_ + at_), len);
    at_ += len;
    return out;
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;
};

// A temporary directory made on first use and removed when the process
// exits (kept on the heap so that it outlives the static destructors that
// run before atexit's). Every call gives the same one.
inline const std::string& scratchDir() {
  static const std::string* dir = [] {
    std::string tmpl = std::string(std::filesystem::temp_directory_path()) + "/velt-fuzz-state-XXXXXX";
    if (mkdtemp(&tmpl[0]) == nullptr) {
      fprintf(stderr, "fuzz: cannot make a temporary directory\n");
      abort();
    }
    auto* made = new std::string(tmpl);
    atexit([] {
      std::error_code ec;
      std::filesystem::remove_all(scratchDir(), ec);
    });
    return made;
  }();
  return *dir;
}

}  // namespace velt_fuzz

#endif  // VELT_TESTS_FUZZ_FUZZ_INPUT_H_
