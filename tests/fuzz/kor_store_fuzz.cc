// Feeds arbitrary bytes to the KOR resources file: as a whole file (through
// decode, and now and then through a real file in a temporary state
// directory), and as a payload behind a correct header so that the image
// checks are reached. Nothing may crash; whatever is accepted must be a
// valid image that survives a save and a load unchanged, and damaged files
// set aside must never pile up.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/stubs/logging.h>

#include "fuzz_input.h"
#include "kor_resources.h"
#include "kor_store.h"
#include "state_files.h"
#include "velt.pb.h"

namespace {

using velt::agent::KorResources;
using velt::agent::KorStore;

[[noreturn]] void fail(const char* what) {
  fprintf(stderr, "kor_store_fuzz: %s\n", what);
  abort();
}

std::string canonical(const velt::proto::KorImage& image) {
  velt::proto::KorImage copy = image;
  copy.DiscardUnknownFields();
  std::string out;
  {
    google::protobuf::io::StringOutputStream stream(&out);
    google::protobuf::io::CodedOutputStream coded(&stream);
    coded.SetSerializationDeterministic(true);
    copy.SerializeToCodedStream(&coded);
  }
  return out;
}

// What every accepted image must satisfy.
void checkAccepted(const velt::proto::KorImage& image) {
  std::string why;
  if (!KorResources::validImage(image, &why)) fail("accepted an invalid image");
  // The file's bytes decode to the same image.
  velt::proto::KorImage again;
  if (KorStore::decode(KorStore::encode(image), &again, &why) != 0) fail("encode/decode lost it");
  if (canonical(again) != canonical(image)) fail("encode/decode changed it");
  // The state holding it gives it back as it was (it is canonical).
  KorResources state;
  if (state.adopt({&image}) != 0) fail("adopt refused a valid image");
  if (canonical(state.image()) != canonical(image)) fail("adopt changed a valid image");
}

void checkSetAsideBound() {
  size_t aside = 0;
  for (const auto& e : std::filesystem::directory_iterator(velt_fuzz::scratchDir())) {
    if (e.path().filename().string().rfind("kor-resources.bad.", 0) == 0) ++aside;
  }
  if (aside > velt::agent::kMaxSetAsideFiles) fail("more set-aside files than the bound");
}

void throughFile(const std::string& bytes) {
  const std::string path = velt_fuzz::scratchDir() + "/" + velt::agent::kKorStoreFileName;
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) fail("cannot write the file");
  if (!bytes.empty() && fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) {
    fail("cannot write the file");
  }
  fclose(f);
  velt::proto::KorImage image;
  std::string why;
  switch (KorStore::load(velt_fuzz::scratchDir(), &image, &why)) {
    case KorStore::Load::kLoaded: {
      checkAccepted(image);
      velt::proto::KorImage decoded;
      if (KorStore::decode(bytes, &decoded, &why) != 0) fail("load and decode disagree");
      if (KorStore::save(velt_fuzz::scratchDir(), image, &why) != 0) fail("cannot save what was loaded");
      velt::proto::KorImage reloaded;
      if (KorStore::load(velt_fuzz::scratchDir(), &reloaded, &why) != KorStore::Load::kLoaded ||
          canonical(reloaded) != canonical(image)) {
        fail("save and load changed the image");
      }
      break;
    }
    case KorStore::Load::kSetAside:
      if (why.empty()) fail("set aside without a reason");
      checkSetAsideBound();
      break;
    case KorStore::Load::kAbsent:
      fail("a written file is absent");
    case KorStore::Load::kUnreadable:
      fail(("unreadable: " + why).c_str());
  }
  remove(path.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Payloads that are not UTF-8 are refused by the parser; its complaint on
  // standard error is only noise here.
  static bool quiet = (google::protobuf::SetLogHandler(nullptr), true);
  (void)quiet;
  if (size == 0) return 0;
  const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  velt::proto::KorImage image;
  std::string why;
  switch (data[0] % 4) {
    case 0:  // the whole file
      if (KorStore::decode(bytes, &image, &why) == 0) checkAccepted(image);
      break;
    case 1: {  // a payload behind a correct header
      velt::proto::KorImage any;
      std::string file = KorStore::encode(any).substr(0, velt::agent::kKorStoreHeaderBytes);
      const uint64_t length = bytes.size();
      for (int i = 0; i < 8; ++i) file[12 + i] = static_cast<char>((length >> (8 * i)) & 0xFF);
      const uint32_t crc = velt::agent::crc32c(bytes.data(), bytes.size());
      for (int i = 0; i < 4; ++i) file[20 + i] = static_cast<char>((crc >> (8 * i)) & 0xFF);
      file += bytes;
      if (KorStore::decode(file, &image, &why) == 0) {
        checkAccepted(image);
        if (data[0] % 16 == 1) throughFile(file);
      }
      break;
    }
    case 2:  // a whole file on disk (fewer: each costs file system calls)
      if (data[0] % 16 == 2) throughFile(bytes);
      break;
    default:  // a payload that parses: the image checks alone
      if (image.ParseFromString(bytes)) {
        if (KorResources::validImage(image, &why)) checkAccepted(image);
      }
      break;
  }
  return 0;
}
