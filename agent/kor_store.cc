#include "kor_store.h"

#include <stdio.h>
#include <string.h>

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>

#include "kor_resources.h"
#include "state_files.h"

namespace velt {
namespace agent {
namespace {

struct Crc32cTable {
  uint32_t entries[256];
  Crc32cTable() {
    for (uint32_t i = 0; i < 256; ++i) {
      uint32_t c = i;
      for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ 0x82F63B78u : c >> 1;
      entries[i] = c;
    }
  }
};

void putLe(std::string* out, uint64_t v, int bytes) {
  for (int i = 0; i < bytes; ++i) out->push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
}

uint64_t getLe(const std::string& in, size_t at, int bytes) {
  uint64_t v = 0;
  for (int i = bytes - 1; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(in[at + i]);
  return v;
}

void setWhy(std::string* why, const std::string& text) {
  if (why != nullptr) *why = text;
}

}  // namespace

uint32_t crc32c(const void* data, size_t len, uint32_t crc) {
  static const Crc32cTable table;
  const unsigned char* p = static_cast<const unsigned char*>(data);
  crc = ~crc;
  for (size_t i = 0; i < len; ++i) crc = table.entries[(crc ^ p[i]) & 0xFF] ^ (crc >> 8);
  return ~crc;
}

std::string KorStore::encode(const proto::KorImage& image) {
  std::string payload;
  {
    google::protobuf::io::StringOutputStream stream(&payload);
    google::protobuf::io::CodedOutputStream coded(&stream);
    coded.SetSerializationDeterministic(true);
    image.SerializeToCodedStream(&coded);
  }
  std::string out(kKorStoreMagic, sizeof kKorStoreMagic);
  putLe(&out, kKorStoreVersion, 4);
  putLe(&out, payload.size(), 8);
  putLe(&out, crc32c(payload.data(), payload.size()), 4);
  out += payload;
  return out;
}

int KorStore::decode(const std::string& bytes, proto::KorImage* image, std::string* why) {
  image->Clear();
  if (bytes.size() < kKorStoreHeaderBytes) {
    setWhy(why, "short file: " + std::to_string(bytes.size()) + " bytes, less than its " +
                    std::to_string(kKorStoreHeaderBytes) + "-byte header");
    return -1;
  }
  if (memcmp(bytes.data(), kKorStoreMagic, sizeof kKorStoreMagic) != 0) {
    setWhy(why, "not a KOR resource file (bad magic)");
    return -1;
  }
  const uint64_t version = getLe(bytes, 8, 4);
  if (version != kKorStoreVersion) {
    setWhy(why, "unknown format version " + std::to_string(version));
    return -1;
  }
  const uint64_t length = getLe(bytes, 12, 8);
  const uint64_t actual = bytes.size() - kKorStoreHeaderBytes;
  if (length != actual) {
    setWhy(why, "payload length " + std::to_string(length) + " does not match the " +
                    std::to_string(actual) + " bytes that follow the header");
    return -1;
  }
  const uint32_t stored = static_cast<uint32_t>(getLe(bytes, 20, 4));
  const uint32_t computed = crc32c(bytes.data() + kKorStoreHeaderBytes, actual);
  if (stored != computed) {
    char text[96];
    snprintf(text, sizeof text, "bad checksum: 0x%08x stored, 0x%08x computed", stored, computed);
    setWhy(why, text);
    return -1;
  }
  if (!image->ParseFromArray(bytes.data() + kKorStoreHeaderBytes, static_cast<int>(actual))) {
    image->Clear();
    setWhy(why, "payload does not parse as KOR resources");
    return -1;
  }
  std::string invalid;
  if (!KorResources::validImage(*image, &invalid)) {
    image->Clear();
    setWhy(why, "invalid KOR resources: " + invalid);
    return -1;
  }
  return 0;
}

int KorStore::save(const std::string& dir, const proto::KorImage& image, std::string* why) {
  const std::string bytes = encode(image);
  if (bytes.size() > kKorStoreMaxFileBytes) {
    setWhy(why, "KOR resources take " + std::to_string(bytes.size()) + " bytes, more than " +
                    std::to_string(kKorStoreMaxFileBytes));
    return -1;
  }
  return writeStateFile(dir, kKorStoreFileName, bytes, why);
}

KorStore::Load KorStore::load(const std::string& dir, proto::KorImage* image, std::string* why) {
  image->Clear();
  removeStaleTemporaries(dir, kKorStoreFileName);
  std::string bytes, problem;
  switch (readStateFile(dir, kKorStoreFileName, kKorStoreMaxFileBytes, &bytes, &problem)) {
    case StateFileRead::kAbsent:
      return Load::kAbsent;
    case StateFileRead::kError:
      setWhy(why, problem);
      return Load::kUnreadable;
    case StateFileRead::kNotRegular:
    case StateFileRead::kTooLarge:
      break;
    case StateFileRead::kRead:
      if (decode(bytes, image, &problem) == 0) return Load::kLoaded;
      problem = dir + "/" + kKorStoreFileName + ": " + problem;
      break;
  }
  std::string aside, failure;
  if (setAsideStateFile(dir, kKorStoreFileName, &aside, &failure) != 0) {
    setWhy(why, problem + "; " + failure);
    return Load::kUnreadable;
  }
  setWhy(why, problem + "; set aside as " + aside);
  return Load::kSetAside;
}

}  // namespace agent
}  // namespace velt
